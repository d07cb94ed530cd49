#include "instrumentation/kaq_instrumentation.h"
#include "spans/node_path.h"

/* Of what a bailout jumps over only the engine's jump target and running frame are put back: the
 * rest the engine tidies at request end. */
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

static bool kaq_records_calls(const zend_kaq_globals *g) {
	return g->control_signal && g->track_zend_execute_internal &&
		   g->stored_node_count < g->span_limit;
}

void kaq_instrument_delegate(kaq_internalfn_t *wraprec, zend_execute_data *execute_data,
							 zval *return_value) {
	if (!wraprec || !wraprec->oldhandler || !wraprec->inner_wrapper) {
		return;
	}
	zend_kaq_globals *g = kaq_get_globals();
	if (!kaq_records_calls(g)) {
		/* A bailout ends here, and the script goes on as if the call had returned. */
		kaq_zend_call_old_handler(wraprec->oldhandler, execute_data, return_value);
		return;
	}
	kaq_node *node = kaq_pool_take(&g->node_pool);
	if (!node) {
		wraprec->oldhandler(execute_data, return_value);
		return;
	}
	kaq_open_in(g, node);
	wraprec->inner_wrapper(execute_data, return_value, wraprec, node);
	if (node->data.state == KAQ_NODE_OPEN) {
		kaq_close_in(kaq_get_globals(), node);
	}
}
