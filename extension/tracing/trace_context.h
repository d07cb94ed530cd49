/*
 * The trace context of the running request: trace id, the caller's span id, the flow of
 * applications. Read once at request start into the thread's record.
 */
#pragma once

#include "spans/kaq_util.h"

/* Web requests, in this order: they set is_caller_same_user, then trace_id and root_parentspanid,
 * then app_flow and is_async_call. REQUIRES: request_headers_zv is set. */
void kaq_is_caller_same_user(void);
void kaq_get_traceparent(void);
void kaq_get_origin(void);

/* Background requests: a fresh trace id and no caller. */
void kaq_start_background_trace(void);

/* Gives the span an identifier unless it has one. Null is ignored. */
void kaq_assign_span_id(kaq_node *node);
