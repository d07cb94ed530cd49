/*
 * Errors, exceptions and the PHP call stack. Both hooks always chain to what was installed before
 * them, never run script code, and record nothing that happens while they are recording.
 */
#pragma once

#include "spans/kaq_util.h"

/* What was installed before our hooks, set at module start. The exception hook may be null. */
extern kaq_throw_hook_t old_exception_cb;
extern kaq_error_cb_t old_error_cb;

/* The hooks. */
void kaq_throw_exception_hook(kaq_thrown *exception);
void kaq_error_cb(KAQ_ERROR_CB_PARAMS);

/* A higher kaq.stack_depth counts as this one; 0 or less asks for the whole stack. */
#define KAQ_MAX_STACK_DEPTH 30
/* At most this many errors of a request are considered. */
#define KAQ_MAX_ERRORS 10
/* Limit for all error records and call stacks of a request, in bytes: a script that throws a
 * million times must not fill the memory. */
#define KAQ_MAX_FAILURE_BYTES ((size_t)16 * 1024 * 1024)

/* Appends one record to a span's error records. A null name, file or message is left out, as is a
 * message longer than what is left of KAQ_MAX_FAILURE_BYTES. Also captures the call stack unless
 * the span has one or the message contains one. `time` is in ms since the epoch. */
void kaq_make_einfo(const char *name, const char *file, zend_long line, uint64_t time,
					const char *level, const char *message, kaq_function *fi);

/* Gives the span the current call stack unless it has one or KAQ_MAX_FAILURE_BYTES is used up. */
void kaq_make_stacktrace(kaq_function *fi);

/* Appends the current call stack, innermost frame first: ["class","function","file",line],... If
 * the buffer is not empty a comma comes first. */
void kaq_append_backtrace(smart_str *out);

/* Prints the current call stack to the script's output. */
void kaq_print_user_stacktrace(void);
