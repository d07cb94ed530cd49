#include "core/transaction_name.h"

#include "state/php_kaq.h"

#include <stdlib.h>
#include <string.h>

static bool kaq_stays(char c) {
	return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '.' ||
		   c == '/';
}

bool kaq_sanitise_name(char *name, size_t length) {
	bool changed = false;
	for (size_t i = 0; i < length; i++) {
		if (!kaq_stays(name[i])) {
			name[i] = '_';
			changed = true;
		}
	}
	return changed;
}

void kaq_store_transaction_name(const zend_string *name) {
	zend_kaq_globals *g = kaq_get_globals();
	if (!g->request_uri_custom_name) {
		g->request_uri_custom_name = (char *)malloc(KAQ_TEXT_BUFFER_SIZE);
	}
	if (!g->request_uri_custom_name) {
		return;
	}
	size_t length = MIN(ZSTR_LEN(name), (size_t)KAQ_TEXT_BUFFER_SIZE - 2);
	memset(g->request_uri_custom_name, 0, KAQ_TEXT_BUFFER_SIZE);
	g->request_uri_custom_name[0] = '/';
	memcpy(g->request_uri_custom_name + 1, ZSTR_VAL(name), length);
	kaq_sanitise_name(g->request_uri_custom_name + 1, length);
}

/* The variable of the calling code that was passed as the only argument; null if something else was
 * passed. The caller is at its call instruction, and the instruction before it has passed the last
 * argument: if that is argument 1, it is the only one. */
static zval *kaq_passed_variable(const zend_execute_data *caller) {
	if (!caller || !caller->func || !ZEND_USER_CODE(caller->func->type)) {
		return nullptr;
	}
	const zend_op *call = caller->opline;
	if (!kaq_is_call(call) || call == caller->func->op_array.opcodes) {
		return nullptr;
	}
	const zend_op *send = call - 1;
	if (!kaq_passes_variable(send) || send->op2.num != 1) {
		return nullptr;
	}
	zval *variable = ZEND_CALL_VAR(caller, send->op1.var);
	ZVAL_DEREF(variable);
	return variable;
}

/* The variable gets a new string, since others may share the old one. */
void kaq_rename_in_caller(const zend_execute_data *execute_data, const zend_string *name) {
	zval *variable = kaq_passed_variable(execute_data->prev_execute_data);
	if (!variable || Z_TYPE_P(variable) != IS_STRING || Z_STR_P(variable) != name) {
		return;
	}
	zend_string *renamed = zend_string_init(ZSTR_VAL(name), ZSTR_LEN(name), 0);
	if (kaq_sanitise_name(ZSTR_VAL(renamed), ZSTR_LEN(renamed))) {
		zval_ptr_dtor(variable);
		ZVAL_STR(variable, renamed);
	} else {
		zend_string_release(renamed);
	}
}
