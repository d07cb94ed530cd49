/* The functions that scripts may call. */
#pragma once

#include "util/engine_compat.h"

/* The table that the engine registers at module start. */
extern const zend_function_entry kaq_functions[];
