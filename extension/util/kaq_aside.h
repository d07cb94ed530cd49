/*
 * Hides from a script the calls that the extension makes on its own. While they run, these are put
 * aside: a pending exception or interrupt, all error and exception handlers of the script, the
 * error level and the last error.
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
 * In between, errors that the script's handlers might have handled are swallowed, and others go
 * unreported unless they end the request. Script code that the calls run may set and restore
 * handlers and throw as usual. It cannot switch fibers: another fiber would run with all this put
 * aside.
 *
 * Ownership: the record lives on the caller's stack and from begin to end owns what was put aside;
 * nothing has to be freed. Threads: a record belongs to the thread that began it. Records nest, and
 * the one begun last ends first.
 */
#pragma once

#include "util/engine_compat.h"

/* All handlers of a script: the ones in force, and the stacks of those below. */
struct kaq_handlers {
	zval error_handler, exception_handler;
	int error_level;
	zend_stack error_handlers, error_levels, exception_handlers;
};

/* Private to kaq_aside.cpp. */
struct kaq_aside {
	zend_object *exception, *previous_exception;
	kaq_handlers handlers;
	bool has_interrupt;
	int error_reporting;
	int last_error_type, last_error_line;
	void *last_error_message, *last_error_file;
};

/* Puts all of that aside. It may bail out at the memory limit, and then has changed nothing;
 * otherwise kaq_aside_end has to follow, even if the calls bail out. */
void kaq_aside_begin(kaq_aside *aside);

/* Releases what the calls left behind: handlers that they set, and a pending exception unless it is
 * an exit. This may run destructors, whose leftovers are released in the same way, and may bail
 * out. Call it once the calls have returned, within the zend_try around them, and only while script
 * code is on the call stack: otherwise the engine ends the request when a destructor throws. */
void kaq_aside_drop(const kaq_aside *aside);

/* Puts everything back as it was. Only an exit that the calls raised stays pending; in that case
 * the exception that was put aside is released. What kaq_aside_drop could not release because of a
 * bailout is left until request end. */
void kaq_aside_end(kaq_aside *aside);

/* How many records the thread has begun and not ended. Private to the function below and to
 * kaq_aside.cpp. */
extern __thread int kaq_asides __attribute__((tls_model("initial-exec"), visibility("hidden")));

/* Whether the calling thread is between a begin and its end: the script has not asked for what
 * happens now. */
static inline bool kaq_in_unnoticed_call(void) {
	return kaq_asides > 0;
}
