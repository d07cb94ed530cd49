/*
 * Errors, exceptions and the PHP call stack. Both hooks always chain to what was installed before
 * them.
 */
#pragma once

#include "spans/kaq_util.h"

extern kaq_throw_hook_t old_exception_cb;
extern kaq_error_cb_t old_error_cb;

void kaq_throw_exception_hook(kaq_thrown *exception);
void kaq_error_cb(KAQ_ERROR_CB_PARAMS);

/* Frames never exceed this number, whatever kaq.stack_depth says. */
#define KAQ_MAX_STACK_DEPTH 30

/* Gives the span the current call stack unless it has one. */
void kaq_make_stacktrace(kaq_function *fi);

/* Appends the current call stack, innermost frame first: ["class","function","file",line],... A
 * text that the buffer holds already is followed by a comma. */
void kaq_append_backtrace(smart_str *out);
