/*
 * Private to this room. Opening, naming, closing and dropping a node, inline. The functions of
 * kaq_util.h look up the thread's record and call these.
 */
#pragma once

#include "spans/kaq_util.h"
#include "spans/node_pool.h"
#include "spans/open_spans_private.h"
#include "util/kaq_assert.h"
#include "util/kaq_clock.h"

#include <string.h>

/* Moves a closed span into the node buffer. */
void kaq_buffer_node(kaq_node *node);

/* Frees the texts that a span owns; the pointers to them are left dangling. */
void kaq_release_texts(kaq_node *node);

/* Whether anything in the span has to be freed. */
static inline bool kaq_owns_texts(const kaq_node *node) {
	const kaq_function *fi = &node->data.function_info;
	return fi->arg_data || (fi->names & ~KAQ_ENGINE_NAMES);
}

/* Names a span of user code. The names stay the engine's; the function's is counted if `is_held`.
 * REQUIRES: the span has no names. */
static inline void kaq_name_user_call(kaq_node *node, const zend_class_entry *scope,
									  zend_string *name, bool is_held) {
	kaq_function *fi = &node->data.function_info;
	fi->class_name = scope ? ZSTR_VAL(scope->name) : nullptr;
	fi->function_name = ZSTR_VAL(name);
	fi->names = (uint8_t)(is_held ? KAQ_ENGINE_NAMES | KAQ_HOLDS_FUNCTION_NAME : KAQ_ENGINE_NAMES);
	memcpy(fi->component_name, KAQ_PHP_COMPONENT, sizeof(KAQ_PHP_COMPONENT));
}

/* The same for a function that is being called. Whatever becomes of the function, the name stays.
 */
static inline void kaq_name_function(kaq_node *node, const zend_function *function) {
	zend_string *name = zend_string_copy(kaq_name_of(function));
	kaq_name_user_call(node, function->common.scope, name, !ZSTR_IS_INTERNED(name));
}

/* Opens a node whose parent has counted it already. */
static inline void kaq_link_open(zend_kaq_globals *g, kaq_node *node, uint64_t start_ms) {
	KAQ_REQUIRES(node->data.state == KAQ_NODE_CREATED);
	node->data.start_time = start_ms;
	node->data.state = KAQ_NODE_OPEN;
	node->frame = 0;
	g->node_pool.open_count++;
	node->data.parent = g->current_node;
	node->data.key = g->node_buffer_len++;
	g->current_node = node;
}

static inline void kaq_open_in(zend_kaq_globals *g, kaq_node *node) {
	kaq_node *parent = kaq_current_node(g);
	if (parent) {
		parent->data.child_count++;
	}
	kaq_link_open(g, node, kaq_now_ms());
	kaq_push_node(g, node);
}

/* The span that is current once `node` has ended. With fibers a parent may end before its child. */
static inline kaq_node *kaq_open_ancestor(const kaq_node *node) {
	kaq_node *parent = node->data.parent;
	while (UNEXPECTED(parent && parent->data.state != KAQ_NODE_OPEN)) {
		parent = parent->data.parent;
	}
	return parent;
}

/* Ends a node that has no entry in the stack of open spans, or whose entry is being taken away. */
static inline void kaq_end_in(zend_kaq_globals *g, kaq_node *node, uint64_t end_ms) {
	struct kaq_node_data *data = &node->data;
	const kaq_function *fi = &data->function_info;
	KAQ_REQUIRES(data->state == KAQ_NODE_OPEN);
	g->node_pool.open_count--;
	g->current_node = kaq_open_ancestor(node);
	data->end_time = end_ms;
	int64_t duration = (int64_t)(data->end_time - data->start_time);
	data->is_necessary = duration >= g->method_threshold || (fi->isFault | fi->isError) ||
						 fi->priority || !kaq_is_php_component(fi);
	if (kaq_is_leaf(g, node) && !data->is_necessary && data->key != 0) {
		if (UNEXPECTED(kaq_owns_texts(node))) {
			kaq_release_texts(node);
		}
		data->state = KAQ_NODE_CREATED;
		kaq_pool_give_back(&g->node_pool, node);
		g->node_buffer_len--;
		return;
	}
	kaq_buffer_node(node);
}

static inline void kaq_close_in(zend_kaq_globals *g, kaq_node *node) {
	kaq_pop_node(g, node);
	kaq_end_in(g, node, kaq_now_ms());
}
