/*
 * Spans: the records of one request's calls, and every operation on them.
 *
 * A span is created, opened (it becomes the current span and the child of the one before), and
 * closed. Closing either drops it at once, when it is short and nothing of interest hangs on it,
 * or moves it into the node buffer, where it stays until request end. Instrumentation describes
 * the span it is filling through the setters.
 *
 * Threads: a span belongs to the thread that created it. Times are wall clock milliseconds since
 * the epoch. Text in a span is a heap copy that the span owns.
 */
#pragma once

#include "util/engine_compat.h"

#include <stdint.h>

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
	int child_count; /* spans ever opened below this one */
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
	/* Names may be read in blocks of this size. */
	char name_padding[KAQ_NAME_STORE_PADDING];
};

typedef struct {
	kaq_node *head;
} kaq_node_list;

/* CPU time of the process, in ms. */
typedef struct kaq_cpu_info {
	uint64_t user_start_time, user_end_time, sys_start_time, sys_end_time, total_time;
} kaq_cpu;

/* A zeroed span of the calling thread, or null when memory is short. */
kaq_node *kaq_create_new_node(void);
/* Starts the clock and makes the span the current one. REQUIRES: state KAQ_NODE_CREATED. */
void kaq_open_node(kaq_node *node);
/* Ends the span: it is dropped (the pointer is dead then) or buffered. REQUIRES: it is open. */
void kaq_close_node(kaq_node *node);
/* Puts a finished span into the node buffer. Callers that build spans themselves fill key, state,
 * parent and times first. */
void kaq_insert_node(kaq_node *node);
/* Null is ignored. */
void kaq_free_node(kaq_node *node);
/* Request end: closes every span that is still open, innermost first. */
void kaq_close_open_nodes(void);
/* Request end: releases every span of the thread, buffered or still open. */
void kaq_free_node_buffer(void);
/* The buffered spans by key (node_buffer_len entries, an entry without a span is null), each with
 * a span id. The caller frees the array, not the spans. Null when memory is short. */
kaq_node **kaq_validate_nodes(void);
/* Drops unnecessary links of chains and numbers the remaining keys densely. REQUIRES: no span is
 * open. */
void kaq_prune_intermediate_nodes(void);

/* The setters take the function_info of a span. REQUIRES: fi is the one inside a kaq_node.
 * Names are copied; a null name stays null; a component is cut to 15 characters. */
void kaq_copy_function_info(kaq_function *fi, const char *class_name, const char *function_name,
							const char *component, int is_external);
/* Null fi is ignored. */
void kaq_set_function_priority(kaq_function *fi, int priority);
void kaq_set_method_dbconnect(kaq_function *fi, const char *host, long port);
void kaq_set_method_dbname(kaq_function *fi, const char *name);
void kaq_set_method_dbquery(kaq_function *fi, const char *query);
void kaq_set_method_url(kaq_function *fi, const char *url);
void kaq_set_method_none(kaq_function *fi);
void kaq_mark_component_failed(kaq_function *fi, int fail_type);
void kaq_update_method_name(kaq_function *fi, const char *name);
void kaq_set_external_call_status(kaq_function *fi, int code);
/* An array of header lines; anything else leaves the span untouched. */
void kaq_set_external_call_req_headers(kaq_function *fi, zval *header_lines);
/* A map of name to value; null is ignored. */
void kaq_set_external_call_res_headers(kaq_function *fi, zval *headers);
