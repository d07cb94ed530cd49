/*
 * Keeps from a script what it could see of calls that it did not make. Put aside for as long as
 * they take are: a pending exception or interrupt, all its error and exception handlers, the error
 * level and the last error.
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
 * In between, an error that the script's handlers might have taken is taken in silence, and others
 * go unreported unless they end the request. Script code that the calls run may set and restore
 * handlers and throw as it likes. It cannot switch fibers: another one would go on with all that
 * put aside.
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

/* Puts all that aside. If it bails out, which it may at the memory limit, it has changed nothing;
 * otherwise kaq_aside_end has to follow, also after a bailout of the calls. */
void kaq_aside_begin(kaq_aside *aside);

/* Releases what the calls have left: handlers that they set, and a pending exception unless it is
 * an exit. That may run destructors, whose own leavings are released in the same way, and may bail
 * out. Call it once the calls have returned, where their bailouts are caught, and from within a
 * call of the script's: outside any, the engine ends the request at a destructor's exception. */
void kaq_aside_drop(const kaq_aside *aside);

/* Puts everything back as it was. Only an exit that the calls have begun stays pending; the
 * exception that was put aside is released then. What a bailout has kept kaq_aside_drop from
 * releasing is left to the end of the request. */
void kaq_aside_end(kaq_aside *aside);

/* How many records the thread has begun and not ended. Private to the function below and to
 * kaq_aside.cpp. */
extern __thread int kaq_asides __attribute__((tls_model("initial-exec"), visibility("hidden")));

/* Whether the calling thread is between a begin and its end: what happens now, the script has not
 * asked for. */
static inline bool kaq_in_unnoticed_call(void) {
	return kaq_asides > 0;
}
