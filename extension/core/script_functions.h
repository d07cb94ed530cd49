/*
 * The functions that scripts may call. What they store stays in the thread's record until request
 * end; after that they store nothing. None of them checks whether the request is monitored.
 */
#pragma once

#include "util/engine_compat.h"

/* The table that the engine registers at module start. */
extern const zend_function_entry kaq_functions[];
