/*
 * The span records of one thread: carved from slabs, recycled through a free list, so that a
 * recorded call costs no allocation. Of a record in the free list only its link, its reuse count
 * and its state, which is not open, mean anything.
 *
 * The pool owns the records' memory only; the texts that a span owns are freed by kaq_free_node()
 * before the record comes back.
 */
#pragma once

#include "state/span_types.h"
#include "util/byte_block.h"

/* Slabs that a thread keeps from one request to the next. */
#define KAQ_SLABS_KEPT 48

/* Not memset: for this size the compiler would choose a string instruction, which is slow to
 * start. */
static inline void kaq_clear_node_data(struct kaq_node_data *data) {
	static_assert(sizeof(*data) % 8 == 0, "the last store covers half a block");
	const kaq_block zero = {};
	char *to = (char *)data;
#pragma GCC unroll 16
	for (size_t i = 0; i + 16 <= sizeof(*data); i += 16) {
		kaq_block_store(to + i, zero);
	}
	if (sizeof(*data) % 16 != 0) {
		memcpy(to + sizeof(*data) - 8, &zero, 8);
	}
}

/* Adds records to the free list; false when memory is short. */
bool kaq_pool_grow(kaq_node_pool *pool);

/* A zeroed record, or null when memory is short. */
static inline kaq_node *kaq_pool_take(kaq_node_pool *pool) {
	if (__builtin_expect(!pool->free_list, 0) && !kaq_pool_grow(pool)) {
		return nullptr;
	}
	kaq_node *node = pool->free_list;
	pool->free_list = node->next;
	kaq_clear_node_data(&node->data);
	node->next = nullptr;
	return node;
}

/* Makes the record available again, even if its span is open. REQUIRES: the texts that its span
 * owned are freed. */
static inline void kaq_pool_give_back(kaq_node_pool *pool, kaq_node *node) {
	pool->open_count -= node->data.state == KAQ_NODE_OPEN;
	node->data.state = KAQ_NODE_CREATED;
	node->reuse++;
	node->next = pool->free_list;
	pool->free_list = node;
}

/* Calls `visit` for every record that is open. A visit may close or free the record it is given. */
void kaq_pool_for_each_open(kaq_node_pool *pool, void (*visit)(kaq_node_pool *, kaq_node *));

/* Gives slabs beyond KAQ_SLABS_KEPT back to the heap. REQUIRES: no record is in use. */
void kaq_pool_trim(kaq_node_pool *pool);

/* Frees all slabs. REQUIRES: no record is in use. */
void kaq_pool_destroy(kaq_node_pool *pool);
