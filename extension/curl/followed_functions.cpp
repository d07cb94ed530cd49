#include "curl/followed_functions.h"

#include "calls/arguments.h"
#include "curl/curl_options.h"
#include "curl/curl_stores.h"
#include "util/kaq_util_functions.h"

static void kaq_after_close(zval *handle, zval *) {
	if (Z_TYPE_P(handle) == IS_RESOURCE && !php_is_zval_valid_curl_handle(handle)) {
		zend_long id = kaq_zval_resource_id(handle);
		kaq_free_curl_req_headers(id);
		kaq_free_curl_res_headers(id);
		kaq_curl_multi_remove_spanid(id);
	}
}

static void kaq_after_copy(zval *handle, zval *copy) {
	if (php_is_zval_valid_curl_handle(handle) && php_is_zval_valid_curl_handle(copy)) {
		kaq_inherit_header_option(handle, copy);
	}
}

/* A reset handle no longer sends the header lines that were set before. */
static void kaq_after_reset(zval *handle, zval *) {
	if (php_is_zval_valid_curl_handle(handle)) {
		kaq_free_curl_req_headers(kaq_zval_resource_id(handle));
	}
}

static void kaq_follow(kaq_internalfn_t *record, zend_execute_data *execute_data,
					   zval *return_value, void (*after)(zval *handle, zval *result)) {
	record->oldhandler(execute_data, return_value);
	kaq_arguments arguments;
	if (kaq_parse_arguments(execute_data, "r", false, &arguments)) {
		after(arguments.value[0], return_value);
	}
}

static void kaq_follow_curl_close(zend_execute_data *execute_data, zval *return_value);
static void kaq_follow_curl_copy_handle(zend_execute_data *execute_data, zval *return_value);
static void kaq_follow_curl_reset(zend_execute_data *execute_data, zval *return_value);

#define KAQ_FOLLOWED(name, wrapper) \
	{ nullptr, name, nullptr, nullptr, wrapper, nullptr, nullptr, 0, 0 }
kaq_internalfn_t kaq_followed_functions[] = {
	KAQ_FOLLOWED("curl_close", kaq_follow_curl_close),
	KAQ_FOLLOWED("curl_copy_handle", kaq_follow_curl_copy_handle),
	KAQ_FOLLOWED("curl_reset", kaq_follow_curl_reset),
};
const size_t kaq_followed_function_count =
	sizeof kaq_followed_functions / sizeof kaq_followed_functions[0];

static void kaq_follow_curl_close(zend_execute_data *execute_data, zval *return_value) {
	kaq_follow(&kaq_followed_functions[0], execute_data, return_value, kaq_after_close);
}

static void kaq_follow_curl_copy_handle(zend_execute_data *execute_data, zval *return_value) {
	kaq_follow(&kaq_followed_functions[1], execute_data, return_value, kaq_after_copy);
}

static void kaq_follow_curl_reset(zend_execute_data *execute_data, zval *return_value) {
	kaq_follow(&kaq_followed_functions[2], execute_data, return_value, kaq_after_reset);
}
