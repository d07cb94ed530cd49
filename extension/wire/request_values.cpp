#include "wire/request_values.h"

#include "json/kaq_json.h"
#include "state/php_kaq.h"
#include "tracing/kaq_headers.h"
#include "util/kaq_util_functions.h"

#include <stdio.h>

zval *kaq_capture_request_headers(void) {
	return php_call("getallheaders", nullptr, nullptr, nullptr);
}

/* What identifies our own account stays out of payloads. */
char *kaq_get_request_headers(void) {
	zend_kaq_globals *g = kaq_get_globals();
	if (g->is_caller_same_user) {
		SEPARATE_ARRAY(g->request_headers_zv);
		zend_hash_str_del(Z_ARRVAL_P(g->request_headers_zv), "X-Skelvor-Id",
						  strlen("X-Skelvor-Id"));
	}
	return kaq_encode_zval_to_json(g->request_headers_zv);
}

char *kaq_get_response_headers(void) {
	zval *headers = kaq_response_headers_zv();
	char *text = kaq_encode_zval_to_json(headers);
	php_zval_free(headers);
	return text;
}

char *kaq_get_request_parameters(void) {
	return kaq_encode_zval_to_json(
		zend_hash_str_find(&EG(symbol_table), "_REQUEST", strlen("_REQUEST")));
}

char *kaq_get_cli_args(void) {
	zval *server = &PG(http_globals)[TRACK_VARS_SERVER];
	if (Z_TYPE_P(server) != IS_ARRAY) {
		return nullptr;
	}
	zval *argv = zend_hash_str_find(Z_ARRVAL_P(server), "argv", strlen("argv"));
	if (!argv || Z_TYPE_P(argv) != IS_ARRAY) {
		return nullptr;
	}
	zval args;
	array_init(&args);
	int count = 0;
	zval *element;
	ZEND_HASH_FOREACH_VAL(Z_ARRVAL_P(argv), element) {
		if (php_is_zval_non_empty_string(element)) {
			char key[32];
			snprintf(key, sizeof(key), "$argv[%d]", count++);
			add_assoc_str(&args, key, zend_string_copy(Z_STR_P(element)));
		}
	}
	ZEND_HASH_FOREACH_END();
	char *text = kaq_encode_zval_to_json(&args);
	zval_ptr_dtor(&args);
	return text;
}

char *kaq_get_custom_parameters(void) {
	return kaq_encode_zval_to_json(kaq_get_globals()->custom_params_zv);
}

char *kaq_get_appparam_sum(void) {
	return kaq_encode_zval_to_json(kaq_get_globals()->app_param_sum_zv);
}

char *kaq_get_apparam_average(void) {
	return kaq_encode_zval_to_json(kaq_get_globals()->app_param_avg_zv);
}
