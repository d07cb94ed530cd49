/* Capture of user code by an observer of calls: what the execute hook does, with the call's frame
 * to tell what it has to close, since nothing of ours is on the C stack meanwhile. */
#include "spans/kaq_execute.h"

#include "spans/kaq_nodes_private.h"

/* What the request that starts now will record is not known before it has started. */
static bool kaq_is_wanted(const zend_function *) {
	const zend_kaq_globals *g = kaq_get_globals();
	return !g->in_request || g->control_signal;
}

static void kaq_call_begins(zend_execute_data *call) {
	zend_kaq_globals *g = kaq_get_globals();
	if (!g->control_signal || g->stored_node_count >= g->span_limit) {
		return;
	}
	size_t position = g->open_spans.top + KAQ_OPEN_SPAN_SIZE;
	uint64_t now_ms;
	if (EXPECTED(position <= g->open_spans.last && kaq_now_ms_known(&now_ms))) {
		kaq_push_call(g, position, call->func, now_ms, kaq_frame_mark(call));
	} else {
		kaq_enter_call(g, call->func, kaq_frame_mark(call));
	}
}

static void kaq_call_is_cut_off(zend_execute_data *call, uintptr_t *place) {
	zend_kaq_globals *g = kaq_get_globals();
	uintptr_t found = kaq_call_of_frame(g, kaq_frame_mark(call), *place);
	if (found) {
		kaq_unmark_call(g, found);
		*place = found;
	}
}

/* A call that the request's end cuts off stays open until that end has come to us. */
static __attribute__((noinline)) void kaq_call_ends_rarely(zend_kaq_globals *g,
														   zend_execute_data *call) {
	if (kaq_observed_call() != call) {
		kaq_call_is_cut_off(call, &g->open_spans.cut);
		return;
	}
	uintptr_t found = kaq_call_of_frame(g, kaq_frame_mark(call), 0);
	if (found) {
		kaq_leave_call(g, found);
	}
}

static void kaq_call_ends(zend_execute_data *call, zval *) {
	zend_kaq_globals *g = kaq_get_globals();
	size_t top = g->open_spans.top;
	uint64_t now_ms;
	if (EXPECTED(g->open_spans.last && kaq_span_at(g, top)->frame == kaq_frame_mark(call) &&
				 kaq_observed_call() == call && kaq_now_ms_known(&now_ms))) {
		kaq_leave_top(g, top, now_ms);
	} else {
		kaq_call_ends_rarely(g, call);
	}
}

bool kaq_observe_user_calls(void) {
	static const kaq_call_observer observer = {kaq_is_wanted, kaq_call_begins, kaq_call_ends,
											   kaq_call_is_cut_off};
	return kaq_observe_calls(&observer);
}
