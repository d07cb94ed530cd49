/*
 * What a span tells of a curl transfer, asked of curl once the call has returned.
 */
#pragma once

#include "spans/kaq_util.h"

/* The value of the integer constant `name`, looked up once per thread and kept for its later
 * requests. `slot` is one of the curlinfo_ fields of the calling thread's record, always the same
 * one for a name, and holds the result from then on. The value belongs to the record: do not free
 * or change it, and ask again in each request. Null, and looked up again next time, while no such
 * constant is defined. */
zval *kaq_get_cached_constant(zval **slot, const char *name);

/* URL, status, failure and, if they are captured, headers of a curl_exec. */
void kaq_describe_blocking_transfer(kaq_function *fi, zval *handle, zval *request_headers);

/* Makes a child span of `parent`, a curl_multi_exec call, of every transfer of the multi handle
 * that has a status and is not yet reported. */
void kaq_report_transfers(kaq_node *parent, zend_long multi_id);
