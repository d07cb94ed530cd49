#include "instrumentation/recipes.h"

#include "instrumentation/arguments.h"

#define KAQ_DBNAME_TEXT 3

static int kaq_call_protected(const kaq_call *call) {
	return kaq_zend_call_old_handler(call->oldhandler, call->execute_data, call->return_value);
}

static void kaq_call_direct(const kaq_call *call) {
	call->oldhandler(call->execute_data, call->return_value);
}

/* The span stays open; request end closes it. */
static void kaq_pass_on(int caught) {
	if (caught) {
		zend_bailout();
	}
}

void kaq_record(const kaq_call *call, kaq_names) {
	int caught = kaq_call_protected(call);
	kaq_set_method_none(call->fi);
	kaq_pass_on(caught);
}

void kaq_record(const kaq_call *call, kaq_query recipe) {
	kaq_arguments arguments;
	const char *text = NULL;
	if (kaq_parse_arguments(call->execute_data, recipe.layouts, 0, &arguments)) {
		text = arguments.text[recipe.text];
	} else if (recipe.failure == KAQ_DIRECT || (recipe.failure == KAQ_EMPTY_IF_PASSED &&
												ZEND_CALL_NUM_ARGS(call->execute_data) == 0)) {
		kaq_call_direct(call);
		return;
	} else if (recipe.failure != KAQ_IGNORED) {
		text = "";
	}
	int caught = kaq_call_protected(call);
	kaq_set_method_dbquery(call->fi, text);
	kaq_pass_on(caught);
}

void kaq_record(const kaq_call *call, kaq_connect recipe) {
	kaq_arguments arguments;
	if (!kaq_parse_arguments(call->execute_data, recipe.layouts, recipe.warns, &arguments) &&
		recipe.failure == KAQ_DIRECT) {
		kaq_call_direct(call);
		return;
	}
	kaq_set_method_dbconnect(call->fi, arguments.text[0],
							 recipe.has_port ? (long)arguments.number[0] : 0);
	if (recipe.has_dbname) {
		kaq_set_method_dbname(call->fi, arguments.text[KAQ_DBNAME_TEXT]);
	}
	kaq_pass_on(kaq_call_protected(call));
}

void kaq_record(const kaq_call *call, kaq_dbname recipe) {
	kaq_arguments arguments;
	if (!kaq_parse_arguments(call->execute_data, recipe.layouts, 0, &arguments)) {
		kaq_call_direct(call);
		return;
	}
	int caught = kaq_call_protected(call);
	kaq_set_method_dbname(call->fi, arguments.text[0]);
	kaq_pass_on(caught);
}

void kaq_record(const kaq_call *call, kaq_cql recipe) {
	kaq_arguments arguments;
	if (!kaq_parse_arguments(call->execute_data, recipe.layouts, 0, &arguments)) {
		kaq_call_direct(call);
		return;
	}
	int caught = kaq_call_protected(call);
	const zval *cql = arguments.value[0];
	kaq_set_method_dbquery(call->fi, Z_TYPE_P(cql) == IS_STRING ? Z_STRVAL_P(cql) : NULL);
	kaq_pass_on(caught);
}

void kaq_record(const kaq_call *call, kaq_contact_points) {
	kaq_arguments arguments;
	if (!kaq_parse_arguments(call->execute_data, "+", 0, &arguments)) {
		kaq_call_direct(call);
		return;
	}
	int caught = kaq_call_protected(call);
	const zval *first = arguments.value[0];
	if (Z_TYPE_P(first) == IS_STRING) {
		kaq_set_method_dbconnect(call->fi, Z_STRVAL_P(first), 0);
	} else {
		kaq_set_method_none(call->fi);
	}
	kaq_pass_on(caught);
}
