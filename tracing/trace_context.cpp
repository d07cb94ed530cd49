#include "tracing/trace_context.h"

#include "core/php_kaq.h"
#include "tracing/kaq_random.h"
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

/* No account key is configured yet, so no caller counts as the same account. */
void kaq_is_caller_same_user(void) {
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

/* Only the flow of a caller of the same account is taken over. */
void kaq_get_origin(void) {
}

void kaq_start_background_trace(void) {
	kaq_start_new_trace(kaq_get_globals());
}

void kaq_assign_span_id(kaq_node *node) {
	if (node && node->data.function_info.span_id[0] == '\0') {
		kaq_random_hex(KAQ_SPAN_ID_LENGTH, node->data.function_info.span_id);
	}
}
