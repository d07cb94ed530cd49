#include "spans/kaq_execute.h"

#include "spans/kaq_nodes_private.h"

#include <string.h>

void (*old_execute_ex)(zend_execute_data *execute_data);

/* REQUIRES: a frame that runs a function, as every frame that the engine gives the hook does. */
static inline kaq_node *kaq_populate_in(zend_kaq_globals *g,
										const zend_execute_data *execute_data) {
	const zend_function *function = execute_data->func;
	const zend_string *name = function->common.function_name;
	if (!name) {
		return nullptr;
	}
	kaq_node *node = kaq_pool_take(&g->node_pool);
	if (node) {
		const zend_class_entry *scope = function->common.scope;
		kaq_name_user_call(node, scope ? scope->name : nullptr, name);
	}
	return node;
}

kaq_node *kaq_populate_function(const zend_execute_data *execute_data) {
	if (!execute_data || !execute_data->func) {
		return nullptr;
	}
	return kaq_populate_in(kaq_get_globals(), execute_data);
}

/* What the hook needs after kaq_enter_call, in two registers: if the frame pointer were kept across
 * that call, the hook would save one more register, and each costs stack in deep recursion. */
struct kaq_entered_call {
	kaq_node *node;
	zend_execute_data *execute_data;
};

/* The span limit counts spans in the buffer, not open ones. */
static __attribute__((noinline)) kaq_entered_call kaq_enter_call(zend_kaq_globals *g,
																 zend_execute_data *execute_data) {
	kaq_node *node = nullptr;
	if (g->stored_node_count < g->span_limit) {
		node = kaq_populate_in(g, execute_data);
		if (node) {
			kaq_open_in(g, node);
		}
	}
	return {node, execute_data};
}

static __attribute__((noinline)) void kaq_leave_call(kaq_node *node) {
	if (node->data.state == KAQ_NODE_OPEN) {
		kaq_close_in(kaq_get_globals(), node);
	}
}

static __attribute__((noinline)) void kaq_execute_recorded(zend_kaq_globals *g,
														   zend_execute_data *execute_data) {
	kaq_entered_call call = kaq_enter_call(g, execute_data);
	old_execute_ex(call.execute_data);
	if (call.node) {
		kaq_leave_call(call.node);
	}
}

/* Both branches end in a jump instead of a call: a request that is not monitored pays for reading
 * one switch and uses no stack, and in a monitored one the hook's only frame is that of
 * kaq_execute_recorded. */
void kaq_execute_ex(zend_execute_data *execute_data) {
	zend_kaq_globals *g = kaq_get_globals();
	if (g->control_signal) {
		kaq_execute_recorded(g, execute_data);
	} else {
		old_execute_ex(execute_data);
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
	kaq_copy_function_info(&node->data.function_info, nullptr, "main", KAQ_PHP_COMPONENT, INTERNAL);
	kaq_set_function_priority(&node->data.function_info, PRIORITY_1);
	kaq_open_node(node);
}

int kaq_is_profiling_function(const kaq_node *node) {
	const char *name = node ? node->data.function_info.function_name : nullptr;
	return name && (strstr(name, "kaq_start") || strstr(name, "kaq_end"));
}
