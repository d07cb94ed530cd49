/*
 * What a script could see of calls that it did not make, put aside for as long as they take: a
 * pending exception or interrupt, all its error and exception handlers, the error level and the
 * last error.
 *
 *     kaq_aside aside;
 *     kaq_aside_begin(&aside);
 *     zend_try {
 *         ... the calls ...
 *         kaq_aside_drop(&aside);
 *     }
 *     zend_catch ... zend_end_try();
 *     kaq_aside_end(&aside);
 *
 * The record is the caller's, on its stack, and owns what has been put aside until it ends. Records
 * nest: the one begun last ends first, on the same thread. Between begin and end no fiber can be
 * switched, as its code would go on with all that put aside.
 *
 * An error that the script's handlers might have taken is taken in silence; one that ends the
 * request is reported and ends it. The calls may set, restore and throw what they like.
 */
#pragma once

#include "util/engine_compat.h"

/* All handlers of a script: the ones in force, and the stacks of those below. */
typedef struct {
	zval error_handler, exception_handler;
	int error_level;
	zend_stack error_handlers, error_levels, exception_handlers;
} kaq_handlers;

/* Private to kaq_aside.cpp. */
typedef struct {
	zend_object *exception, *previous_exception;
	kaq_handlers handlers;
	bool has_interrupt;
	int error_reporting;
	int last_error_type, last_error_line;
	void *last_error_message, *last_error_file;
} kaq_aside;

/* Puts all that aside. May bail out of memory, and has changed nothing then. Must be followed by
 * kaq_aside_end, also after a bailout. */
void kaq_aside_begin(kaq_aside *aside);

/* Releases what the calls have left: handlers, and the pending exception unless it is an exit.
 * Destructors may run, and whatever they leave is released in the same way, so it may bail out:
 * call it where the calls' own bailouts are caught. Needed only if the calls returned. */
void kaq_aside_drop(const kaq_aside *aside);

/* Puts everything back as it was. An exit that the calls have begun stays pending, and an exception
 * that was put aside is released for it. What kaq_aside_drop has not released, because of a
 * bailout, is left to the end of the request. */
void kaq_aside_end(kaq_aside *aside);

/* How many records the thread has begun and not ended. Private to the function below and to
 * kaq_aside.cpp. */
extern __thread int kaq_asides __attribute__((tls_model("initial-exec"), visibility("hidden")));

/* Whether the calling thread is between a begin and its end, and so what happens is not the
 * script's doing. */
static inline bool kaq_in_unnoticed_call(void) {
	return kaq_asides > 0;
}
