#include "curl/curl_headers.h"

#include "curl/curl_stores.h"
#include "util/engine_access.h"
#include "util/kaq_util_functions.h"

/* A callback that php.ini disables would make the transfer fail. */
void kaq_curl_response_headers_callback(zval *handle) {
	static const char name[] = "kaq_store_curl_response_headers";
	zval *option = php_get_constant("CURLOPT_HEADERFUNCTION");
	if (!option || !php_is_zval_valid_curl_handle(handle) ||
		!kaq_find_callable_function(name, strlen(name))) {
		return;
	}
	zval callback;
	ZVAL_STRING(&callback, name);
	php_zval_free(php_call_unnoticed("curl_setopt", handle, option, &callback));
	zval_ptr_dtor(&callback);
}

int kaq_save_curl_response_headers(const zval *handle, const zval *line) {
	if (!php_is_zval_non_empty_string(line) || !php_is_zval_valid_curl_handle(handle)) {
		return 0;
	}
	kaq_curl_follow(handle);
	kaq_insert_curl_res_headers(kaq_zval_resource_id(handle), Z_STRVAL_P(line));
	return 1;
}
