#include "tracing/distributedTrace.h"

#include "state/php_kaq.h"
#include "tracing/account_id.h"
#include "tracing/trace_context.h"
#include "util/engine_access.h"
#include "util/header_line.h"
#include "util/kaq_strings.h"
#include "util/kaq_util_functions.h"

#include <stdio.h>
#include <stdlib.h>

#define KAQ_TRACEPARENT_SIZE 64
#define KAQ_GUZZLE_FRAMES 20

static const char *const trace_header_names[] = {"X-Skelvor-Id", "traceparent", "X-Skelvor-Origin"};

/* Much of what the headers carry comes from outside: a line break in it would start another
 * header. */
static bool kaq_is_fit_for_header(const char *text) {
	for (const unsigned char *c = (const unsigned char *)text; *c; c++) {
		if (*c < 0x20 || *c == 0x7f) {
			return false;
		}
	}
	return true;
}

/* A value that is not allowed in a header is left out. False only when memory is short. */
static bool kaq_append_header(zval *list, const char *name, const char *value) {
	if (!kaq_is_fit_for_header(value)) {
		return true;
	}
	char *line = header_format_name_value(name, value, 0);
	if (!line) {
		return false;
	}
	add_next_index_string(list, line);
	free(line);
	return true;
}

static bool kaq_append_traceparent(zval *list, const zend_kaq_globals *g, kaq_node *node) {
	char value[KAQ_TRACEPARENT_SIZE];
	kaq_assign_span_id(node);
	snprintf(value, sizeof(value), "00-%s-%s-01", g->trace_id, node->data.function_info.span_id);
	return kaq_append_header(list, "traceparent", value);
}

static char *kaq_origin_text(const zend_kaq_globals *g, int is_async) {
	const char *flow = "";
	if (!is_async && !g->is_async_call && g->app_flow && kaq_is_fit_for_header(g->app_flow)) {
		flow = g->app_flow;
	}
	char *text = nullptr;
	int length = asprintf(&text, "{\"flow\":\"%s%s;\"%s}", flow, g->app_id,
						  is_async ? ",\"async\":true" : "");
	return length < 0 ? nullptr : text;
}

static bool kaq_append_origin(zval *list, const zend_kaq_globals *g, int is_async) {
	if (g->transaction_type != WEB || !g->app_id || !g->app_id[0]) {
		return true;
	}
	char *value = kaq_origin_text(g, is_async);
	bool appended = value && kaq_append_header(list, "X-Skelvor-Origin", value);
	free(value);
	return appended;
}

static bool kaq_append_trace_headers(zval *list, kaq_node *node, int is_async) {
	const zend_kaq_globals *g = kaq_get_globals();
	const char *account = kaq_account_id();
	return (!account || kaq_append_header(list, "X-Skelvor-Id", account)) &&
		   kaq_append_traceparent(list, g, node) && kaq_append_origin(list, g, is_async);
}

bool php_curl_header_is_present(const zval *line, const char *name) {
	return php_is_zval_valid_string(line) &&
		   strncaseidx(Z_STRVAL_P(line), name, Z_STRLEN_P(line)) >= 0;
}

static bool kaq_is_trace_header(const zval *line) {
	for (const char *name : trace_header_names) {
		if (php_curl_header_is_present(line, name)) {
			return true;
		}
	}
	return false;
}

/* An object that cannot be converted to a string was refused, or sent as nothing, when the script
 * set its list. */
static bool kaq_has_text_form(const zval *element) {
	return Z_TYPE_P(element) != IS_OBJECT || kaq_is_stringable(element);
}

static void kaq_append_user_headers(zval *list, zval *user_headers) {
	if (!user_headers || Z_TYPE_P(user_headers) != IS_ARRAY) {
		return;
	}
	zval *element;
	ZEND_HASH_FOREACH_VAL(Z_ARRVAL_P(user_headers), element) {
		ZVAL_DEREF(element);
		if (!kaq_is_trace_header(element) && kaq_has_text_form(element)) {
			Z_TRY_ADDREF_P(element);
			add_next_index_zval(list, element);
		}
	}
	ZEND_HASH_FOREACH_END();
}

int curl_exec_pre_req_header(zval *handle, zval *user_headers, kaq_node *node, int is_async) {
	zval *option = php_get_constant("CURLOPT_HTTPHEADER");
	if (!option || !php_is_zval_valid_curl_handle(handle)) {
		return 0;
	}
	zval list;
	array_init(&list);
	if (kaq_append_trace_headers(&list, node, is_async)) {
		kaq_append_user_headers(&list, user_headers);
		php_zval_free(php_call_unnoticed("curl_setopt", handle, option, &list));
	}
	zval_ptr_dtor(&list);
	return 0;
}

static bool kaq_is_guzzle_frame(const zval *frame) {
	if (Z_TYPE_P(frame) != IS_ARRAY) {
		return false;
	}
	const zval *name = zend_hash_str_find(Z_ARRVAL_P(frame), "class", strlen("class"));
	return php_is_zval_non_empty_string(name) && strcaseidx(Z_STRVAL_P(name), "guzzle") >= 0;
}

int guzzle_in_call_stack(void) {
	zval *frames = kaq_backtrace(KAQ_GUZZLE_FRAMES);
	int found = 0;
	const zval *frame;
	ZEND_HASH_FOREACH_VAL(Z_ARRVAL_P(frames), frame) {
		found |= kaq_is_guzzle_frame(frame);
	}
	ZEND_HASH_FOREACH_END();
	php_zval_free(frames);
	return found;
}
