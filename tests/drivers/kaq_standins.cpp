#include "standins.h"

#include <string.h>

ZEND_BEGIN_MODULE_GLOBALS(kaq_standins)
zval calls;
zval plans;
zend_bool is_recording;
ZEND_END_MODULE_GLOBALS(kaq_standins)
ZEND_DECLARE_MODULE_GLOBALS(kaq_standins)
#define STANDINS_G(field) ZEND_MODULE_GLOBALS_ACCESSOR(kaq_standins, field)

static int resource_type;

static zend_string *name_of_call(const zend_execute_data *execute_data) {
	const zend_function *function = execute_data->func;
	const zend_class_entry *scope = function->common.scope;
	zend_string *name = strpprintf(0, "%s%s%s", scope ? ZSTR_VAL(scope->name) : "",
								   scope ? "::" : "", ZSTR_VAL(function->common.function_name));
	zend_string *lower = zend_string_tolower(name);
	zend_string_release(name);
	return lower;
}

/* [name, arguments, their reference counts as they came] */
static void record_call(const zend_execute_data *execute_data, zend_string *name) {
	zval call, arguments, counts;
	array_init(&arguments);
	array_init(&counts);
	for (uint32_t i = 1; i <= ZEND_CALL_NUM_ARGS(execute_data); i++) {
		zval *argument = ZEND_CALL_ARG(execute_data, i);
		zval copy;
		add_next_index_long(&counts,
							Z_REFCOUNTED_P(argument) ? (zend_long)Z_REFCOUNT_P(argument) : 0);
		ZVAL_DEREF(argument);
		ZVAL_COPY(&copy, argument);
		add_next_index_zval(&arguments, &copy);
	}
	array_init(&call);
	add_next_index_str(&call, zend_string_copy(name));
	add_next_index_zval(&call, &arguments);
	add_next_index_zval(&call, &counts);
	add_next_index_zval(&STANDINS_G(calls), &call);
}

static void write_outputs(const zend_execute_data *execute_data) {
	if (strstr(ZSTR_VAL(execute_data->func->common.function_name), "bind_param")) {
		return;
	}
	for (uint32_t i = 1; i <= ZEND_CALL_NUM_ARGS(execute_data); i++) {
		zval *argument = ZEND_CALL_ARG(execute_data, i);
		if (Z_ISREF_P(argument) && ARG_SHOULD_BE_SENT_BY_REF(execute_data->func, i)) {
			ZVAL_DEREF(argument);
			zval_ptr_dtor(argument);
			ZVAL_STR(argument, strpprintf(0, "output %u", i));
		}
	}
}

/* Goes beyond the memory limit. An engine that has a hard limit besides notes it only and unwinds
 * once the function has returned. */
static void use_up_memory(void) {
	const size_t step = 1 << 18;
	for (size_t used = 0; used < (size_t)PG(memory_limit) + 4 * step; used += step) {
		memset(emalloc(step), 1, step);
	}
}

static bool carry_out_word(const char *word, zend_execute_data *execute_data) {
	if (!strcmp(word, "throw")) {
		zend_throw_exception(zend_ce_exception, "planned exception", 7);
	} else if (!strcmp(word, "fatal")) {
		zend_error(E_ERROR, "planned fatal error");
	} else if (!strcmp(word, "memory")) {
		use_up_memory();
	} else if (!strcmp(word, "bailout")) {
		zend_bailout();
	} else if (!strcmp(word, "change") && ZEND_CALL_NUM_ARGS(execute_data) > 0) {
		zval *argument = ZEND_CALL_ARG(execute_data, 1);
		zval_ptr_dtor(argument);
		ZVAL_STR(argument, strpprintf(0, "changed by the call"));
	} else {
		return false;
	}
	return true;
}

/* False when nothing is planned for the name. */
static bool carry_out_plan(zend_execute_data *execute_data, zval *return_value, zend_string *name) {
	zval *found = zend_hash_find(Z_ARRVAL(STANDINS_G(plans)), name);
	if (!found) {
		return false;
	}
	if (Z_TYPE_P(found) == IS_STRING && carry_out_word(Z_STRVAL_P(found), execute_data)) {
		return true;
	}
	zval plan, result;
	ZVAL_COPY(&plan, found);
	ZVAL_UNDEF(&result);
	uint32_t count = ZEND_CALL_NUM_ARGS(execute_data);
	call_user_function(EG(function_table), nullptr, &plan, &result, count,
					   count ? ZEND_CALL_ARG(execute_data, 1) : nullptr);
	zval_ptr_dtor(&plan);
	if (Z_TYPE(result) != IS_UNDEF) {
		ZVAL_COPY_VALUE(return_value, &result);
	}
	return true;
}

void standin_call(INTERNAL_FUNCTION_PARAMETERS) {
	zend_string *name = name_of_call(execute_data);
	if (STANDINS_G(is_recording)) {
		record_call(execute_data, name);
	}
	write_outputs(execute_data);
	if (!carry_out_plan(execute_data, return_value, name)) {
		RETVAL_STR(strpprintf(0, "result of %s", ZSTR_VAL(name)));
	}
	zend_string_release(name);
}

/* array kaq_standin_calls(): the calls since the last time it was asked. */
static PHP_FUNCTION(kaq_standin_calls) {
	(void)execute_data;
	ZVAL_COPY_VALUE(return_value, &STANDINS_G(calls));
	array_init(&STANDINS_G(calls));
}

/* kaq_standin_plan(name, what): what the stand-in does from now on: call a callable with its
 * arguments and return its result, or "throw", "fatal", "memory" (use up all), "bailout", "change"
 * (its first argument). Null: nothing. */
static PHP_FUNCTION(kaq_standin_plan) {
	zend_string *name;
	zval *what;
	(void)return_value;
	if (zend_parse_parameters(ZEND_NUM_ARGS(), "Sz", &name, &what) == FAILURE) {
		return;
	}
	if (Z_TYPE_P(what) == IS_NULL) {
		zend_hash_del(Z_ARRVAL(STANDINS_G(plans)), name);
		return;
	}
	Z_TRY_ADDREF_P(what);
	zend_hash_update(Z_ARRVAL(STANDINS_G(plans)), name, what);
}

/* kaq_standin_recording(bool) */
static PHP_FUNCTION(kaq_standin_recording) {
	zend_bool on;
	(void)return_value;
	if (zend_parse_parameters(ZEND_NUM_ARGS(), "b", &on) == SUCCESS) {
		STANDINS_G(is_recording) = on;
	}
}

static PHP_FUNCTION(kaq_standin_resource) {
	(void)execute_data;
	RETURN_RES(zend_register_resource(nullptr, resource_type));
}

/* int kaq_standin_observed(): how many calls of user functions are under way; -1 if nobody counts.
 */
static PHP_FUNCTION(kaq_standin_observed) {
	(void)execute_data;
	RETURN_LONG(standin_observed());
}

/* array kaq_standin_list(): see standin_list(). */
static PHP_FUNCTION(kaq_standin_list) {
	(void)execute_data;
	array_init(return_value);
	standin_list(return_value);
}

ZEND_BEGIN_ARG_INFO_EX(arginfo_none, 0, 0, 0)
ZEND_END_ARG_INFO()
ZEND_BEGIN_ARG_INFO_EX(arginfo_plan, 0, 0, 2)
ZEND_ARG_INFO(0, name)
ZEND_ARG_INFO(0, what)
ZEND_END_ARG_INFO()
ZEND_BEGIN_ARG_INFO_EX(arginfo_recording, 0, 0, 1)
ZEND_ARG_INFO(0, on)
ZEND_END_ARG_INFO()

static const zend_function_entry own_functions[] = {
	PHP_FE(kaq_standin_calls, arginfo_none) PHP_FE(kaq_standin_plan, arginfo_plan)
		PHP_FE(kaq_standin_observed, arginfo_none) PHP_FE(kaq_standin_recording, arginfo_recording)
			PHP_FE(kaq_standin_resource, arginfo_none) PHP_FE(kaq_standin_list, arginfo_none)
				PHP_FE_END};

static PHP_GINIT_FUNCTION(kaq_standins) {
	memset(kaq_standins_globals, 0, sizeof(*kaq_standins_globals));
}

static PHP_MINIT_FUNCTION(kaq_standins) {
	(void)type;
	resource_type = zend_register_list_destructors_ex(nullptr, nullptr, "stand-in", module_number);
	standin_register_all();
	standin_observe();
	return SUCCESS;
}

static PHP_MSHUTDOWN_FUNCTION(kaq_standins) {
	(void)type;
	(void)module_number;
	standin_unregister_all();
	return SUCCESS;
}

static PHP_RINIT_FUNCTION(kaq_standins) {
	(void)type;
	(void)module_number;
	array_init(&STANDINS_G(calls));
	array_init(&STANDINS_G(plans));
	STANDINS_G(is_recording) = 1;
	return SUCCESS;
}

static PHP_RSHUTDOWN_FUNCTION(kaq_standins) {
	(void)type;
	(void)module_number;
	zval_ptr_dtor(&STANDINS_G(calls));
	zval_ptr_dtor(&STANDINS_G(plans));
	return SUCCESS;
}

static zend_module_entry kaq_standins_module_entry = {STANDARD_MODULE_HEADER,
													  "kaq_standins",
													  own_functions,
													  PHP_MINIT(kaq_standins),
													  PHP_MSHUTDOWN(kaq_standins),
													  PHP_RINIT(kaq_standins),
													  PHP_RSHUTDOWN(kaq_standins),
													  nullptr,
													  "1",
													  PHP_MODULE_GLOBALS(kaq_standins),
													  PHP_GINIT(kaq_standins),
													  nullptr,
													  nullptr,
													  STANDARD_MODULE_PROPERTIES_EX};

ZEND_GET_MODULE(kaq_standins)
