/*
 * The header list (CURLOPT_HTTPHEADER), the one option of curl handles that has to be remembered.
 */
#pragma once

#include "util/engine_compat.h"

/* The option's number in libcurl, for option arrays. */
#define KAQ_CURLOPT_HTTPHEADER 10023

/* Whether curl_setopt's option argument names the header list. */
bool kaq_is_header_option(const zval *option);

/* Saves the header list that the script set: an array, or what iterating over an object yields,
 * which runs script code unnoticed. An object that cannot be iterated over is read as curl reads
 * it, by its properties. */
void kaq_save_header_option(zval *handle, zval *value);

/* Saves the original's header lines for a copied handle, which sends them too. */
void kaq_inherit_header_option(zval *handle, zval *copy);

/* Sets `copy` to the saved list of an easy handle, or to null. The caller releases it
 * (zval_ptr_dtor). */
void kaq_copy_saved_headers(zval *copy, const zval *handle);
