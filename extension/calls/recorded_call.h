/*
 * Steps that the recipes share: reading the arguments, running the saved handler, passing a bailout
 * on.
 */
#pragma once

#include "calls/arguments.h"
#include "instrumentation/recipes.h"

/* What kaq_read_arguments found. THROWN: script code that ran on the way (a __toString, an error
 * handler) threw, and the call must not happen. */
enum kaq_fit { KAQ_FITTED = 1, KAQ_UNFIT = 0, KAQ_THROWN = -1 };

kaq_fit kaq_read_arguments(const kaq_call *call, const char *layouts, int warn,
						   kaq_arguments *arguments);

/* For a call whose arguments do not fit and that is recorded by its names alone. */
void kaq_finish_unread(const kaq_call *call, kaq_fit fit);

/* Returns 1 if a bailout was caught. */
static inline int kaq_call_protected(const kaq_call *call) {
	return kaq_zend_call_old_handler(call->oldhandler, call->execute_data, call->return_value);
}

/* The span stays open; request end closes it. */
static inline void kaq_pass_on(int caught) {
	if (caught) {
		zend_bailout();
	}
}
