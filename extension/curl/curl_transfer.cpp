#include "curl/curl_transfer.h"

#include "curl/curl_stores.h"
#include "state/php_kaq.h"
#include "util/engine_access.h"
#include "util/kaq_clock.h"
#include "util/kaq_util_functions.h"

#define KAQ_LAST_GOOD_STATUS 399

zval *kaq_get_cached_constant(zval **slot, const char *name) {
	if (*slot) {
		return *slot;
	}
	const zval *constant = php_get_constant(name);
	if (!php_is_zval_valid_integer(constant)) {
		return nullptr;
	}
	*slot = php_zval_alloc();
	ZVAL_COPY_VALUE(*slot, constant);
	return *slot;
}

zval *kaq_get_curlinfo_constant(kaq_curlinfo info) {
	static const struct {
		zval *zend_kaq_globals::*slot;
		const char *name;
	} constants[KAQ_CURLINFO_CONSTANTS] = {
		{&zend_kaq_globals::curlinfo_effective_url, "CURLINFO_EFFECTIVE_URL"},
		{&zend_kaq_globals::curlinfo_http_code, "CURLINFO_HTTP_CODE"},
		{&zend_kaq_globals::curlinfo_total_time, "CURLINFO_TOTAL_TIME"}};
	zend_kaq_globals *g = kaq_get_globals();
	zval **slot = &(g->*constants[info].slot);
	zval *known = &g->curlinfo_known[info];
	if (!*slot && Z_TYPE_P(known) != IS_UNDEF) {
		*slot = php_zval_alloc();
		ZVAL_COPY_VALUE(*slot, known);
	} else if (kaq_get_cached_constant(slot, constants[info].name)) {
		ZVAL_COPY_VALUE(known, *slot);
	}
	return *slot;
}

/* Calls curl_getinfo; false if that is impossible, as for a closed handle. It neither fails nor
 * runs script code, so a pending exception is all that has to be put aside. */
static bool kaq_ask(zval *handle, const zval *info, zval *answer) {
	zend_function *getinfo = kaq_find_callable_function("curl_getinfo", strlen("curl_getinfo"));
	if (!info || !getinfo || !php_is_zval_valid_curl_handle(handle)) {
		return false;
	}
	zval arguments[2];
	ZVAL_COPY_VALUE(&arguments[0], handle);
	ZVAL_COPY_VALUE(&arguments[1], info);
	zend_object *pending = EG(exception);
	EG(exception) = nullptr;
	kaq_call_internal(getinfo, 2, arguments, answer);
	EG(exception) = pending;
	return true;
}

static void kaq_describe_url(kaq_function *fi, zval *handle) {
	zval url;
	if (kaq_ask(handle, kaq_get_curlinfo_constant(KAQ_CURLINFO_EFFECTIVE_URL), &url)) {
		if (php_is_zval_non_empty_string(&url)) {
			kaq_set_method_url(fi, Z_STRVAL(url));
		}
		zval_ptr_dtor(&url);
	}
}

static void kaq_describe_status(kaq_function *fi, zend_long code) {
	if (code > KAQ_LAST_GOOD_STATUS) {
		kaq_mark_component_failed(fi, FAIL_TYPE_EXCEPTION);
	}
	kaq_set_external_call_status(fi, (int)code);
}

static void kaq_describe_headers(kaq_function *fi, const zval *handle, zval *request_headers) {
	if (!kaq_get_globals()->capture_httpcall_metadata) {
		return;
	}
	zend_long id = kaq_zval_resource_id(handle);
	kaq_set_external_call_req_headers(fi, request_headers);
	kaq_set_external_call_res_headers(fi, kaq_get_curl_res_headers(id));
	kaq_free_curl_res_headers(id);
}

void kaq_describe_blocking_transfer(kaq_function *fi, zval *handle, zval *request_headers) {
	kaq_describe_headers(fi, handle, request_headers);
	kaq_describe_url(fi, handle);
	zval *info = kaq_get_curlinfo_constant(KAQ_CURLINFO_HTTP_CODE);
	if (!info) {
		return;
	}
	zval code = {};
	kaq_ask(handle, info, &code);
	if (Z_TYPE(code) == IS_LONG) {
		kaq_describe_status(fi, Z_LVAL(code));
	} else {
		kaq_mark_component_failed(fi, FAIL_TYPE_ERROR);
	}
	zval_ptr_dtor(&code);
}

/* The status of a transfer, 0 while it has none. */
static zend_long kaq_transfer_status(zval *easy, const zval *info) {
	zval code = {};
	kaq_ask(easy, info, &code);
	zend_long status = Z_TYPE(code) == IS_LONG ? Z_LVAL(code) : 0;
	zval_ptr_dtor(&code);
	return status;
}

static uint64_t kaq_transfer_start(zval *easy, uint64_t now_ms) {
	zval seconds = {};
	kaq_ask(easy, kaq_get_curlinfo_constant(KAQ_CURLINFO_TOTAL_TIME), &seconds);
	uint64_t start = now_ms;
	if (Z_TYPE(seconds) == IS_DOUBLE) {
		uint64_t duration = (uint64_t)(Z_DVAL(seconds) * 1000.0);
		start = duration > now_ms ? now_ms : now_ms - duration;
	}
	zval_ptr_dtor(&seconds);
	return start;
}

static void kaq_report_transfer(kaq_node *parent, zval *easy, zend_long status, uint64_t now_ms) {
	kaq_node *node = kaq_create_new_node();
	if (!node) {
		return;
	}
	zend_kaq_globals *g = kaq_get_globals();
	kaq_function *fi = &node->data.function_info;
	zend_long id = kaq_zval_resource_id(easy);
	node->data.key = kaq_take_key(g);
	node->data.state = KAQ_NODE_BUFFERED;
	node->data.parent = parent;
	parent->data.child_count++;
	node->data.end_time = now_ms;
	node->data.start_time = kaq_transfer_start(easy, now_ms);
	kaq_name_wrapped_call(fi, nullptr, "curl_multi_exec", "HTTP", EXTERNAL);
	kaq_set_function_priority(fi, PRIORITY_1);
	fi->isAsync = 1;
	kaq_describe_url(fi, easy);
	kaq_describe_status(fi, status);
	const char *span_id = kaq_curl_multi_get_spanid(id);
	if (span_id) {
		memcpy(fi->span_id, span_id, KAQ_SPAN_ID_LENGTH);
		fi->span_id[KAQ_SPAN_ID_LENGTH] = '\0';
	}
	kaq_describe_headers(fi, easy, kaq_get_curl_req_headers(id));
	kaq_insert_node(node);
}

void kaq_report_transfers(kaq_node *parent, zend_long multi_id) {
	zend_kaq_globals *g = kaq_get_globals();
	zval *children = kaq_curl_multi_get_children(multi_id);
	zval *info = kaq_get_curlinfo_constant(KAQ_CURLINFO_HTTP_CODE);
	if (!php_is_zval_valid_array(children) || !info) {
		return;
	}
	uint64_t now_ms = kaq_now_ms();
	const zval *number;
	ZEND_HASH_FOREACH_VAL(Z_ARRVAL_P(children), number) {
		zval easy;
		zend_long id = Z_LVAL_P(number);
		if (kaq_curl_multi_is_reported(multi_id, id) || !kaq_find_curl_handle(id, &easy)) {
			continue;
		}
		zend_long status = kaq_transfer_status(&easy, info);
		if (status == 0) {
			continue;
		}
		if (g->stored_node_count >= g->span_limit) {
			return;
		}
		kaq_report_transfer(parent, &easy, status, now_ms);
		kaq_curl_multi_mark_reported(multi_id, id);
	}
	ZEND_HASH_FOREACH_END();
}
