#include "functions.h"

#include <unistd.h>

/* A driver's call without arguments that matter. */
static PHP_FUNCTION(probe_call) {
	(void)execute_data;
	(void)return_value;
}

/* A driver's query: it reads its arguments, as every driver does. */
static PHP_FUNCTION(probe_query) {
	char *text;
	size_t length;
	zval *link = nullptr;
	if (zend_parse_parameters(ZEND_NUM_ARGS(), "s|z", &text, &length, &link) == SUCCESS) {
		RETVAL_LONG((zend_long)length);
	}
}

static PHP_FUNCTION(probe_calls) {
	(void)execute_data;
	RETVAL_LONG(probe_count);
}

/* Ends the process here, so that what happens at request end is not counted. */
static PHP_FUNCTION(probe_end) {
	(void)execute_data;
	(void)return_value;
	_exit(0);
}

ZEND_BEGIN_ARG_INFO_EX(no_arguments, 0, 0, 0)
ZEND_END_ARG_INFO()

ZEND_BEGIN_ARG_INFO_EX(query_arguments, 0, 0, 1)
ZEND_ARG_INFO(0, text)
ZEND_ARG_INFO(0, link)
ZEND_END_ARG_INFO()

// clang-format off
const zend_function_entry probe_functions[] = {
	ZEND_NAMED_FE(probe_call, ZEND_FN(probe_call), no_arguments)
	ZEND_NAMED_FE(oci_execute, ZEND_FN(probe_call), no_arguments)
	ZEND_NAMED_FE(probe_query, ZEND_FN(probe_query), query_arguments)
	ZEND_NAMED_FE(mysql_query, ZEND_FN(probe_query), query_arguments)
	ZEND_NAMED_FE(probe_calls, ZEND_FN(probe_calls), no_arguments)
	ZEND_NAMED_FE(probe_end, ZEND_FN(probe_end), no_arguments)
	ZEND_FE_END
};
// clang-format on
