/*
 * Response headers: of the running request, read from the engine's live list, and of the transfers
 * that it makes with curl.
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

/* Sets a header of the response, replacing one of that name. Returns 1 unless the engine refuses.
 */
int kaq_add_response_header(const char *name, const char *value);

/* Has the response header lines of a new curl handle brought to kaq_store_curl_response_headers().
 * A value that is no handle is ignored. */
void kaq_curl_response_headers_callback(zval *handle);

/* One line that curl received on a handle. Returns 1 if it was a text for a valid handle. */
int kaq_save_curl_response_headers(const zval *handle, const zval *line);
