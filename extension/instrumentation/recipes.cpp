#include "instrumentation/recipes.h"

#include "util/kaq_strings.h"

#define KAQ_DBNAME_TEXT 3

static bool kaq_needs_fit(const kaq_call *call, kaq_parse_failure failure) {
	return failure == KAQ_DIRECT ||
		   (failure == KAQ_EMPTY_IF_PASSED && ZEND_CALL_NUM_ARGS(call->execute_data) == 0);
}

void kaq_record(const kaq_call *call, kaq_names) {
	int caught = kaq_call_protected(call);
	kaq_set_method_none(call->fi);
	kaq_pass_on(caught);
}

/* The text is copied before the call, which may release its own arguments. */
void kaq_record(const kaq_call *call, kaq_query recipe) {
	kaq_arguments arguments;
	kaq_fit fit = kaq_read_arguments(call, recipe.layouts, false, &arguments);
	if (fit == KAQ_THROWN || (fit == KAQ_UNFIT && kaq_needs_fit(call, recipe.failure))) {
		kaq_finish_unread(call, fit);
		return;
	}
	const char *text = nullptr;
	if (fit == KAQ_FITTED) {
		text = arguments.text[recipe.text];
	} else if (recipe.failure != KAQ_IGNORED) {
		text = "";
	}
	char *kept = kaq_strdup(text);
	int caught = kaq_call_protected(call);
	kaq_set_method_dbquery(call->fi, nullptr);
	kaq_take_text(call->fi, &_arg_data::query, kept);
	kaq_pass_on(caught);
}

void kaq_record(const kaq_call *call, kaq_connect recipe) {
	kaq_arguments arguments;
	kaq_fit fit = kaq_read_arguments(call, recipe.layouts, recipe.warns, &arguments);
	if (fit == KAQ_THROWN || (fit == KAQ_UNFIT && kaq_needs_fit(call, recipe.failure))) {
		kaq_finish_unread(call, fit);
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
	kaq_fit fit = kaq_read_arguments(call, recipe.layouts, false, &arguments);
	if (fit != KAQ_FITTED) {
		kaq_finish_unread(call, fit);
		return;
	}
	char *kept = kaq_strdup(arguments.text[0]);
	int caught = kaq_call_protected(call);
	kaq_set_method_dbname(call->fi, nullptr);
	kaq_take_text(call->fi, &_arg_data::dbname, kept);
	kaq_pass_on(caught);
}

void kaq_record(const kaq_call *call, kaq_cql recipe) {
	kaq_arguments arguments;
	kaq_fit fit = kaq_read_arguments(call, recipe.layouts, false, &arguments);
	if (fit != KAQ_FITTED) {
		kaq_finish_unread(call, fit);
		return;
	}
	int caught = kaq_call_protected(call);
	const zval *cql = arguments.value[0];
	kaq_set_method_dbquery(call->fi, Z_TYPE_P(cql) == IS_STRING ? Z_STRVAL_P(cql) : nullptr);
	kaq_pass_on(caught);
}

void kaq_record(const kaq_call *call, kaq_contact_points) {
	kaq_arguments arguments;
	kaq_fit fit = kaq_read_arguments(call, "+", false, &arguments);
	if (fit != KAQ_FITTED) {
		kaq_finish_unread(call, fit);
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
