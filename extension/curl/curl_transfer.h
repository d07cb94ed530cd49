/*
 * What a span tells of a curl transfer, asked of curl once the call has returned.
 */
#pragma once

#include "spans/kaq_util.h"

/* The value of an engine constant, kept for the thread. `slot` is one of the curlinfo_ fields of
 * the thread's record and points at the value from then on, until request end. Null, and tried
 * again next time, while nothing defines the constant. */
zval *kaq_get_cached_constant(zval **slot, const char *name);

/* URL, status, failure and, if they are captured, headers of a curl_exec. */
void kaq_describe_blocking_transfer(kaq_function *fi, zval *handle, zval *request_headers);

/* Makes a child span of `parent`, a curl_multi_exec call, of every transfer of the multi handle
 * that has a status and is not yet reported. */
void kaq_report_transfers(kaq_node *parent, zend_long multi_id);
