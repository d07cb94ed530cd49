/*
 * Plain access to the engine, the same on every version of it: properties, internal functions, the
 * call stack. What differs from engine to engine stands in util/engine_compat.h.
 */
#pragma once

#include "util/engine_compat.h"

/* Declared properties as they stand in the object: neither script code runs nor the engine reports
 * anything. A text is a new reference, "" for what has none; a number is 0 for what is none. */
zend_string *kaq_property_text(zend_object *object, const char *name);
zend_long kaq_property_number(zend_object *object, const char *name);
/* The internal function of that name if scripts could call it: null when it is missing, is not
 * internal or has been disabled. */
zend_function *kaq_find_callable_function(const char *name, size_t length);

/* Calls an internal function with copies of the arguments. The result is undefined if it threw. The
 * engine's own way to call would deal with pending interrupts, and refuse while a script unwinds.
 * REQUIRES: no exception is pending. */
void kaq_call_internal(zend_function *function, uint32_t count, zval *args, zval *result);

/* Whether an object can be turned into a text. */
bool kaq_is_stringable(const zval *object);

/* Whether the code that called the running internal function declares strict types. */
static inline bool kaq_caller_is_strict(void) {
	return ZEND_ARG_USES_STRICT_TYPES();
}

/* Whether stdClass can be instantiated: a site may have disabled it, and older engines then warn.
 */
bool kaq_has_plain_objects(void);

/* The running request's call frames as the engine's debug backtrace, without arguments, at most
 * `limit` frames (0: all). An empty array when nothing runs. */
void kaq_fetch_backtrace(zval *frames, int limit);
