/*
 * Reading the arguments of a wrapped call with the engine's own parser, by layout.
 *
 * A layout is a format string of the engine's argument parser ("Os|l"). Several are separated
 * by ";" and tried in order; "2:sa" is tried only with two arguments, "1!s" reads the first
 * argument whatever follows, and needs one.
 */
#pragma once

#include "util/engine_compat.h"

#define KAQ_MAX_ARGUMENTS 9

/* What a layout found, by kind and in order. Strings that were not passed are null, numbers 0. The
 * texts belong to the call's arguments. */
typedef struct {
	char *text[KAQ_MAX_ARGUMENTS];
	size_t text_length[KAQ_MAX_ARGUMENTS];
	zend_long number[KAQ_MAX_ARGUMENTS];
	zval *value[KAQ_MAX_ARGUMENTS];
} kaq_arguments;

/* Tries the layouts in order. With `warn` the engine reports, once, what does not
 * fit the first of them, where such a report is a warning and not an exception. Returns 1 when one
 * fitted; otherwise everything reads as not passed. REQUIRES: the wrapped function is the running
 * frame. */
int kaq_parse_arguments(const zend_execute_data *execute_data, const char *layouts, int warn,
						kaq_arguments *arguments);
