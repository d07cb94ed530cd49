#include "spans/open_spans_private.h"

#include "spans/kaq_nodes_private.h"

#include <stdlib.h>

/* What a stack begins with, and what a thread keeps of it from one request to the next. */
static const size_t USUAL_BYTES = 512 * KAQ_OPEN_SPAN_SIZE;

static void kaq_clear_stack(kaq_open_spans *spans) {
	spans->top = 0;
	spans->cut = 0;
	spans->is_plain = false;
	spans->last = spans->allocated ? spans->allocated - KAQ_OPEN_SPAN_SIZE : 0;
}

/* Makes room for one entry more. */
static bool kaq_grow_stack(kaq_open_spans *spans) {
	size_t size = spans->allocated ? spans->allocated * 2 : USUAL_BYTES;
	char *base = (char *)realloc(spans->base, size);
	if (!base) {
		return false;
	}
	if (!spans->allocated) {
		memset(base, 0, KAQ_OPEN_SPAN_SIZE);
	}
	spans->base = base;
	spans->allocated = size;
	spans->last = size - KAQ_OPEN_SPAN_SIZE;
	return true;
}

/* Children that were opened while their parent's entry was the topmost are counted there. */
static void kaq_count_children(kaq_open_span *span, kaq_node *parent) {
	if (parent) {
		parent->data.child_count += (int)span->child_count;
	}
	span->child_count = 0;
}

void kaq_release_held_name(uintptr_t span) {
	if (span & KAQ_SPAN_NAMED) {
		zend_string_release(kaq_held_name(span));
	}
}

/* What an entry holds of its function's name becomes the node's. */
static void kaq_settle_span(zend_kaq_globals *g, kaq_open_span *span) {
	kaq_node *node = kaq_pool_take(&g->node_pool);
	if (!node) {
		kaq_release_held_name(span->span);
		span->span = KAQ_SPAN_LOST;
	} else {
		if (span->span & KAQ_SPAN_NAMED) {
			kaq_name_user_call(node, (const zend_class_entry *)span->callee,
							   kaq_held_name(span->span), true);
		} else {
			kaq_name_function(node, (const zend_function *)span->callee);
		}
		kaq_link_open(g, node, span->start_time);
		node->frame = span->frame;
		span->span = (uintptr_t)node;
	}
	kaq_count_children(span, g->current_node);
}

/* A node's parent has counted it by its entry, or as the node was linked; never both. */
static void kaq_settle(zend_kaq_globals *g) {
	size_t position = g->open_spans.top;
	while (position > 0 && !kaq_is_settled(kaq_span_at(g, position))) {
		position -= KAQ_OPEN_SPAN_SIZE;
	}
	if (position == g->open_spans.top) {
		return;
	}
	kaq_open_span *span = kaq_span_at(g, position);
	kaq_node *node = kaq_node_of_span(span);
	kaq_count_children(span, node ? node : g->current_node);
	while (position < g->open_spans.top) {
		position += KAQ_OPEN_SPAN_SIZE;
		kaq_settle_span(g, kaq_span_at(g, position));
	}
}

kaq_node *kaq_current_node(zend_kaq_globals *g) {
	kaq_settle(g);
	return g->current_node;
}

int kaq_take_key(zend_kaq_globals *g) {
	kaq_settle(g);
	return g->node_buffer_len++;
}

void kaq_record_plainly(zend_kaq_globals *g) {
	kaq_settle(g);
	for (size_t at = 0; g->open_spans.base && at <= g->open_spans.top; at += KAQ_OPEN_SPAN_SIZE) {
		kaq_open_span *span = kaq_span_at(g, at);
		kaq_count_children(span, kaq_node_of_span(span));
	}
	g->open_spans.is_plain = true;
	g->open_spans.last = 0;
}

static uintptr_t kaq_enter_plainly(zend_kaq_globals *g, const zend_function *function,
								   uint32_t frame) {
	kaq_node *node = kaq_pool_take(&g->node_pool);
	if (!node) {
		return 0;
	}
	kaq_name_function(node, function);
	kaq_open_in(g, node);
	node->frame = frame;
	return (uintptr_t)node | KAQ_CALL_NODE;
}

/* Whether the stack is in use and there is room for one entry more. */
static bool kaq_has_room(zend_kaq_globals *g, size_t position) {
	if (position <= g->open_spans.last) {
		return true;
	}
	if (!g->open_spans.is_plain && !kaq_grow_stack(&g->open_spans)) {
		kaq_record_plainly(g);
	}
	return !g->open_spans.is_plain;
}

uintptr_t kaq_enter_call(zend_kaq_globals *g, const zend_function *function, uint32_t frame) {
	size_t position = g->open_spans.top + KAQ_OPEN_SPAN_SIZE;
	if (!kaq_has_room(g, position)) {
		return kaq_enter_plainly(g, function, frame);
	}
	kaq_push_call(g, position, function, kaq_now_ms(), frame);
	return position;
}

static uintptr_t kaq_node_call_of_frame(const kaq_node *node, uint32_t frame) {
	while (node && node->data.state == KAQ_NODE_OPEN && node->frame == 0) {
		node = kaq_open_ancestor(node);
	}
	bool is_found = node && node->data.state == KAQ_NODE_OPEN && node->frame == frame;
	return is_found ? (uintptr_t)node | KAQ_CALL_NODE : 0;
}

/* After a switch of fibers the nodes alone tell what is open. */
uintptr_t kaq_call_of_frame(const zend_kaq_globals *g, uint32_t frame, uintptr_t from) {
	if (g->open_spans.is_plain) {
		const kaq_node *node = (const kaq_node *)(from & ~(uintptr_t)KAQ_CALL_NODE);
		return kaq_node_call_of_frame(from & KAQ_CALL_NODE ? node : g->current_node, frame);
	}
	size_t position = from ? from : g->open_spans.top;
	while (position > 0 && kaq_span_at(g, position)->frame == 0) {
		position -= KAQ_OPEN_SPAN_SIZE;
	}
	return position > 0 && kaq_span_at(g, position)->frame == frame ? position : 0;
}

void kaq_unmark_call(zend_kaq_globals *g, uintptr_t call) {
	if (call & KAQ_CALL_NODE) {
		((kaq_node *)(call - KAQ_CALL_NODE))->frame = 0;
		return;
	}
	kaq_open_span *span = kaq_span_at(g, call);
	kaq_node *node = kaq_node_of_span(span);
	span->frame = 0;
	if (node) {
		node->frame = 0;
	}
}

static void kaq_leave_node(zend_kaq_globals *g, kaq_node *node, uint64_t now_ms) {
	if (node && node->data.state == KAQ_NODE_OPEN) {
		kaq_end_in(g, node, now_ms);
	}
}

static void kaq_leave_call_at(zend_kaq_globals *g, uintptr_t call, uint64_t now_ms) {
	if (call & KAQ_CALL_NODE) {
		kaq_leave_node(g, (kaq_node *)(call - KAQ_CALL_NODE), now_ms);
		return;
	}
	/* Its entry has been taken away, though not by itself: another module switches C stacks. */
	if (call > g->open_spans.top) {
		kaq_record_plainly(g);
	}
	kaq_open_span *span = kaq_span_at(g, call);
	if (g->open_spans.is_plain) {
		kaq_leave_node(g, kaq_node_of_span(span), now_ms);
		return;
	}
	bool is_short = (int64_t)(now_ms - span->start_time) < g->method_threshold;
	if (call == g->open_spans.top && is_short && !kaq_is_settled(span)) {
		kaq_release_held_name(span->span);
	} else {
		kaq_settle(g);
		kaq_node *node = kaq_node_of_span(span);
		kaq_count_children(span, node ? node : g->current_node);
		kaq_leave_node(g, node, now_ms);
	}
	g->open_spans.top = call - KAQ_OPEN_SPAN_SIZE;
}

void kaq_leave_call(zend_kaq_globals *g, uintptr_t call) {
	kaq_leave_call_at(g, call, kaq_now_ms());
}

/* Ends the innermost call, which stays and has neither node nor name yet, while its parent has a
 * node: what settling and leaving would do, at once. */
static void kaq_keep_leaf(zend_kaq_globals *g, kaq_open_span *span, uint64_t now_ms) {
	kaq_node *node = kaq_pool_take(&g->node_pool);
	if (!node) {
		kaq_count_children(span, g->current_node);
		return;
	}
	kaq_name_function(node, (const zend_function *)span->callee);
	struct kaq_node_data *data = &node->data;
	data->key = g->node_buffer_len++;
	data->child_count = (int)span->child_count;
	data->parent = g->current_node;
	data->start_time = span->start_time;
	data->end_time = now_ms;
	data->state = KAQ_NODE_BUFFERED;
	data->is_necessary = 1;
	node->next = g->node_buffer->head;
	g->node_buffer->head = node;
	g->stored_node_count++;
}

void kaq_leave_innermost(zend_kaq_globals *g, uintptr_t call, int64_t duration) {
	kaq_open_span *span = kaq_span_at(g, call);
	uint64_t now_ms = span->start_time + (uint64_t)duration;
	KAQ_REQUIRES(call == g->open_spans.top);
	bool is_parent_settled = call == KAQ_OPEN_SPAN_SIZE || kaq_is_settled(span - 1);
	if (span->span != 0 || !is_parent_settled) {
		kaq_leave_call_at(g, call, now_ms);
	} else {
		kaq_keep_leaf(g, span, now_ms);
		g->open_spans.top = call - KAQ_OPEN_SPAN_SIZE;
	}
}

void kaq_push_node(zend_kaq_globals *g, kaq_node *node) {
	size_t position = g->open_spans.top + KAQ_OPEN_SPAN_SIZE;
	if (kaq_has_room(g, position)) {
		*kaq_span_at(g, position) = {nullptr, 0, (uintptr_t)node, 0, 0};
		g->open_spans.top = position;
	}
}

void kaq_pop_node(zend_kaq_globals *g, kaq_node *node) {
	if (g->open_spans.is_plain) {
		return;
	}
	kaq_settle(g);
	for (size_t position = g->open_spans.top; position > 0; position -= KAQ_OPEN_SPAN_SIZE) {
		kaq_open_span *span = kaq_span_at(g, position);
		if (span->span == (uintptr_t)node) {
			kaq_count_children(span, node);
			g->open_spans.top = position - KAQ_OPEN_SPAN_SIZE;
			return;
		}
	}
}

void kaq_forget_open_spans(zend_kaq_globals *g) {
	kaq_clear_stack(&g->open_spans);
}

void kaq_trim_open_spans(zend_kaq_globals *g) {
	if (g->open_spans.allocated > USUAL_BYTES) {
		kaq_free_open_spans(g);
	}
}

void kaq_free_open_spans(zend_kaq_globals *g) {
	free(g->open_spans.base);
	g->open_spans = {};
}
