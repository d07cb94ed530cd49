/*
 * The instrumented internal functions: one wrap record each, built at module start, installed when
 * a thread serves its first request, released at module end.
 *
 * Installing a record puts its outer wrapper in place of the function's handler in the engine's
 * table. A thread-safe engine gives every thread its own copy of every function, while classes are
 * shared: functions are wrapped in the table of each thread, methods once per process.
 *
 * The records, and the slots through which the wrappers find them, are written at module start, at
 * installation under a lock, and at module end; requests only read them.
 */
#pragma once

#include "calls/wrapped_call.h"

/* Newest record first. */
extern kaq_internalfn_t *kaq_wrapped_internal_functions;

/* Builds the records of the table, each enabled by its group's capture setting as it is now. Does
 * nothing when there are records. Once per module start, after the settings are registered. */
void kaq_generate_internal_wrap_records(void);

/* A zeroed record at the head of the list, or null when memory is short. */
kaq_internalfn_t *kaq_get_wraprec(void);

/* Installs the enabled wrappers that this thread lacks. Called at every request start; the work is
 * done at a thread's first. */
void kaq_late_initialization(void);
void kaq_add_internal_instrumentation(void);

/* Installs one record, unless its function or class is missing, not internal, or disabled by
 * php.ini. A method is wrapped in the internal classes that inherit it, too. */
void kaq_wrap_internal_function(kaq_internalfn_t *wraprec);

/* Releases the records and empties their slots. Wrappers that stay in the engine's tables then do
 * nothing when called. */
void kaq_destroy_internal_wrap_records(void);
void kaq_internal_wraprec_destroy(kaq_internalfn_t **wraprec);

/* The parts of a full name as new heap strings. Function: what follows the first "::", or all of
 * it. Class: what comes before the first ":", or null without one. */
char *kaq_function_name_from_full_name(const char *full_name);
char *kaq_class_name_from_full_name(const char *full_name);

/* Exact look-ups; null when there is none, and for a null or empty name. */
zend_function *kaq_find_function(const char *name);
zend_class_entry *kaq_find_class(const char *name);
zend_function *kaq_find_class_method(zend_class_entry *ce, const char *name);

/* What every outer wrapper does: records a span around the call if this request records any, else
 * just runs the saved handler. With a null record, or one that is not installed, it does nothing
 * and does not even call the function. */
void kaq_instrument_delegate(kaq_internalfn_t *wraprec, zend_execute_data *execute_data,
							 zval *return_value);
