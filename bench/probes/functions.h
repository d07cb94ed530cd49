/*
 * Functions that do next to nothing, each under two names: one that the extension wraps and one
 * that it does not.
 */
#pragma once

#include "php.h"

/* User calls that the hook of the mode "count" has seen. */
extern zend_long probe_count;

extern const zend_function_entry probe_functions[];
