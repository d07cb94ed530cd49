#include "spans/kaq_nodes_private.h"
#include "util/kaq_clock.h"
#include "util/kaq_random.h"
#include "util/kaq_strings.h"

#include <stdlib.h>
#include <string.h>

kaq_node *kaq_create_new_node(void) {
	return kaq_pool_take(&kaq_get_globals()->node_pool);
}

void kaq_open_node(kaq_node *node) {
	kaq_open_in(kaq_get_globals(), node);
}

kaq_node *kaq_start_node(void) {
	zend_kaq_globals *g = kaq_get_globals();
	kaq_node *node = kaq_pool_take(&g->node_pool);
	if (node) {
		kaq_open_in(g, node);
	}
	return node;
}

void kaq_close_node(kaq_node *node) {
	kaq_close_in(kaq_get_globals(), node);
}

void kaq_buffer_node(kaq_node *node) {
	node->data.state = KAQ_NODE_BUFFERED;
	kaq_insert_node(node);
}

void kaq_insert_node(kaq_node *node) {
	zend_kaq_globals *g = kaq_get_globals();
	node->next = g->node_buffer->head;
	g->node_buffer->head = node;
	g->stored_node_count++;
}

static void kaq_release_name(kaq_function *fi, char **name, uint8_t owns) {
	if (fi->names & owns) {
		free(*name);
	}
	*name = nullptr;
	fi->names &= (uint8_t)~owns;
}

static void kaq_release_names(kaq_function *fi) {
	kaq_release_name(fi, &fi->class_name, KAQ_OWNS_CLASS_NAME);
	if (fi->names & KAQ_HOLDS_FUNCTION_NAME) {
		zend_string_release(kaq_engine_string(fi->function_name));
	} else {
		kaq_release_name(fi, &fi->function_name, KAQ_OWNS_FUNCTION_NAME);
	}
	fi->names = 0;
}

_arg_data *kaq_arguments_of(kaq_function *fi) {
	if (!fi->arg_data) {
		fi->arg_data = (_arg_data *)calloc(1, sizeof(_arg_data));
	}
	return fi->arg_data;
}

static void kaq_release_arguments(_arg_data *arg) {
	char *texts[] = {arg->query,     arg->dbconnectHost,      arg->url,
					 arg->dbname,    arg->externalReqHeaders, arg->externalResHeaders,
					 arg->stacktrace};
	for (char *text : texts) {
		free(text);
	}
	if (arg->einfo.s) {
		zend_string_release(arg->einfo.s);
	}
	free(arg);
}

void kaq_release_texts(kaq_node *node) {
	kaq_function *fi = &node->data.function_info;
	if (EXPECTED(fi->names == (KAQ_ENGINE_NAMES | KAQ_HOLDS_FUNCTION_NAME))) {
		zend_string_release(kaq_engine_string(fi->function_name));
	} else {
		kaq_release_names(fi);
	}
	if (fi->arg_data) {
		kaq_release_arguments(fi->arg_data);
	}
}

static void kaq_release_node(kaq_node_pool *pool, kaq_node *node) {
	if (kaq_owns_texts(node)) {
		kaq_release_texts(node);
	}
	kaq_pool_give_back(pool, node);
}

void kaq_free_node(kaq_node *node) {
	if (node) {
		kaq_release_node(&kaq_get_globals()->node_pool, node);
	}
}

static void kaq_close_orphan(kaq_node_pool *, kaq_node *node) {
	kaq_close_node(node);
}

/* A bailout that was caught on its way leaves open spans that are no longer ancestors of the
 * current one; the pool still finds them. */
void kaq_close_open_nodes(void) {
	zend_kaq_globals *g = kaq_get_globals();
	kaq_record_plainly(g);
	while (g->current_node && g->current_node->data.state == KAQ_NODE_OPEN) {
		kaq_close_node(g->current_node);
	}
	kaq_pool_for_each_open(&g->node_pool, kaq_close_orphan);
	g->current_node = nullptr;
	kaq_forget_open_spans(g);
}

static void kaq_release_nodes(zend_kaq_globals *g, void (*release)(kaq_node_pool *, kaq_node *)) {
	kaq_node *node = g->node_list.head;
	g->node_list.head = nullptr;
	g->current_node = nullptr;
	kaq_forget_open_spans(g);
	while (node) {
		kaq_node *next = node->next;
		release(&g->node_pool, node);
		node = next;
	}
	kaq_pool_for_each_open(&g->node_pool, release);
}

/* A name that was held went with the memory of its request. */
static void kaq_release_leftover(kaq_node_pool *pool, kaq_node *node) {
	node->data.function_info.names &= (uint8_t)~KAQ_HOLDS_FUNCTION_NAME;
	kaq_release_node(pool, node);
}

void kaq_release_spans(zend_kaq_globals *g) {
	kaq_release_nodes(g, kaq_release_leftover);
}

void kaq_free_node_buffer(void) {
	zend_kaq_globals *g = kaq_get_globals();
	kaq_release_nodes(g, kaq_release_node);
	kaq_pool_trim(&g->node_pool);
	kaq_trim_open_spans(g);
}

kaq_node **kaq_validate_nodes(void) {
	zend_kaq_globals *g = kaq_get_globals();
	size_t count = (size_t)g->node_buffer_len;
	kaq_node **by_key = (kaq_node **)calloc(count ? count : 1, sizeof(kaq_node *));
	if (!by_key) {
		return nullptr;
	}
	int64_t without_id = 0;
	for (kaq_node *node = g->node_buffer->head; node; node = node->next) {
		without_id += node->data.function_info.span_id[0] == '\0';
		by_key[node->data.key] = node;
	}
	/* One generator call serves all spans, since each asks the system. */
	char *ids = (char *)malloc((size_t)without_id * KAQ_SPAN_ID_LENGTH + 1);
	if (!ids) {
		free(by_key);
		return nullptr;
	}
	kaq_random_hex(without_id * KAQ_SPAN_ID_LENGTH, ids);
	const char *next_id = ids;
	for (kaq_node *node = g->node_buffer->head; node; node = node->next) {
		char *span_id = node->data.function_info.span_id;
		if (span_id[0] == '\0') {
			memcpy(span_id, next_id, KAQ_SPAN_ID_LENGTH);
			span_id[KAQ_SPAN_ID_LENGTH] = '\0';
			next_id += KAQ_SPAN_ID_LENGTH;
		}
	}
	free(ids);
	return by_key;
}

static void kaq_set_component(kaq_function *fi, const char *component) {
	if (component) {
		size_t length = strnlen(component, KAQ_COMPONENT_SIZE - 1);
		memcpy(fi->component_name, component, length);
		fi->component_name[length] = '\0';
	}
}

void kaq_copy_function_info(kaq_function *fi, const char *class_name, const char *function_name,
							const char *component, int is_external) {
	char *class_copy = kaq_strdup(class_name);
	char *function_copy = kaq_strdup(function_name);
	kaq_release_names(fi);
	fi->class_name = class_copy;
	fi->function_name = function_copy;
	fi->names = KAQ_OWNS_CLASS_NAME | KAQ_OWNS_FUNCTION_NAME;
	kaq_set_component(fi, component);
	fi->isExternal = (uint8_t)is_external;
}

void kaq_update_method_name(kaq_function *fi, const char *name) {
	char *copy = kaq_strdup(name);
	if (fi->names & KAQ_HOLDS_FUNCTION_NAME) {
		zend_string_release(kaq_engine_string(fi->function_name));
	} else {
		kaq_release_name(fi, &fi->function_name, KAQ_OWNS_FUNCTION_NAME);
	}
	fi->function_name = copy;
	fi->names = (uint8_t)((fi->names & KAQ_OWNS_CLASS_NAME) | KAQ_OWNS_FUNCTION_NAME);
}
