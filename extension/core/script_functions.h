/*
 * The functions that scripts may call. What they write lives in the thread's record until request
 * end, and what they are given after it is dropped. None of them asks whether the request is
 * monitored.
 */
#pragma once

#include "util/engine_compat.h"

/* The table that the engine registers at module start. */
extern const zend_function_entry kaq_functions[];
