#include "spans/kaq_util.h"
#include "state/php_kaq.h"
#include "util/kaq_assert.h"

#include <stdlib.h>

/* The buffered spans by key, or null when memory is short. */
static kaq_node **kaq_index_nodes(const zend_kaq_globals *g) {
	kaq_node **by_key = (kaq_node **)calloc((size_t)g->node_buffer_len, sizeof(kaq_node *));
	if (by_key) {
		for (kaq_node *node = g->node_buffer->head; node; node = node->next) {
			by_key[node->data.key] = node;
		}
	}
	return by_key;
}

/* Keeps what is necessary, and every span with siblings. */
static void kaq_choose_kept(kaq_node **nodes, int *keep, int count) {
	keep[0] = 1;
	for (int i = 1; i < count; i++) {
		if (nodes[i]) {
			const kaq_node *parent = nodes[i]->data.parent;
			keep[i] = nodes[i]->data.is_necessary || (parent && parent->data.child_count >= 2);
		}
	}
}

/* A parent has a lower key than its children, so earlier walks have already shortened the path:
 * however long the chains are, all walks together take linear time. */
static void kaq_reparent(kaq_node **nodes, const int *keep, int count) {
	for (int i = 1; i < count; i++) {
		if (nodes[i]) {
			kaq_node *parent = nodes[i]->data.parent;
			while (parent && !keep[parent->data.key]) {
				parent = parent->data.parent;
			}
			nodes[i]->data.parent = parent ? parent : nodes[0];
		}
	}
}

void kaq_prune_intermediate_nodes(void) {
	zend_kaq_globals *g = kaq_get_globals();
	int count = g->node_buffer_len;
	KAQ_REQUIRES(!g->current_node);
	if (count < 2) {
		return;
	}
	int *keep = (int *)calloc((size_t)count, sizeof(int));
	kaq_node **nodes = keep ? kaq_index_nodes(g) : nullptr;
	if (!nodes) {
		free(keep);
		return;
	}
	kaq_choose_kept(nodes, keep, count);
	kaq_reparent(nodes, keep, count);

	g->node_buffer->head = nullptr;
	int kept = 0;
	for (int i = 0; i < count; i++) {
		if (nodes[i] && keep[i]) {
			nodes[i]->data.key = kept++;
			nodes[i]->next = g->node_buffer->head;
			g->node_buffer->head = nodes[i];
		} else {
			kaq_free_node(nodes[i]);
		}
	}
	g->node_buffer_len = kept;
	g->stored_node_count = kept;
	free(nodes);
	free(keep);
}
