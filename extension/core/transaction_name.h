/*
 * The name that a script gives its transaction.
 */
#pragma once

#include "util/engine_compat.h"

/* Replaces every byte that is neither an ASCII letter or digit nor "." nor "/" by "_". Returns
 * whether there was one. */
bool kaq_sanitise_name(char *name, size_t length);

/* Stores "/" and the sanitised name, cut to the buffer, for the payload. */
void kaq_store_transaction_name(const zend_string *name);

/*
 * The argument of the running internal function is changed where the caller keeps it: a variable of
 * the calling code, or an element of an array in such a variable, then holds the sanitised name.
 * Nothing else changes: not a literal, a constant, an array key, another variable or array with the
 * same text. Where that cannot be had the caller's text stays.
 */
void kaq_rename_in_caller(const zend_execute_data *execute_data, zend_string *name);
