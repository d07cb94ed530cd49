/*
 * Access to the engine's values and functions, shared by all rooms.
 *
 * A zval pointer that a function here returns as new is a container on the request allocator; the
 * caller gives it back with php_zval_free(), which releases the value too.
 */
#pragma once

#include "util/engine_compat.h"

#define KAQ_MAX_CALL_ARGS 3

zval *php_zval_alloc(void);
zval *kaq_new_array(void);
/* Null is ignored. */
void php_zval_free(zval *value);
/* Frees *slot if set, and nulls it. */
void kaq_zval_release(zval **slot);

/* Calls the PHP function `name` with up to KAQ_MAX_CALL_ARGS arguments. A new value, or null when
 * no such function can be called or the call failed. No warning reaches the script for a missing
 * or disabled function. */
zval *php_call(const char *name, zval *arg1, zval *arg2, zval *arg3);
zval *php_call_user_func(const char *name, uint32_t count, zval *args);

/* php_call of which the script notices nothing: no warning, no error handler, no exception, also
 * while one is pending. A bailout on the way goes on once everything is back in place. */
zval *php_call_unnoticed(const char *name, zval *arg1, zval *arg2, zval *arg3);

/* The value of an engine constant, or null when nothing defines it. Belongs to the engine. */
zval *php_get_constant(const char *name);

/* Null-safe. A string, an array or a curl handle is valid when it is one; a value is true as the
 * language has it. */
int php_is_zval_valid_string(const zval *value);
int php_is_zval_non_empty_string(const zval *value);
int php_is_zval_valid_array(const zval *value);
int php_is_zval_valid_integer(const zval *value);
int php_is_zval_valid_curl_handle(const zval *value);
int php_is_zval_true(zval *value);

/* Stores a value under a string key of an array, sharing it. */
void kaq_add_assoc_zval(zval *array, const char *key, zval *value);
void kaq_add_assoc_zval_ex(zval *array, const char *key, size_t key_length, zval *value);

/* The text of a server variable of the running request when it is a non-empty string, else "".
 * Never null; belongs to the engine. */
const char *kaq_get_server_global(const char *name);

/* The engine's debug backtrace as a new array value: no arguments, at most `limit` frames. */
zval *kaq_backtrace(int limit);

/* An exact, case-sensitive look-up in an array of header name to value. A new heap string, or null
 * when `headers` is no array, the key is absent or its value is no string. */
char *kaq_get_header_value(const zval *headers, const char *name);

/* Names and values of header lines are cut to these sizes, their NUL included. */
#define KAQ_HEADER_NAME_SIZE 128
#define KAQ_HEADER_VALUE_SIZE 256

/* Adds a header line to an array of name to value; a line without a name is dropped. */
void kaq_add_header_line(zval *map, const char *line);
