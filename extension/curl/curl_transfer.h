/*
 * What a span records about a curl transfer. Curl is asked for it once the call has returned.
 */
#pragma once

#include "spans/kaq_util.h"
#include "state/php_kaq.h"

/* The value of the integer constant `name`. `slot` points at it from then on and owns it: do not
 * free or change what is returned. Null, and looked up again next time, while no such constant is
 * defined. */
zval *kaq_get_cached_constant(zval **slot, const char *name);

/* The same for one of curl's constants, whose slot is a field of the thread's record until request
 * end. Its value is looked up once per thread. */
zval *kaq_get_curlinfo_constant(kaq_curlinfo info);

/* Records URL, status, failure and, if they are captured, headers of a curl_exec. */
void kaq_describe_blocking_transfer(kaq_function *fi, zval *handle, zval *request_headers);

/* Adds to `parent`, the span of a curl_multi_exec, a child span for every transfer of the multi
 * handle that has a status and is not yet reported. */
void kaq_report_transfers(kaq_node *parent, zend_long multi_id);
