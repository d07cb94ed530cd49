#include "spans/kaq_execute.h"

#include "spans/kaq_nodes_private.h"

#include <string.h>

void (*old_execute_ex)(zend_execute_data *execute_data);

kaq_node *kaq_populate_function(const zend_execute_data *execute_data) {
	if (!execute_data || !execute_data->func || !execute_data->func->common.function_name) {
		return nullptr;
	}
	kaq_node *node = kaq_create_new_node();
	if (node) {
		const zend_class_entry *scope = execute_data->func->common.scope;
		kaq_copy_function_info(&node->data.function_info, scope ? ZSTR_VAL(scope->name) : nullptr,
							   ZSTR_VAL(kaq_name_of(execute_data->func)), KAQ_PHP_COMPONENT,
							   INTERNAL);
	}
	return node;
}

/* The only function of ours that is on the C stack during a call, with one saved register: what a
 * deep recursion pays. */
static __attribute__((noinline)) void kaq_execute_entered(zend_execute_data *execute_data,
														  uintptr_t call) {
	old_execute_ex(execute_data);
	zend_kaq_globals *g = kaq_get_globals();
	kaq_open_spans *spans = &g->open_spans;
	uint64_t now_ms;
	if (EXPECTED(spans->top == call && kaq_now_ms_known(&now_ms))) {
		kaq_leave_top(g, call, now_ms);
		return;
	}
	kaq_leave_call(g, call);
}

struct kaq_entered_call {
	zend_execute_data *execute_data;
	uintptr_t call;
};

/* Hands the frame through, so that its caller need not save it. */
static __attribute__((noinline)) kaq_entered_call
kaq_enter_rarely(zend_execute_data *execute_data) {
	zend_kaq_globals *g = kaq_get_globals();
	const zend_function *function = execute_data->func;
	uintptr_t call = function->common.function_name ? kaq_enter_call(g, function, 0) : 0;
	return {execute_data, call};
}

static __attribute__((noinline)) void kaq_execute_rarely(zend_execute_data *execute_data) {
	kaq_entered_call entered = kaq_enter_rarely(execute_data);
	if (entered.call) {
		kaq_execute_entered(entered.execute_data, entered.call);
	} else {
		old_execute_ex(entered.execute_data);
	}
}

/* Each branch ends in a jump instead of a call, so that this function uses no stack, and a request
 * that is not monitored pays for reading one switch. What is handed on stands where it is
 * found, which spares moving it. The span limit counts spans in the buffer, not open ones. */
void kaq_execute_ex(zend_execute_data *execute_data) {
	zend_kaq_globals *g = kaq_get_globals();
	if (!g->control_signal || g->stored_node_count >= g->span_limit) {
		old_execute_ex(execute_data);
		return;
	}
	const zend_function *function = execute_data->func;
	size_t position = g->open_spans.top + KAQ_OPEN_SPAN_SIZE;
	uint64_t now_ms;
	if (EXPECTED(function->common.function_name && position <= g->open_spans.last &&
				 kaq_now_ms_known(&now_ms))) {
		kaq_push_call(g, position, function, now_ms, 0);
		kaq_execute_entered(execute_data, position);
	} else {
		kaq_execute_rarely(execute_data);
	}
}

/* A fiber's slot holds its current span and, in the upper bits, the reuse count of the span's
 * record at that time, which shows whether the span is gone: it may have belonged to the code that
 * resumed the fiber. NO_SPAN means that there was no span, an empty slot that the fiber is new. */
#define KAQ_REUSE_SHIFT 48
static const uintptr_t NO_SPAN = 1;

static uintptr_t kaq_remember_span(const kaq_node *node) {
	return node ? (uintptr_t)node | (uintptr_t)node->reuse << KAQ_REUSE_SHIFT : NO_SPAN;
}

static bool kaq_recall_span(uintptr_t slot, kaq_node **node) {
	if (slot <= NO_SPAN) {
		*node = nullptr;
		return slot == NO_SPAN;
	}
	*node = (kaq_node *)(slot & (((uintptr_t)1 << KAQ_REUSE_SHIFT) - 1));
	return (*node)->data.state == KAQ_NODE_OPEN && (*node)->reuse == slot >> KAQ_REUSE_SHIFT;
}

void kaq_switch_fiber(void **from, void **to) {
	zend_kaq_globals *g = kaq_get_globals();
	kaq_node *node;
	if (!g->open_spans.is_plain) {
		kaq_record_plainly(g);
	}
	*from = (void *)kaq_remember_span(g->current_node);
	if (kaq_recall_span((uintptr_t)*to, &node)) {
		g->current_node = node;
	}
}

void kaq_create_main_method(void) {
	KAQ_REQUIRES(kaq_get_globals()->node_buffer_len == 0);
	kaq_node *node = kaq_create_new_node();
	if (!node) {
		return;
	}
	kaq_name_wrapped_call(&node->data.function_info, nullptr, "main", KAQ_PHP_COMPONENT, INTERNAL);
	kaq_set_function_priority(&node->data.function_info, PRIORITY_1);
	kaq_open_node(node);
}

int kaq_is_profiling_function(const kaq_node *node) {
	const char *name = node ? node->data.function_info.function_name : nullptr;
	return name && (strstr(name, "kaq_start") || strstr(name, "kaq_end"));
}
