/*
 * One call of an instrumented internal function: the record by which its wrapper was installed, and
 * the steps that all recipes share: reading the arguments, running the saved handler, passing a
 * bailout on.
 */
#pragma once

#include "calls/arguments.h"
#include "spans/kaq_util.h"

typedef void (*kaq_phpfn_t)(zend_execute_data *execute_data, zval *return_value);

typedef struct kaq_internalfn kaq_internalfn_t;
struct kaq_internalfn {
	kaq_internalfn_t *next;
	/* "function" or "class::method", in lower case. */
	const char *full_name;
	const char *extra; /* reserved, null */
	kaq_internalfn_t **outer_wrapper_global;
	kaq_phpfn_t outer_wrapper;
	void (*inner_wrapper)(zend_execute_data *execute_data, zval *return_value,
						  kaq_internalfn_t *wraprec, kaq_node *node);
	kaq_phpfn_t oldhandler; /* what the outer wrapper replaced; the same in every thread */
	int is_enabled;
	int is_wrapped;
};

struct kaq_call {
	zend_execute_data *execute_data;
	zval *return_value;
	kaq_phpfn_t oldhandler;
	kaq_node *node;   /* the open span */
	kaq_function *fi; /* of that span; names and priority are set */
};

/* What kaq_read_arguments found. THROWN: script code that ran on the way (a __toString, an error
 * handler) threw, and the call must not happen. */
enum kaq_fit { KAQ_FITTED = 1, KAQ_UNFIT = 0, KAQ_THROWN = -1 };

kaq_fit kaq_read_arguments(const kaq_call *call, const char *layouts, bool warn,
						   kaq_arguments *arguments);

/* For a call whose arguments do not fit and that is recorded by its names alone. */
void kaq_finish_unread(const kaq_call *call, kaq_fit fit);

/* Calls a handler and catches a bailout. Returns 1 if there was one. */
int kaq_zend_call_old_handler(kaq_phpfn_t oldhandler, zend_execute_data *execute_data,
							  zval *return_value);

/* The same for the handler of a recorded call. */
static inline int kaq_call_protected(const kaq_call *call) {
	return kaq_zend_call_old_handler(call->oldhandler, call->execute_data, call->return_value);
}

/* The span stays open; request end closes it. */
static inline void kaq_pass_on(int caught) {
	if (caught) {
		zend_bailout();
	}
}
