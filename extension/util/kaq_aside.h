/*
 * What a script could see of calls that it did not make: a pending exception or interrupt, its
 * error handlers, the error level and the last error.
 */
#pragma once

#include "util/engine_compat.h"

typedef struct {
	zend_object *exception, *previous_exception;
	zval error_handler;
	int handler_level, handlers_below;
	bool has_interrupt;
	int error_reporting;
	int last_error_type, last_error_line;
	void *last_error_message, *last_error_file;
} kaq_aside;

/* Puts all that aside. Errors that the script's handler might have taken are taken without it;
 * fatal ones are reported. Ends with kaq_aside_end, after a bailout too. */
void kaq_aside_begin(kaq_aside *aside);

/* Puts it back, and drops what has come up in between: handlers, and an exception unless it is an
 * exit. */
void kaq_aside_end(kaq_aside *aside);

/* How many of them the thread is in. Private to the function below and to kaq_aside.cpp. */
extern __thread int kaq_asides __attribute__((tls_model("initial-exec"), visibility("hidden")));

/* Whether the thread is between the two: what happens now is not the script's doing. */
static inline bool kaq_in_unnoticed_call(void) {
	return kaq_asides > 0;
}
