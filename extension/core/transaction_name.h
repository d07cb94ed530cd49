/*
 * The name that a script gives its transaction.
 */
#pragma once

#include "util/engine_compat.h"

/* Replaces every byte that is neither an ASCII letter or digit nor "." nor "/" by "_". Returns
 * whether it replaced any. */
bool kaq_sanitise_name(char *name, size_t length);

/* Stores "/" and the sanitised name, cut to the buffer, for the payload. */
void kaq_store_transaction_name(const zend_string *name);

/* If the running internal function was called with nothing but a variable of the calling code,
 * which holds `name`, puts the sanitised name into that variable. Nothing else changes: no array
 * element, property, literal or other variable with the same text. */
void kaq_rename_in_caller(const zend_execute_data *execute_data, const zend_string *name);
