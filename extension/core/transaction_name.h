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

/* The running internal function was passed a variable of the calling code: the variable then holds
 * the sanitised name. Nothing else changes: not an element of an array, a property, a literal, or
 * another variable with the same text. */
void kaq_rename_in_caller(const zend_execute_data *execute_data, const zend_string *name);
