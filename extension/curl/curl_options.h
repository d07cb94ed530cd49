/*
 * The header list among the options that a script sets on curl handles.
 */
#pragma once

#include "util/engine_compat.h"

/* The option's number in libcurl, for option arrays. */
#define KAQ_CURLOPT_HTTPHEADER 10023

/* Whether an option argument of curl_setopt means the header list. */
bool kaq_is_header_option(const zval *option);

/* Saves what the script gave as header list: an array, or what iterating over an object yields. An
 * object that cannot be iterated over is read as curl reads it, by its properties. */
void kaq_save_header_option(zval *handle, zval *value);

/* The copy of a handle sends the original's header lines. */
void kaq_inherit_header_option(zval *handle, zval *copy);

/* The saved list of an easy handle, shared, or the null value. The caller destroys it. */
void kaq_copy_saved_headers(zval *copy, const zval *handle);
