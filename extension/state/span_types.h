/*
 * The records that hold one request's spans. The operations on them are in spans/kaq_util.h.
 *
 * Ownership: text in a span is a heap copy that the span owns, except for short names, which are
 * stored in the record itself. The setters copy, kaq_free_node() frees. A record belongs to the
 * pool of the thread that created the span. Times are wall clock milliseconds since the epoch.
 */
#pragma once

#include "util/engine_compat.h"

#include <stdint.h>
#include <string.h>

enum ARG_TYPE { NONE = 0, DBQUERY = 1, URL = 2, DBCONNECT = 3 };
enum FAIL_TYPE { FAIL_TYPE_ERROR = 0, FAIL_TYPE_EXCEPTION = 1 };
enum METHOD_TYPE { INTERNAL = 0, EXTERNAL = 1 };
enum PRIORITY { PRIORITY_0 = 0, PRIORITY_1 = 1 };
enum kaq_node_state { KAQ_NODE_CREATED = 0, KAQ_NODE_OPEN = 1, KAQ_NODE_BUFFERED = 2 };

#define KAQ_COMPONENT_SIZE 16
#define KAQ_SPAN_ID_LENGTH 16
#define KAQ_NAME_STORE_SIZE 80
#define KAQ_NAME_STORE_PADDING 16
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
	char component_name[KAQ_COMPONENT_SIZE];
	char span_id[KAQ_SPAN_ID_LENGTH + 1]; /* empty until assigned */
	int type;                             /* ARG_TYPE */
	int isFault;                          /* an exception hit this span */
	int isError;                          /* an error hit this span */
	int isExternal;
	int isAsync;
	int priority; /* PRIORITY */
	struct _arg_data arg_data;
} kaq_function;

typedef struct kaq_node_info kaq_node;

struct kaq_node_data {
	int key;         /* index of the span in its request; 0 is the root */
	int state;       /* kaq_node_state */
	int child_count; /* children ever opened */
	kaq_node *parent;
	kaq_function function_info;
	uint64_t start_time, end_time;
	int is_necessary; /* decided at close: the span must be kept */
};

struct kaq_node_info {
	struct kaq_node_data data;
	kaq_node *next;
	uint16_t reuse; /* how often the record has been given back, modulo 65536 */
	/* Short names live here, so that recording a call needs no allocation. Not cleared. Engine
	 * strings are copied in steps of 8 bytes, so the size is a multiple of 8. */
	char name_store[KAQ_NAME_STORE_SIZE];
	/* Lets a name in the store be read in blocks of this size, past its end. */
	char name_padding[KAQ_NAME_STORE_PADDING];
};

/* Whether the span is a call of user code. */
static inline bool kaq_is_php_component(const kaq_function *fi) {
	return memcmp(fi->component_name, KAQ_PHP_COMPONENT, sizeof(KAQ_PHP_COMPONENT)) == 0;
}

/* Whether a name is stored in its span's record, so that it need not be freed. True for a null
 * name. */
static inline bool kaq_is_stored_name(const kaq_node *node, const char *name) {
	return !name || (name >= node->name_store && name < node->name_store + KAQ_NAME_STORE_SIZE);
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
	uint32_t padding;
};

/* The open spans of a thread, outermost first, one after the other. Positions are in bytes from
 * `base`, since the memory moves when it grows; position 0 is no span, it takes the count of the
 * outermost one's parent. */
struct kaq_open_spans {
	char *base;
	size_t top;       /* position of the innermost one */
	size_t last;      /* the highest position there is room for; 0: none */
	size_t allocated; /* bytes */
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
};
