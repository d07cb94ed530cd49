/*
 * The trace headers of outgoing curl calls: the account, the calling span, the flow of
 * applications.
 */
#pragma once

#include "spans/kaq_util.h"

/*
 * Sets the header list of an easy handle before its transfer: first the trace headers that name
 * `node` as the caller, then those lines of `user_headers` (ignored if it is not an array) that
 * name no trace header. Gives the span its id. With `is_async` the call counts as made through a
 * multi handle.
 *
 * Always returns 0. Does nothing if the handle is not valid or curl is missing.
 */
int curl_exec_pre_req_header(zval *handle, zval *user_headers, kaq_node *node, int is_async);

/* Whether a header line contains a name, in any case, anywhere. False for other values. */
bool php_curl_header_is_present(const zval *line, const char *name);

/* Whether a method of a class named after Guzzle is among the innermost calls. Interface: kept
 * for callers outside. */
int guzzle_in_call_stack(void);
