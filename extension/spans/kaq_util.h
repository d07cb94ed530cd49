/*
 * Spans: the records of one request's calls, and every operation on them.
 *
 * A span is created, opened (it becomes the current span and the child of the one before), and
 * closed. Closing either drops it at once, when it is short and nothing worth keeping was recorded
 * on it, or moves it into the node buffer, where it stays until request end. Instrumentation
 * describes the span it is filling through the setters.
 *
 * Threads: a span belongs to the thread that created it. Times are wall clock milliseconds since
 * the epoch. Text in a span is a copy that the span owns, but for names: see state/span_types.h.
 */
#pragma once

#include "state/php_kaq.h"

/* A zeroed span of the calling thread, or null when memory is short. */
kaq_node *kaq_create_new_node(void);
/* Starts the clock and makes the span the current one. REQUIRES: state KAQ_NODE_CREATED. */
void kaq_open_node(kaq_node *node);
/* Both in one; null when memory is short. */
kaq_node *kaq_start_node(void);
/* Ends the span: it is dropped (the pointer is dead then) or buffered. REQUIRES: it is open. */
void kaq_close_node(kaq_node *node);
/* Whether a span has no descendant left: the newest key in use is its own. REQUIRES: it is open or
 * was the last to be closed. */
static inline bool kaq_is_leaf(const zend_kaq_globals *g, const kaq_node *node) {
	return g->node_buffer_len == node->data.key + 1;
}
/* The innermost open span, or null. Calls of user code that are open get nodes of their own, so ask
 * only for a span that is to be kept. */
kaq_node *kaq_current_node(zend_kaq_globals *g);
/* The next key, for a span that its caller builds. Calls of user code that are open take theirs
 * first: a bailout may have cut them off just before. */
int kaq_take_key(zend_kaq_globals *g);
/* Puts a finished span into the node buffer. Callers that build spans themselves fill key, state,
 * parent and times first. */
void kaq_insert_node(kaq_node *node);
/* Releases a span with its texts. Null is ignored. */
void kaq_free_node(kaq_node *node);
/* Request end: closes every span that is still open, innermost first. */
void kaq_close_open_nodes(void);
/* Request end: releases every span of the thread, buffered or still open. */
void kaq_free_node_buffer(void);
/* Releases the spans that a thread's record still holds from before, and forgets the open calls:
 * code that the engine runs outside any request, such as a preloaded script or a session handler
 * after request end, leaves some. */
void kaq_release_spans(zend_kaq_globals *g);
/* Thread end: frees the stack of open spans. REQUIRES: the thread's spans are released. */
void kaq_free_open_spans(zend_kaq_globals *g);
/* The buffered spans by key (node_buffer_len entries, an entry without a span is null), each with
 * a span id. The caller frees the array, not the spans. Null when memory is short. */
kaq_node **kaq_validate_nodes(void);
/* Drops unnecessary spans that are their parent's only child, and numbers the rest without gaps.
 * REQUIRES: no span is open. */
void kaq_prune_intermediate_nodes(void);

/*
 * The setters: what a span records about its call. Call them in any order while the span exists,
 * even before it is opened. They run no script code.
 *
 * REQUIRES: fi is the function_info inside a kaq_node of the calling thread.
 *
 * Texts are copied; the copy belongs to the span. A second call replaces what the first one stored,
 * and frees it. Where memory is short, a field is null, as if nothing had been stored.
 */

/* A null name is stored as null; a null component leaves the span's as it is, a long one is cut to
 * 15 characters. is_external is a METHOD_TYPE. */
void kaq_copy_function_info(kaq_function *fi, const char *class_name, const char *function_name,
							const char *component, int is_external);
/* The same without a copy, for names that outlive the request, and a short literal as component.
 * REQUIRES: the span has no names yet. */
template <size_t size>
static inline void kaq_name_wrapped_call(kaq_function *fi, const char *class_name,
										 const char *function_name, const char (&component)[size],
										 int is_external) {
	static_assert(size <= KAQ_COMPONENT_SIZE, "components are short");
	fi->class_name = (char *)class_name;
	fi->function_name = (char *)function_name;
	memcpy(fi->component_name, component, size);
	fi->isExternal = (uint8_t)is_external;
}
/* The function's name alone; null stores null. */
void kaq_update_method_name(kaq_function *fi, const char *name);
/* The block of what a span records beside its names, made when it is first asked for; null when
 * memory is short. For readers it is fi->arg_data, or null. */
_arg_data *kaq_arguments_of(kaq_function *fi);
/* Stores a heap text in one of the fields of that block; from here on it is the span's. */
void kaq_take_text(kaq_function *fi, char *_arg_data::*field, char *text);
/* One of PRIORITY. A null fi is ignored. */
void kaq_set_function_priority(kaq_function *fi, int priority);

/* These set the span's ARG_TYPE, the last one called its final one, and touch no text of another
 * kind. Null leaves a text as it is, except for the host, where null and "" stand for "localhost".
 * Port 0 means unknown. */
void kaq_set_method_dbconnect(kaq_function *fi, const char *host, long port);
void kaq_set_method_dbname(kaq_function *fi, const char *name);
void kaq_set_method_dbquery(kaq_function *fi, const char *query);
void kaq_set_method_url(kaq_function *fi, const char *url);
void kaq_set_method_none(kaq_function *fi);

/* Marks the span with one of FAIL_TYPE; it may carry both marks and never loses one. Other values
 * are ignored. */
void kaq_mark_component_failed(kaq_function *fi, int fail_type);

/* The HTTP status of an outgoing call; 0 for none. */
void kaq_set_external_call_status(kaq_function *fi, int code);
/* Stores an array of header lines as a JSON object of name to value, without the one that
 * identifies the account (X-Skelvor-Id). Null or no array leaves the span untouched. The array
 * stays the caller's. Works on the request allocator, so it may bail out at the memory limit. */
void kaq_set_external_call_req_headers(kaq_function *fi, zval *header_lines);
/* Stores a map of name to value as JSON. Null leaves the span untouched. The map stays the
 * caller's. */
void kaq_set_external_call_res_headers(kaq_function *fi, zval *headers);
