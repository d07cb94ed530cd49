/*
 * The records that hold one request's spans. The operations on them are in spans/kaq_util.h.
 *
 * Ownership: text in a span is a heap copy that the span owns, except for names that live on by
 * themselves (KAQ_NAMES). The setters copy, kaq_free_node() frees. A record belongs to the pool of
 * the thread that created the span. Times are wall clock milliseconds since the epoch.
 *
 * A request may keep thousands of spans, most of them calls of user code: a record holds what such
 * a call has, and the rest is a block of its own.
 */
#pragma once

#include "util/engine_compat.h"

#include <stddef.h>
#include <stdint.h>
#include <string.h>

enum ARG_TYPE { NONE = 0, DBQUERY = 1, URL = 2, DBCONNECT = 3 };
enum FAIL_TYPE { FAIL_TYPE_ERROR = 0, FAIL_TYPE_EXCEPTION = 1 };
enum METHOD_TYPE { INTERNAL = 0, EXTERNAL = 1 };
enum PRIORITY { PRIORITY_0 = 0, PRIORITY_1 = 1 };
/* Which of a span's names are heap copies of its own; and that both are the characters of the
 * engine's strings, which live until the request has ended, the function's perhaps only because the
 * span holds it. */
enum KAQ_NAMES {
	KAQ_OWNS_CLASS_NAME = 1,
	KAQ_OWNS_FUNCTION_NAME = 2,
	KAQ_ENGINE_NAMES = 4,
	KAQ_HOLDS_FUNCTION_NAME = 8
};
enum kaq_node_state { KAQ_NODE_CREATED = 0, KAQ_NODE_OPEN = 1, KAQ_NODE_BUFFERED = 2 };

#define KAQ_COMPONENT_SIZE 16
#define KAQ_SPAN_ID_LENGTH 16
#define KAQ_PHP_COMPONENT "PHP"

struct _arg_data {
	char *query;
	char *url;
	char *dbconnectHost;
	char *dbname;
	char *stacktrace;
	char *externalReqHeaders; /* JSON text */
	char *externalResHeaders; /* JSON text */
	long dbconnectPort;
	int externalStatusCode;
	smart_str einfo; /* error records separated by ","; on the process heap */
};

typedef struct kaq_function_info {
	char *class_name; /* null for a plain function */
	char *function_name;
	struct _arg_data *arg_data; /* null until something is stored there */
	char component_name[KAQ_COMPONENT_SIZE];
	char span_id[KAQ_SPAN_ID_LENGTH + 1]; /* empty until assigned */
	uint8_t names;                        /* bits of KAQ_NAMES */
	uint8_t type;                         /* ARG_TYPE */
	uint8_t isFault;                      /* an exception hit this span */
	uint8_t isError;                      /* an error hit this span */
	uint8_t isExternal;
	uint8_t isAsync;
	uint8_t priority; /* PRIORITY */
} kaq_function;

typedef struct kaq_node_info kaq_node;

struct kaq_node_data {
	int key;         /* index of the span in its request; 0 is the root */
	int child_count; /* children ever opened */
	kaq_node *parent;
	uint64_t start_time, end_time;
	kaq_function function_info;
	uint8_t state;        /* kaq_node_state */
	uint8_t is_necessary; /* decided at close: the span must be kept */
};

struct kaq_node_info {
	struct kaq_node_data data;
	uint16_t reuse; /* how often the record has been given back, modulo 65536 */
	uint32_t frame; /* as that of the kaq_open_span */
	kaq_node *next;
};

/* Whether the span is a call of user code. */
static inline bool kaq_is_php_component(const kaq_function *fi) {
	return memcmp(fi->component_name, KAQ_PHP_COMPONENT, sizeof(KAQ_PHP_COMPONENT)) == 0;
}

/* The engine's string that a span's name is the characters of. REQUIRES: KAQ_ENGINE_NAMES. */
static inline zend_string *kaq_engine_string(const char *name) {
	return (zend_string *)(name - offsetof(zend_string, val));
}

struct kaq_node_list {
	kaq_node *head;
};

/* An open span. A call of user code has no node until it turns out that it stays: see
 * spans/open_spans_private.h. */
struct kaq_open_span {
	const void *callee;  /* where `span` is 0 the zend_function, with KAQ_SPAN_NAMED its class */
	uint64_t start_time; /* ms since the epoch */
	uintptr_t span;
	uint32_t child_count; /* children opened that are not in the node's child_count yet */
	uint32_t frame;       /* tells the frame of an observed call (kaq_frame_mark), or 0 */
};

/* The open spans of a thread, outermost first, one after the other. Positions are in bytes from
 * `base`, since the memory moves when it grows; position 0 is no span, it takes the count of the
 * outermost one's parent. */
struct kaq_open_spans {
	char *base;
	size_t top;       /* position of the innermost one */
	size_t last;      /* the highest position there is room for; 0: none */
	size_t allocated; /* bytes */
	uintptr_t cut;    /* where the search for calls that the request's end cuts off has come to */
	bool is_plain;    /* every call of the request gets a node of its own at once */
};

/* CPU time of the process, in ms. */
typedef struct kaq_cpu_info {
	uint64_t user_start_time, user_end_time, sys_start_time, sys_end_time, total_time;
} kaq_cpu;

/* Records come from slabs and go back to a free list; see spans/node_pool.h. */
#define KAQ_SLAB_RECORDS 64

struct kaq_slab {
	kaq_slab *next;
	kaq_node records[KAQ_SLAB_RECORDS];
};

struct kaq_node_pool {
	kaq_node *free_list;
	kaq_slab *slabs;
	int open_count; /* records in state KAQ_NODE_OPEN */
};
