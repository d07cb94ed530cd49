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

/* The instruction that passed the only argument. */
static const zend_op *kaq_send_of_only_argument(const zend_execute_data *caller) {
	if (!caller || !caller->func || !ZEND_USER_CODE(caller->func->type)) {
		return nullptr;
	}
	const zend_op *call = caller->opline;
	if (!kaq_is_call(call) || call == caller->func->op_array.opcodes || call[-1].op2.num != 1) {
		return nullptr;
	}
	return call - 1;
}

/* A variable gets a text of its own, whoever else holds the old one. */
static bool kaq_rename_variable(zend_execute_data *caller, const zend_op *send,
								const zend_string *name) {
	if (!kaq_passes_variable(send)) {
		return false;
	}
	zval *variable = ZEND_CALL_VAR(caller, send->op1.var);
	ZVAL_DEREF(variable);
	if (Z_TYPE_P(variable) != IS_STRING || Z_STR_P(variable) != name) {
		return false;
	}
	zend_string *renamed = zend_string_init(ZSTR_VAL(name), ZSTR_LEN(name), 0);
	if (kaq_sanitise_name(ZSTR_VAL(renamed), ZSTR_LEN(renamed))) {
		zval_ptr_dtor(variable);
		ZVAL_STR(variable, renamed);
	} else {
		zend_string_release(renamed);
	}
	return true;
}

/* Whether an array that nobody shares holds this very text. */
static bool kaq_is_element(const zend_string *name, zval *variable) {
	ZVAL_DEREF(variable);
	if (Z_TYPE_P(variable) != IS_ARRAY || !Z_REFCOUNTED_P(variable) ||
		Z_REFCOUNT_P(variable) != 1) {
		return false;
	}
	bool found = false;
	const zval *element;
	ZEND_HASH_FOREACH_VAL(Z_ARRVAL_P(variable), element) {
		ZVAL_DEREF(element);
		found |= Z_TYPE_P(element) == IS_STRING && Z_STR_P(element) == name;
	}
	ZEND_HASH_FOREACH_END();
	return found;
}

/* An element's text is changed in place, if the element and the argument alone hold it. A text that
 * has been hashed may be a key somewhere. */
static void kaq_rename_element(zend_execute_data *caller, const zend_op *send, zend_string *name) {
	if (send > caller->func->op_array.opcodes && kaq_passes_element(send) &&
		kaq_is_rewritable(name) && GC_REFCOUNT(name) == 2 && ZSTR_H(name) == 0 &&
		kaq_is_element(name, ZEND_CALL_VAR(caller, send[-1].op1.var))) {
		kaq_sanitise_name(ZSTR_VAL(name), ZSTR_LEN(name));
	}
}

void kaq_rename_in_caller(const zend_execute_data *execute_data, zend_string *name) {
	zend_execute_data *caller = execute_data->prev_execute_data;
	const zend_op *send = kaq_send_of_only_argument(caller);
	if (send && !kaq_rename_variable(caller, send, name)) {
		kaq_rename_element(caller, send, name);
	}
}
