/*
 * Plain access to the engine, the same on every version of it: properties, internal functions, the
 * call stack. Differences between engine versions go into util/engine_compat.h.
 */
#pragma once

#include "util/engine_compat.h"

/* A declared property, read without running script code or raising an error, and converted: to a
 * string, a new reference that the caller releases, or to an integer. What cannot be converted that
 * way reads as "" or 0. */
zend_string *kaq_property_text(zend_object *object, const char *name);
zend_long kaq_property_number(zend_object *object, const char *name);
/* The internal function of that name, in lower case, if scripts could call it: null when it is
 * missing, not internal, or disabled. */
zend_function *kaq_find_callable_function(const char *name, size_t length);

/* Calls an internal function with copies of the arguments. `result` becomes IS_UNDEF if it threw.
 * The engine's own call API would handle pending interrupts, and refuse to call during unwinding.
 * REQUIRES: no exception is pending. */
void kaq_call_internal(zend_function *function, uint32_t count, zval *args, zval *result);

/* Whether an object can be converted to a string. REQUIRES: `object` holds an object. */
bool kaq_is_stringable(const zval *object);

/* Whether the code that called the running internal function declares strict types. */
static inline bool kaq_caller_is_strict(void) {
	return ZEND_ARG_USES_STRICT_TYPES();
}

/* Whether stdClass can be instantiated: php.ini may disable it, and older engines then warn. */
bool kaq_has_plain_objects(void);

/* The running request's call frames as the engine's debug backtrace, without arguments, at most
 * `limit` frames (0: all). An empty array when nothing runs. */
void kaq_fetch_backtrace(zval *frames, int limit);
