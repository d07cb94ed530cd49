/*
 * Functions whose calls leave no span, but change what is remembered of a curl handle.
 */
#pragma once

#include "calls/wrapped_call.h"

#include <stddef.h>

/* One record each, installed like those of the instrumented functions of the HTTP group. */
extern kaq_internalfn_t kaq_followed_functions[];
extern const size_t kaq_followed_function_count;
