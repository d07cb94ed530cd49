#include "core/script_functions.h"

#include "tracing/kaq_headers.h"
#include "util/kaq_util_functions.h"

ZEND_BEGIN_ARG_INFO_EX(arginfo_kaq_two_two, 0, 0, 2)
ZEND_ARG_INFO(0, val_one)
ZEND_ARG_INFO(0, val_two)
ZEND_END_ARG_INFO()

/* A callback of curl: what it returns tells curl that the line was consumed. */
static PHP_FUNCTION(kaq_store_curl_response_headers) {
	zval *handle = NULL;
	zval *line = NULL;
	int status =
		zend_parse_parameters_ex(ZEND_PARSE_PARAMS_QUIET, ZEND_NUM_ARGS(), "zz", &handle, &line);
	RETVAL_LONG(php_is_zval_non_empty_string(line) ? (zend_long)Z_STRLEN_P(line) : 0);
	if (status == SUCCESS) {
		kaq_save_curl_response_headers(handle, line);
	}
}

const zend_function_entry kaq_functions[] = {
	PHP_FE(kaq_store_curl_response_headers, arginfo_kaq_two_two) PHP_FE_END};
