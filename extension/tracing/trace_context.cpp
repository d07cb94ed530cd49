#include "tracing/trace_context.h"

#include "json/kaq_json.h"
#include "state/php_kaq.h"
#include "tracing/account_id.h"
#include "util/kaq_random.h"
#include "util/kaq_strings.h"
#include "util/kaq_util_functions.h"

#include <stdlib.h>

/* traceparent: version "-" trace id "-" parent span id "-" flags, taken apart by position. */
#define KAQ_TRACEPARENT_LENGTH 55
#define KAQ_TRACEPARENT_TRACE_ID 3
#define KAQ_TRACEPARENT_SPAN_ID 36

static void kaq_start_new_trace(zend_kaq_globals *g) {
	kaq_random_hex(KAQ_TRACE_ID_LENGTH, g->trace_id);
	memset(g->root_parentspanid, 0, KAQ_SPAN_ID_LENGTH);
}

void kaq_is_caller_same_user(void) {
	zend_kaq_globals *g = kaq_get_globals();
	const char *account = kaq_account_id();
	char *caller = account ? kaq_get_header_value(g->request_headers_zv, "X-Skelvor-Id") : nullptr;
	if (caller && strcmp(caller, account) == 0) {
		g->is_caller_same_user = 1;
	}
	free(caller);
}

void kaq_get_traceparent(void) {
	zend_kaq_globals *g = kaq_get_globals();
	char *value = kaq_get_header_value(g->request_headers_zv, "traceparent");
	if (!value) {
		value = kaq_get_header_value(g->request_headers_zv, "Traceparent");
	}
	if (value && strlen(value) == KAQ_TRACEPARENT_LENGTH) {
		memcpy(g->trace_id, value + KAQ_TRACEPARENT_TRACE_ID, KAQ_TRACE_ID_LENGTH);
		g->trace_id[KAQ_TRACE_ID_LENGTH] = '\0';
		memcpy(g->root_parentspanid, value + KAQ_TRACEPARENT_SPAN_ID, KAQ_SPAN_ID_LENGTH);
		g->root_parentspanid[KAQ_SPAN_ID_LENGTH] = '\0';
	} else {
		kaq_start_new_trace(g);
	}
	free(value);
}

static void kaq_take_origin(zend_kaq_globals *g, zval *origin) {
	zval rv;
	const zval *flow = kaq_read_property(origin, "flow", strlen("flow"), &rv);
	if (php_is_zval_valid_string(flow)) {
		free(g->app_flow);
		g->app_flow = kaq_strdup(Z_STRVAL_P(flow));
	}
	const zval *async = kaq_read_property(origin, "async", strlen("async"), &rv);
	if (async && Z_TYPE_P(async) == IS_TRUE) {
		g->is_async_call = 1;
	}
}

/* What another account sends is ignored. */
void kaq_get_origin(void) {
	zend_kaq_globals *g = kaq_get_globals();
	if (!g->is_caller_same_user) {
		return;
	}
	char *value = kaq_get_header_value(g->request_headers_zv, "X-Skelvor-Origin");
	if (!value) {
		return;
	}
	zval *origin = kaq_decode_json_object(value, g->json_decode_function_exists);
	free(value);
	if (origin) {
		kaq_take_origin(g, origin);
	}
	php_zval_free(origin);
}

void kaq_start_background_trace(void) {
	kaq_start_new_trace(kaq_get_globals());
}

void kaq_assign_span_id(kaq_node *node) {
	if (node && node->data.function_info.span_id[0] == '\0') {
		kaq_random_hex(KAQ_SPAN_ID_LENGTH, node->data.function_info.span_id);
	}
}
