/*
 * Functions of curl whose calls are not recorded as spans, but change what is remembered about a
 * handle.
 */
#pragma once

#include "calls/wrapped_call.h"

#include <stddef.h>

/* One record each, installed like those of the instrumented functions of the HTTP group. */
extern kaq_internalfn_t kaq_followed_functions[];
extern const size_t kaq_followed_function_count;
