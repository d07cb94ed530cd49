/*
 * The response headers of the running request, read from the engine's live list.
 */
#pragma once

#include "util/engine_compat.h"

/* A new array (php_zval_free) of name to value. Names and values are cut to their buffers; of
 * repeated names the last line stays. */
zval *kaq_response_headers_zv(void);

/* The value of the first header line that begins with `prefix`, whatever its case, and is longer:
 * leading white space dropped, a new heap string. Null when there is none. */
char *kaq_search_response_header(const char *prefix);

/* 0 without a Content-Length line. */
long kaq_get_response_content_length(void);

/* 200 while no status has been set. */
int kaq_get_response_code(void);

/* Sets a header of the response, replacing one of that name. Returns 1 unless the engine refuses.
 * Interface: kept for callers outside. */
int kaq_add_response_header(const char *name, const char *value);
