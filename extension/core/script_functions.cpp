#include "core/script_functions.h"

#include "core/transaction_name.h"
#include "curl/curl_headers.h"
#include "diagnostics/stacktrace.h"
#include "state/php_kaq.h"
#include "util/kaq_strings.h"
#include "util/kaq_util_functions.h"

#include <stdlib.h>
#include <string.h>

ZEND_BEGIN_ARG_INFO_EX(arginfo_kaq_one_one, 0, 0, 1)
ZEND_ARG_INFO(0, val_one)
ZEND_END_ARG_INFO()

ZEND_BEGIN_ARG_INFO_EX(arginfo_kaq_two_one, 0, 0, 1)
ZEND_ARG_INFO(0, val_one)
ZEND_ARG_INFO(0, val_two)
ZEND_END_ARG_INFO()

ZEND_BEGIN_ARG_INFO_EX(arginfo_kaq_two_two, 0, 0, 2)
ZEND_ARG_INFO(0, val_one)
ZEND_ARG_INFO(0, val_two)
ZEND_END_ARG_INFO()

ZEND_BEGIN_ARG_INFO_EX(arginfo_kaq_void, 0, 0, 0)
ZEND_END_ARG_INFO()

/* What PHP_FUNCTION declares; not every function uses all of it. */
#define KAQ_FUNCTION(name)                                                   \
	static void zif_##name([[maybe_unused]] zend_execute_data *execute_data, \
						   [[maybe_unused]] zval *return_value)

/* Appends a value, which it takes over, to the list of that name. The array of lists is created on
 * first use. */
static void kaq_append_to_list(zval **array, const zend_string *name, zval *value) {
	if (!kaq_get_globals()->in_request) {
		zval_ptr_dtor(value);
		return;
	}
	if (!*array) {
		*array = kaq_new_array();
	}
	HashTable *lists = Z_ARRVAL_P(*array);
	zval *list = zend_hash_str_find(lists, ZSTR_VAL(name), ZSTR_LEN(name));
	if (!list) {
		zval fresh;
		array_init(&fresh);
		list = zend_hash_str_update(lists, ZSTR_VAL(name), ZSTR_LEN(name), &fresh);
	}
	add_next_index_zval(list, value);
}

KAQ_FUNCTION(kaq_transaction_name) {
	zend_string *name;
	if (zend_parse_parameters(ZEND_NUM_ARGS(), "S", &name) == FAILURE) {
		return;
	}
	if (kaq_get_globals()->in_request) {
		kaq_store_transaction_name(name);
	}
	kaq_rename_in_caller(execute_data, name);
}

KAQ_FUNCTION(kaq_app_param_increment) {
	zend_string *name;
	double value = 1.0;
	if (zend_parse_parameters(ZEND_NUM_ARGS(), "S|d", &name, &value) == FAILURE) {
		return;
	}
	zval number;
	ZVAL_DOUBLE(&number, value);
	kaq_append_to_list(&kaq_get_globals()->app_param_sum_zv, name, &number);
}

KAQ_FUNCTION(kaq_app_param_avg) {
	zend_string *name;
	double value;
	if (zend_parse_parameters(ZEND_NUM_ARGS(), "Sd", &name, &value) == FAILURE) {
		return;
	}
	zval number;
	ZVAL_DOUBLE(&number, value);
	kaq_append_to_list(&kaq_get_globals()->app_param_avg_zv, name, &number);
}

KAQ_FUNCTION(kaq_print_stacktrace) {
	kaq_print_user_stacktrace();
}

KAQ_FUNCTION(kaq_stack_depth) {
	php_printf("stack depth = %d<br>", kaq_get_globals()->max_stack_depth);
}

KAQ_FUNCTION(kaq_custom_params) {
	zend_string *key;
	zend_string *value;
	if (zend_parse_parameters(ZEND_NUM_ARGS(), "SS", &key, &value) == FAILURE) {
		return;
	}
	zval text;
	ZVAL_STR_COPY(&text, value);
	kaq_append_to_list(&kaq_get_globals()->custom_params_zv, key, &text);
}

KAQ_FUNCTION(kaq_set_appname) {
	zend_kaq_globals *g = kaq_get_globals();
	zend_string *name;
	if (zend_parse_parameters(ZEND_NUM_ARGS(), "S", &name) == FAILURE) {
		return;
	}
	if (g->in_request) {
		free(g->application_name);
		g->application_name = kaq_strdup(ZSTR_VAL(name));
	}
}

KAQ_FUNCTION(kaq_agent_version) {
	RETURN_STRING(KAQ_VERSION);
}

KAQ_FUNCTION(kaq_trace_id) {
	const char *trace_id = kaq_get_globals()->trace_id;
	if (!trace_id[0]) {
		RETURN_EMPTY_STRING();
	}
	RETURN_STRING(trace_id);
}

/* Reserved: returns null. */
KAQ_FUNCTION(kaq_span_id) {
}

/* An id that fills the buffer is not terminated in it: the byte after the buffer is the NUL. */
KAQ_FUNCTION(kaq_set_session_id) {
	zend_kaq_globals *g = kaq_get_globals();
	zend_string *id;
	if (zend_parse_parameters(ZEND_NUM_ARGS(), "S", &id) == FAILURE) {
		return;
	}
	if (!g->session_id && g->in_request) {
		g->session_id = (char *)calloc(1, KAQ_TEXT_BUFFER_SIZE + 1);
	}
	if (g->session_id) {
		strncpy(g->session_id, ZSTR_VAL(id), KAQ_TEXT_BUFFER_SIZE);
	}
}

/* Crashes the process on purpose, to try out the crash log. */
KAQ_FUNCTION(kaq_debug_crash) {
	volatile uintptr_t nowhere = 0;
	/* NOLINTNEXTLINE(clang-analyzer-core.NullDereference): crashing is the purpose. */
	*(volatile int *)nowhere = 42;
}

/* Called by curl; returns the length of the line to say that it was consumed. */
KAQ_FUNCTION(kaq_store_curl_response_headers) {
	zval *handle = nullptr;
	zval *line = nullptr;
	int status =
		zend_parse_parameters_ex(ZEND_PARSE_PARAMS_QUIET, ZEND_NUM_ARGS(), "zz", &handle, &line);
	RETVAL_LONG(php_is_zval_non_empty_string(line) ? (zend_long)Z_STRLEN_P(line) : 0);
	if (status == SUCCESS) {
		kaq_save_curl_response_headers(handle, line);
	}
}

// clang-format off
const zend_function_entry kaq_functions[] = {
	PHP_FE(kaq_transaction_name, arginfo_kaq_one_one)
	PHP_FE(kaq_app_param_increment, arginfo_kaq_two_one)
	PHP_FE(kaq_app_param_avg, arginfo_kaq_two_two)
	PHP_FE(kaq_print_stacktrace, arginfo_kaq_void)
	PHP_FE(kaq_stack_depth, arginfo_kaq_void)
	PHP_FE(kaq_custom_params, arginfo_kaq_two_two)
	PHP_FE(kaq_set_appname, arginfo_kaq_one_one)
	PHP_FE(kaq_agent_version, arginfo_kaq_void)
	PHP_FE(kaq_trace_id, arginfo_kaq_void)
	PHP_FE(kaq_span_id, arginfo_kaq_void)
	PHP_FE(kaq_set_session_id, arginfo_kaq_one_one)
	PHP_FE(kaq_debug_crash, arginfo_kaq_void)
	PHP_FE(kaq_store_curl_response_headers, arginfo_kaq_two_two)
	PHP_FE_END
};
// clang-format on
