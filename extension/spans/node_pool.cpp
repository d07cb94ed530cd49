#include "spans/node_pool.h"

#include <stdlib.h>

static void kaq_pool_add_slab(kaq_node_pool *pool, kaq_slab *slab) {
	for (int i = KAQ_SLAB_RECORDS - 1; i >= 0; i--) {
		slab->records[i].data.state = KAQ_NODE_CREATED;
		slab->records[i].next = pool->free_list;
		pool->free_list = &slab->records[i];
	}
}

bool kaq_pool_grow(kaq_node_pool *pool) {
	kaq_slab *slab = (kaq_slab *)malloc(sizeof(kaq_slab));
	if (!slab) {
		return false;
	}
	for (kaq_node &node : slab->records) {
		node.reuse = 0;
	}
	slab->next = pool->slabs;
	pool->slabs = slab;
	kaq_pool_add_slab(pool, slab);
	return true;
}

void kaq_pool_for_each_open(kaq_node_pool *pool, void (*visit)(kaq_node_pool *, kaq_node *)) {
	for (kaq_slab *slab = pool->slabs; slab && pool->open_count > 0; slab = slab->next) {
		for (int i = 0; i < KAQ_SLAB_RECORDS; i++) {
			if (slab->records[i].data.state == KAQ_NODE_OPEN) {
				visit(pool, &slab->records[i]);
			}
		}
	}
}

void kaq_pool_trim(kaq_node_pool *pool) {
	int kept = 0;
	kaq_slab *slab = pool->slabs;
	while (slab && kept < KAQ_SLABS_KEPT) {
		kept++;
		slab = slab->next;
	}
	if (!slab) {
		return;
	}
	slab = pool->slabs;
	pool->slabs = nullptr;
	pool->free_list = nullptr;
	for (int i = 0; slab; i++) {
		kaq_slab *next = slab->next;
		if (i < KAQ_SLABS_KEPT) {
			slab->next = pool->slabs;
			pool->slabs = slab;
			kaq_pool_add_slab(pool, slab);
		} else {
			free(slab);
		}
		slab = next;
	}
}

void kaq_pool_destroy(kaq_node_pool *pool) {
	while (pool->slabs) {
		kaq_slab *next = pool->slabs->next;
		free(pool->slabs);
		pool->slabs = next;
	}
	pool->free_list = nullptr;
}
