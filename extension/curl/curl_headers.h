/*
 * The response headers of transfers: curl hands each line to a callback of ours, which keeps it in
 * the store of the handle until the transfer is described.
 */
#pragma once

#include "util/engine_compat.h"

/* Has the response header lines of a new curl handle brought to kaq_store_curl_response_headers().
 * A value that is no handle is ignored. */
void kaq_curl_response_headers_callback(zval *handle);

/* One line that curl received on a handle. Returns 1 if it was a text for a valid handle. */
int kaq_save_curl_response_headers(const zval *handle, const zval *line);
