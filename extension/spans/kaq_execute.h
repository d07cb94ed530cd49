/*
 * Capture of user code: the engine's execute hook, the root span, and the request's CPU time.
 *
 * The hook adds a frame to the C stack for every PHP call, so this frame is kept to one saved
 * register: what happens before and after the chained call is in functions of its own.
 */
#pragma once

#include "spans/kaq_util.h"

/* The hook found at module start; null when ours is not installed. */
extern void (*old_execute_ex)(zend_execute_data *execute_data);

/* In a monitored request: opens a span for a named user function or method, calls the previous
 * hook, and closes the span. A bailout leaves the span open; request end closes it. In any other
 * request, and outside of one, it only calls the previous hook: nobody would ever see the spans.
 * REQUIRES: old_execute_ex is set. */
void kaq_execute_ex(zend_execute_data *execute_data);

/* The value of the setting that asks for it. */
#define KAQ_TRACK_BY_OBSERVER 2
/* Has the engine tell us of calls of user functions, in place of the hook: the same spans, but for
 * what docs/engines.md says, and nothing on the C stack. False where the engine has nothing fit for
 * it. At module start only. */
bool kaq_observe_user_calls(void);

/* A new span that names the frame's function, or null for a frame without a named function: the
 * main script, an included file, eval'd code. Interface: kept for callers outside. */
kaq_node *kaq_populate_function(const zend_execute_data *execute_data);

/* Called when `from` is left and `to` goes on, each of them the slot of a fiber or of the main
 * code: each has a current span of its own. A fiber that starts, or whose span is gone, keeps the
 * current span of the code that resumed it. */
void kaq_switch_fiber(void **from, void **to);

/* Opens the root span "main". REQUIRES: no span of this request has been opened. */
void kaq_create_main_method(void);

/* Store the CPU time of the whole process, in ms since the start call, in the thread's cpu_time.
 * Both return 0, or -1 when the operating system refuses. */
int kaq_cpu_usage_start(void);
int kaq_cpu_usage_end(void);

/* 1 when the span's function name contains "kaq_start" or "kaq_end". Interface: kept
 * for callers outside. */
int kaq_is_profiling_function(const kaq_node *node);
