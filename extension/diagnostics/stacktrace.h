/*
 * Errors, exceptions and the PHP call stack. Both hooks always chain to what was installed before
 * them, never run script code, and leave what happens while they record unrecorded.
 */
#pragma once

#include "spans/kaq_util.h"

extern kaq_throw_hook_t old_exception_cb;
extern kaq_error_cb_t old_error_cb;

void kaq_throw_exception_hook(kaq_thrown *exception);
void kaq_error_cb(KAQ_ERROR_CB_PARAMS);

/* A higher kaq.stack_depth counts as this one; 0 or less asks for the whole stack. */
#define KAQ_MAX_STACK_DEPTH 30
/* At most so many errors of a request are looked at. */
#define KAQ_MAX_ERRORS 10
/* A request's error records and stacks end here: a script that throws a million times must not fill
 * the memory. */
#define KAQ_MAX_FAILURE_BYTES ((size_t)16 * 1024 * 1024)

/* Appends one record to a span's error records. Null name, file or message: without that member; a
 * message that is longer than what the request has left is left out, too.
 * Captures the call stack, too, unless the span has one or the message carries one. `time` is in ms
 * since the epoch. */
void kaq_make_einfo(const char *name, const char *file, zend_long line, uint64_t time,
					const char *level, const char *message, kaq_function *fi);

/* Gives the span the current call stack unless it has one or the request has none left. */
void kaq_make_stacktrace(kaq_function *fi);

/* Appends the current call stack, innermost frame first: ["class","function","file",line],... A
 * text that the buffer holds already is followed by a comma. */
void kaq_append_backtrace(smart_str *out);

/* Prints the current call stack to the script's output. */
void kaq_print_user_stacktrace(void);
