/*
 * The headers of the response that the running request sends, read from the engine's live list.
 */
#pragma once

#include "util/engine_compat.h"

#define KAQ_HEADER_NAME_SIZE 128
#define KAQ_HEADER_VALUE_SIZE 256

/* A new array (php_zval_free) of name to value. Names and values are cut to their buffers; of
 * repeated names the last line stays. */
zval *kaq_response_headers_zv(void);

/* Adds a header line to an array of name to value; a line without a name is dropped. */
void kaq_add_header_line(zval *map, const char *line);

/* The value of the first header line that begins with `prefix`, whatever its case, and is longer:
 * leading white space dropped, a new heap string. Null when there is none. */
char *kaq_search_response_header(const char *prefix);

/* 0 without a Content-Length line. */
long kaq_get_response_content_length(void);

/* 200 while no status has been set. */
int kaq_get_response_code(void);
