#include "calls/wrapped_call.h"

/* After a bailout only the engine's jump target and running frame are put back. That is enough to
 * pass it on; util/swallowed_bailout.h has the rest for whoever does not. */
int kaq_zend_call_old_handler(kaq_phpfn_t oldhandler, zend_execute_data *execute_data,
							  zval *return_value) {
	JMP_BUF *outer = EG(bailout);
	JMP_BUF here;
	volatile int caught = 0;
	EG(bailout) = &here;
	if (SETJMP(here) == 0) {
		oldhandler(execute_data, return_value);
	} else {
		caught = 1;
		EG(current_execute_data) = execute_data;
	}
	EG(bailout) = outer;
	return caught;
}

kaq_fit kaq_read_arguments(const kaq_call *call, const char *layouts, bool warn,
						   kaq_arguments *arguments) {
	const zend_object *pending = EG(exception);
	bool fitted = kaq_parse_arguments(call->execute_data, layouts, warn, arguments);
	if (EG(exception) != pending) {
		return KAQ_THROWN;
	}
	return fitted ? KAQ_FITTED : KAQ_UNFIT;
}

void kaq_finish_unread(const kaq_call *call, kaq_fit fit) {
	if (fit != KAQ_THROWN) {
		call->oldhandler(call->execute_data, call->return_value);
	}
}
