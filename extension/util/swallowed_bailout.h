/*
 * A bailout that ends at a call, after which the script goes on as if the call had returned. The
 * engine bails out to end the request and expects nobody to go on; what a return would have left as
 * the call found it has to be put back.
 *
 * Put back are: the stack of frames with its pages and the variables that frames on it had taken
 * over, the observers of calls, the scope, the running trace, the running fiber and that fibers can
 * be switched, the error level, the script's error handler if it was cut off, how errors are
 * reported, the running output handler, and the memory limit. Not put back, for the engine cannot
 * tell what the calls that were cut off were at: that the request counts as unclean, without which
 * generators that were cut off would be cleaned up in the middle of a call, and that cycles are no
 * longer collected. A pending exception is the call's. Values that the frames held stay with the
 * engine's allocator until request end.
 *
 * Order: kaq_note_engine_state -> the call -> kaq_return_from_bailout if it bailed out ->
 * kaq_forget_engine_state, all in the fiber and the frame that made the call.
 */
#pragma once

#include "util/engine_compat.h"
#include "util/memory_limit.h"

typedef struct {
	int memory_sections;
	zend_vm_stack page;
	zval *top, *end;
	zend_execute_data *observed_call;
	kaq_scope scope;
	zend_class_entry *exception_class;
	zend_error_handling_t error_handling;
	int error_reporting;
	uint32_t running_trace;
	void *running_fiber;
	bool fibers_blocked;
	php_output_handler *running_output;
	int handlers_below; /* error handlers that the current one has replaced */
	zval error_handler; /* a reference of its own */
} kaq_engine_state;

/* Every call that is not recorded comes by here. At one go: were each value stored by itself, the
 * engine's record would have to be found again after each. */
static inline void kaq_note_engine_state(kaq_engine_state *state) {
	const kaq_engine_state noted = {kaq_memory_limit_sections(),
									EG(vm_stack),
									EG(vm_stack_top),
									EG(vm_stack_end),
									kaq_observed_call(),
									KAQ_SCOPE,
									EG(exception_class),
									EG(error_handling),
									EG(error_reporting),
									kaq_running_trace(),
									kaq_running_fiber(),
									kaq_fibers_blocked(),
									OG(running),
									EG(user_error_handlers).top,
									EG(user_error_handler)};
	*state = noted;
	Z_TRY_ADDREF(state->error_handler);
}

/* REQUIRES: jump target and running frame are those of the moment of noting. Observers of the calls
 * that were cut off are told of their end, and may bail out. */
void kaq_return_from_bailout(const kaq_engine_state *state);

static inline void kaq_forget_engine_state(kaq_engine_state *state) {
	if (Z_REFCOUNTED(state->error_handler)) {
		zval_ptr_dtor(&state->error_handler);
	}
}
