/*
 * Access to the engine's values and functions, shared by all rooms.
 *
 * A zval pointer that a function here returns as new is a container on the request allocator; the
 * caller gives it back with php_zval_free(), which releases the value too, before the request ends.
 *
 * Threads: everything here works on the calling thread's engine. REQUIRES: the thread has been
 * bound (kaq_bind_thread) and serves a request. What allocates may bail out at the script's memory
 * limit.
 */
#pragma once

#include "util/engine_compat.h"

#define KAQ_MAX_CALL_ARGS 3

/* A new container that holds the value null; never a null pointer. */
zval *php_zval_alloc(void);
/* A new empty array. */
zval *kaq_new_array(void);
/* Releases the value and frees its container. A destructor may run if it holds the last reference
 * to an object. Null is ignored. */
void php_zval_free(zval *value);
/* php_zval_free(*slot), with *slot set to null first, so that a destructor cannot see it. */
void kaq_zval_release(zval **slot);

/*
 * Calls the PHP function `name`, given in lower case, with `count` arguments, and returns its
 * result as a new value. Only internal functions that scripts could call themselves are found: for
 * one that is missing, disabled or defined by a script the result is null, and no error is raised.
 *
 * The caller keeps its arguments; the function gets copies, so it must not take any by reference.
 *
 * To the script it is as if it had made the call itself: its code that the function calls runs
 * (callbacks, __toString, iterators), errors go to its handlers, and an exception stays pending,
 * with null as the result. While an exception is pending nothing is called and the result is null.
 * A bailout in the function passes through here.
 */
zval *php_call_user_func(const char *name, uint32_t count, zval *args);

/* The same with up to KAQ_MAX_CALL_ARGS arguments; the first null ends them. */
zval *php_call(const char *name, zval *arg1, zval *arg2, zval *arg3);

/*
 * A php_call that the script cannot notice, except through what its own code does meanwhile: all
 * traces are put aside, as util/kaq_aside.h describes, and put back. So it also works while an
 * exception is pending, which stays pending. An exception that the call throws is dropped, and the
 * result is then null.
 *
 * What ends the request still does: a bailout passes through here once everything is back in place,
 * and an exit is left pending in engines where exits are exceptions.
 */
zval *php_call_unnoticed(const char *name, zval *arg1, zval *arg2, zval *arg3);

/* The value of the constant of that name, which may have any type: a script can define it if no
 * extension does. Null when nothing defines it. Belongs to the engine and is valid until request
 * end. Runs no script code. */
zval *php_get_constant(const char *name);

/* Null-safe. A value is valid when it has the type named; it is true when PHP takes it for true. */
int php_is_zval_valid_string(const zval *value);
int php_is_zval_non_empty_string(const zval *value);
int php_is_zval_valid_array(const zval *value);
int php_is_zval_valid_integer(const zval *value);
int php_is_zval_valid_curl_handle(const zval *value);
int php_is_zval_true(zval *value);

/* Stores a value under a string key of an array, which shares it with the caller. Interface: kept
 * for callers outside. */
void kaq_add_assoc_zval(zval *array, const char *key, zval *value);
void kaq_add_assoc_zval_ex(zval *array, const char *key, size_t key_length, zval *value);

/* The text of a server variable of the running request when it is a non-empty string, else "".
 * Never null; belongs to the engine. Interface: kept for callers outside. */
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
