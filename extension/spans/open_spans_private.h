/*
 * Private to this room. The stack of open spans, and the path that every user call takes through
 * it.
 *
 * Most calls are short and leave no trace. So a call of user code is opened as an entry that says
 * what is called and when, and no more; a node, with its key and its names, is made when the span
 * turns out to stay: because it took long, because something is recorded in it, or because somebody
 * asks for the current span. Then all entries below it get theirs first, in order: the nodes, keys
 * and counts of children are those that there would be if each call had got a node at once. This is
 * called settling. Entries without a node always lie on top.
 *
 * An entry points at the called function, which lives until its request has ended; of one that may
 * go earlier it holds the name and the class instead. (A module that takes functions out of the
 * engine's table must not do so while they run, as the engine itself would not survive that.)
 *
 * With fibers calls do not end in the order of a stack, and where memory is short there may be no
 * entry: from then on every call of the request gets a node at once ("plain").
 */
#pragma once

#include "spans/kaq_util.h"
#include "util/kaq_clock.h"

/* Bits of an entry's `span`, which otherwise is its node, or 0. */
#define KAQ_SPAN_NAMED 1    /* the rest is a zend_string, the function's name */
#define KAQ_SPAN_LOST 2     /* there was no memory for a node */
#define KAQ_SPAN_INTERNED 4 /* the name is not counted */

/* An open call as its caller remembers it: 0 for none, a position in the stack, or, marked by this
 * bit, a node. */
#define KAQ_CALL_NODE 1

#define KAQ_OPEN_SPAN_SIZE sizeof(kaq_open_span)

static inline kaq_open_span *kaq_span_at(const zend_kaq_globals *g, size_t position) {
	return (kaq_open_span *)(g->open_spans.base + position);
}

static inline bool kaq_is_settled(const kaq_open_span *span) {
	return span->span && !(span->span & KAQ_SPAN_NAMED);
}

static inline zend_string *kaq_held_name(uintptr_t span) {
	return (zend_string *)(span & ~(uintptr_t)(KAQ_SPAN_NAMED | KAQ_SPAN_INTERNED));
}

static inline kaq_node *kaq_node_of_span(const kaq_open_span *span) {
	return kaq_is_settled(span) && span->span != KAQ_SPAN_LOST ? (kaq_node *)span->span : nullptr;
}

/* What tells a frame from all others that stand at the same time; not 0. Frames are several times
 * 16 bytes long. */
static inline uint32_t kaq_frame_mark(const zend_execute_data *frame) {
	return (uint32_t)((uintptr_t)frame >> 4) | 1;
}

/* Adds an entry for a call of a named function, with its frame's mark if it is observed. REQUIRES:
 * `position` is the next one, and there is room for it. */
static inline void kaq_push_call(zend_kaq_globals *g, size_t position,
								 const zend_function *function, uint64_t now_ms, uint32_t frame) {
	kaq_open_span *span = kaq_span_at(g, position);
	span[-1].child_count++;
	span->callee = function;
	span->start_time = now_ms;
	span->span = 0;
	span->child_count = 0;
	span->frame = frame;
	g->open_spans.top = position;
	if (UNEXPECTED(function->common.fn_flags & KAQ_FUNCTION_MAY_GO)) {
		span->callee = function->common.scope;
		zend_string *name = kaq_name_of(function);
		uintptr_t held = (uintptr_t)name | KAQ_SPAN_NAMED | KAQ_SPAN_INTERNED;
		if (!ZSTR_IS_INTERNED(name)) {
			zend_string_addref(name);
			held -= KAQ_SPAN_INTERNED;
		}
		span->span = held;
	}
}

/* Gives back what an entry holds of its function's name. */
void kaq_release_held_name(uintptr_t span);

/* The same as kaq_push_call at any time. */
uintptr_t kaq_enter_call(zend_kaq_globals *g, const zend_function *function, uint32_t frame);

/* The observed call of that frame, or 0 if it is not open or was opened without a mark. Calls above
 * it that have no mark are passed over. `from` is a call to begin at, or 0 for the innermost. */
uintptr_t kaq_call_of_frame(const zend_kaq_globals *g, uint32_t frame, uintptr_t from);
/* Takes the mark away: the call stays open, and its frame may be another's. */
void kaq_unmark_call(zend_kaq_globals *g, uintptr_t call);

/* Ends a call: its span is dropped or buffered. Calls inside of it that were cut off keep open
 * spans of their own. */
void kaq_leave_call(zend_kaq_globals *g, uintptr_t call);
/* The same for the topmost entry, at a known time after the call's start in ms. REQUIRES: the call
 * stays. */
void kaq_leave_innermost(zend_kaq_globals *g, uintptr_t call, int64_t duration);

/* The same for any duration. REQUIRES: the topmost entry, and the present time. */
static inline void kaq_leave_top(zend_kaq_globals *g, uintptr_t call, uint64_t now_ms) {
	const kaq_open_span *span = kaq_span_at(g, call);
	int64_t duration = (int64_t)(now_ms - span->start_time);
	uintptr_t held = span->span;
	if (EXPECTED(duration < g->method_threshold && (held == 0 || held & KAQ_SPAN_NAMED))) {
		g->open_spans.top -= KAQ_OPEN_SPAN_SIZE;
		if (UNEXPECTED(held) && !(held & KAQ_SPAN_INTERNED)) {
			kaq_release_held_name(held);
		}
		return;
	}
	kaq_leave_innermost(g, call, duration);
}

/* Puts an open node on top. REQUIRES: all entries are settled. */
void kaq_push_node(zend_kaq_globals *g, kaq_node *node);

/* Takes an open node's entry away, if there is one, with those above it. All entries are settled
 * then. */
void kaq_pop_node(zend_kaq_globals *g, kaq_node *node);

/* Settles, and has every further call of the request get a node at once. */
void kaq_record_plainly(zend_kaq_globals *g);

/* Forgets all entries, settled or not, and what they count on; back to entries where calls got
 * nodes at once. */
void kaq_forget_open_spans(zend_kaq_globals *g);

/* Frees the stack's memory if it has grown beyond the usual. REQUIRES: there is no entry. */
void kaq_trim_open_spans(zend_kaq_globals *g);
