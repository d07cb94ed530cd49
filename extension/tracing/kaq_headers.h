/*
 * The response headers of the running request, read from the engine's live list.
 */
#pragma once

#include "util/engine_compat.h"

/* A new array (php_zval_free) of name to value. Names and values are cut to their buffers; of
 * repeated names the last line stays. */
zval *kaq_response_headers_zv(void);

/* What follows `prefix` in the first header line that begins with it, in any case, and is longer: a
 * new heap string without leading white space. Null when there is no such line. */
char *kaq_search_response_header(const char *prefix);

/* The value of the Content-Length line; 0 without one. */
long kaq_get_response_content_length(void);

/* The response's status; 200 while none has been set. */
int kaq_get_response_code(void);

/* Sets a header of the response, replacing one of that name. Returns 1 unless the engine refuses.
 * Interface: kept for callers outside. */
int kaq_add_response_header(const char *name, const char *value);
