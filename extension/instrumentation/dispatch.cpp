#include "diagnostics/stacktrace.h"
#include "instrumentation/kaq_instrumentation.h"
#include "util/swallowed_bailout.h"

static bool kaq_records_calls(const zend_kaq_globals *g) {
	return g->control_signal && g->track_zend_execute_internal &&
		   g->stored_node_count < g->span_limit;
}

/* A database query that took longer than the collector's threshold carries the call stack, unless
 * calls below it were recorded. */
static void kaq_explain_slow_query(const zend_kaq_globals *g, kaq_node *node) {
	struct kaq_node_data *data = &node->data;
	kaq_function *fi = &data->function_info;
	if (fi->type != DBQUERY || data->state != KAQ_NODE_BUFFERED) {
		return;
	}
	int64_t duration = (int64_t)(data->end_time - data->start_time);
	if ((float)duration > 1000.0f * g->sql_trace_threshold && kaq_is_leaf(g, node) &&
		!kaq_is_php_component(fi)) {
		kaq_make_stacktrace(fi);
	}
}

/* A bailout ends here, and the script goes on as if the call had returned. */
static void kaq_call_unrecorded(kaq_phpfn_t oldhandler, zend_execute_data *execute_data,
								zval *return_value) {
	kaq_engine_state state;
	kaq_note_engine_state(&state);
	if (kaq_zend_call_old_handler(oldhandler, execute_data, return_value)) {
		kaq_return_from_bailout(&state);
	}
	kaq_forget_engine_state(&state);
}

void kaq_instrument_delegate(kaq_internalfn_t *wraprec, zend_execute_data *execute_data,
							 zval *return_value) {
	if (!wraprec || !wraprec->oldhandler || !wraprec->inner_wrapper) {
		return;
	}
	zend_kaq_globals *g = kaq_get_globals();
	if (!kaq_records_calls(g)) {
		kaq_call_unrecorded(wraprec->oldhandler, execute_data, return_value);
		return;
	}
	kaq_node *node = kaq_start_node();
	if (!node) {
		wraprec->oldhandler(execute_data, return_value);
		return;
	}
	wraprec->inner_wrapper(execute_data, return_value, wraprec, node);
	if (node->data.state == KAQ_NODE_OPEN) {
		kaq_close_node(node);
		kaq_explain_slow_query(g, node);
	}
}
