/*
 * Functions that do next to nothing, each under two names: one that the extension wraps and one
 * that it does not.
 */
#pragma once

#include "php.h"

extern const zend_function_entry probe_functions[];
