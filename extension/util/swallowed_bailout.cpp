#include "util/swallowed_bailout.h"

static bool kaq_runs_script(const zend_execute_data *frame) {
	return frame->func && ZEND_USER_CODE(frame->func->type);
}

static zend_execute_data *kaq_script_frame(zend_execute_data *frame) {
	while (frame && !kaq_runs_script(frame)) {
		frame = frame->prev_execute_data;
	}
	return frame;
}

static bool kaq_has_variable_at(zend_execute_data *frame, const zval *slot) {
	const zval *first = ZEND_CALL_VAR_NUM(frame, 0);
	return slot >= first && slot < first + frame->func->op_array.last_var;
}

/* Whether one of the frames from this one outwards that share its symbol table has a variable
 * there. */
static bool kaq_is_live_variable(zend_execute_data *frame, const zval *slot) {
	const zend_array *table = frame->symbol_table;
	for (; frame; frame = frame->prev_execute_data) {
		if (kaq_runs_script(frame) && kaq_has_symbol_table(frame) && frame->symbol_table == table &&
			kaq_has_variable_at(frame, slot)) {
			return true;
		}
	}
	return false;
}

/* True if the table had variables in frames that are dead; it holds their values itself then. */
static bool kaq_detach_dead_frames(zend_execute_data *frame) {
	bool found = false;
	zend_string *name;
	zval *entry;
	ZEND_HASH_FOREACH_STR_KEY_VAL(frame->symbol_table, name, entry) {
		if (Z_TYPE_P(entry) != IS_INDIRECT || kaq_is_live_variable(frame, Z_INDIRECT_P(entry))) {
			continue;
		}
		found = true;
		ZVAL_COPY_VALUE(entry, Z_INDIRECT_P(entry));
		if (Z_TYPE_P(entry) == IS_UNDEF) {
			ZVAL_NULL(entry);
			zend_hash_del(frame->symbol_table, name);
		}
	}
	ZEND_HASH_FOREACH_END();
	return found;
}

/* A file that an internal function included (an autoloader of the engine's own does so) took the
 * variables of the script's frame over into its own frame. */
static void kaq_take_variables_back(zend_execute_data *running) {
	zend_execute_data *frame = kaq_script_frame(running);
	if (frame && kaq_has_symbol_table(frame) && kaq_detach_dead_frames(frame)) {
		zend_attach_symbol_table(frame);
	}
}

/* Not where the pages belong to somebody else: older engines run a generator on one of its own. */
static void kaq_free_pages_above(zend_vm_stack kept) {
	zend_vm_stack page = EG(vm_stack);
	while (page && page != kept) {
		page = page->prev;
	}
	if (page) {
		for (page = EG(vm_stack); page != kept;) {
			zend_vm_stack above = page;
			page = page->prev;
			efree(above);
		}
	}
}

/* An error handler is off while it runs. It is not missing if the script has set or restored
 * handlers meanwhile. */
static void kaq_put_error_handler_back(const kaq_engine_state *state) {
	if (Z_TYPE(EG(user_error_handler)) == IS_UNDEF &&
		EG(user_error_handlers).top == state->handlers_below) {
		ZVAL_COPY(&EG(user_error_handler), &state->error_handler);
	}
}

/* Observers first, who look at the frames. */
void kaq_return_from_bailout(const kaq_engine_state *state) {
	kaq_end_observed_calls(state->observed_call);
	kaq_take_variables_back(EG(current_execute_data));
	kaq_free_pages_above(state->page);
	EG(vm_stack) = state->page;
	EG(vm_stack_top) = state->top;
	EG(vm_stack_end) = state->end;
	KAQ_SCOPE = state->scope;
	EG(exception_class) = state->exception_class;
	EG(error_handling) = state->error_handling;
	EG(error_reporting) = state->error_reporting;
	kaq_put_error_handler_back(state);
	kaq_set_running_trace(state->running_trace);
	kaq_set_running_fiber(state->running_fiber, state->fibers_blocked);
	OG(running) = state->running_output;
	kaq_memory_limit_unwind(state->memory_sections);
}
