/*
 * The response headers of transfers: curl hands each line to a callback of ours, which keeps it in
 * the store of the handle until the transfer is described.
 */
#pragma once

#include "util/engine_compat.h"

/* Makes curl pass the response header lines of a new handle to the script function
 * kaq_store_curl_response_headers(). A value that is not a handle is ignored. */
void kaq_curl_response_headers_callback(zval *handle);

/* Stores a line that curl received on a handle. Returns 1 if it was a non-empty string for a valid
 * handle, else 0. */
int kaq_save_curl_response_headers(const zval *handle, const zval *line);
