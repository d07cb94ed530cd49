/*
 * The module and its per-thread state.
 *
 * Every engine thread owns one zend_kaq_globals. All work of a request reads and writes only the
 * record of its own thread and takes no lock. Fetch it once per function:
 *
 *     zend_kaq_globals *g = kaq_get_globals();
 *
 * Ownership: unless a comment says otherwise a char pointer here is a heap copy (malloc/free)
 * that belongs to the record; a zval pointer is a container from php_zval_alloc() that lives until
 * request end.
 */
#pragma once

#include "state/span_types.h"

#include <stdint.h>

#define KAQ_VERSION "4.9"
#define KAQ_VERSION_INFO "4.9.2.0"
#define KAQ_BUILD_DATE "15 May 2026"

#define KAQ_TEXT_BUFFER_SIZE 8192
#define KAQ_QUERY_BUFFER_SIZE 12800
#define KAQ_TRACE_ID_LENGTH 32
#define KAQ_EXCEPTION_SLOTS 10

enum TRANSACTION_TYPE { BCKGRND = 0, WEB = 1 };

/* The constants by which curl is asked about a transfer. */
enum kaq_curlinfo {
	KAQ_CURLINFO_EFFECTIVE_URL,
	KAQ_CURLINFO_HTTP_CODE,
	KAQ_CURLINFO_TOTAL_TIME,
	KAQ_CURLINFO_CONSTANTS
};

/* The stores of curl handles, see curl/curl_stores.h. */
#define KAQ_CURL_STORES 5

/* An exception class and how often it was thrown; the name belongs to the engine's class. */
typedef struct kaq_exception_info {
	const char *name;
	int count;
} kaq_exception;

/* What every request tells of the host, as it is written: up to the port, from there to
 * the settings, and the environment. The ends are those of the parts. */
typedef struct kaq_host_texts_info {
	smart_str text; /* empty: not written yet */
	size_t identity_end;
	size_t type_end;
} kaq_host_texts;

// clang-format off
ZEND_BEGIN_MODULE_GLOBALS(kaq)
	/* What every call of a user function looks at, together. */
	int in_request;        /* from request start to request end */
	int control_signal;    /* 1: the collector monitors this request */
	int span_limit;
	int stored_node_count; /* spans placed in the node buffer */
	int node_buffer_len;   /* span keys handed out, and so the next key */
	int method_threshold;  /* ms */
	kaq_open_spans open_spans;
	kaq_node *current_node; /* innermost open span that has a node; see kaq_current_node */
	int capture_clirequest;
	int max_stack_depth;
	int transaction_type;
	int capture_distributed_trace;
	int capture_cassandra;
	int capture_http;
	int capture_httpcall_metadata;
	int capture_mssql;
	int capture_mysql;
	int capture_pdo;
	int capture_postgres;
	int capture_redis;
	int capture_memcached;
	int capture_oracle;
	int tcp_status_port;
	int tcp_data_port;
	int exception_count;
	int error_count;
	int enable_auto_rum;
	int track_errors;
	int track_exceptions;
	int track_zend_execute;
	int track_zend_execute_internal;
	int json_decode_function_exists;
	int prune_intermediate_spans;
	int rum_injected;
	int rum_page; /* kaq_page_encoding, known once a chunk has come */
	size_t failure_bytes;     /* of error records and stacks in this request */
	int is_recording_failure; /* an error or exception is being recorded */
	int is_caller_same_user;
	int is_async_call;
	float sql_trace_threshold;     /* seconds */
	uint64_t start_time, end_time; /* ms since the epoch */
	int64_t memory_usage;          /* reserved, stays 0 */
	/* In pairs: a setting's last non-empty text, kept by the thread, and its copy for the request. */
	char *applicationname;
	char *application_name;
	char *remoteexporterhostname;
	char *remote_exporter_hostname;
	char *remoteexporterip;
	char *remote_exporter_ip;
	char *request_uri;
	char *request_uri_custom_name;
	char *http_host_name;
	char *php_self;
	char *instance_id;
	char *request_method;
	char *query_string;
	char *trace_id;
	char *hostname, *hosttype, *fqdn;
	char *rum_snippet;
	char *session_id;
	char *current_host_ips; /* quoted, comma-separated JSON strings */
	char *applicationgroup;
	char *application_group;
	char *excludedports, *includedports, *use_static_port;
	char *root_parentspanid;
	char *app_id, *app_flow, *normalised_txn_name;
	char *os, *os_arch, *os_version;
	kaq_host_texts host_texts;
	zval *request_headers_zv;
	zval *curl_req_headers_store;
	zval *curl_res_headers_store;
	zval *curl_multi_handle_store;
	zval *curl_multi_reported_store;
	zval *curl_multi_spanid_store;
	zval *curlinfo_effective_url, *curlinfo_http_code, *curlinfo_total_time;
	zval curl_store_arrays[KAQ_CURL_STORES];     /* what the stores point at */
	zval curlinfo_known[KAQ_CURLINFO_CONSTANTS]; /* their values, once found by this thread */
	HashTable live_curl_handles; /* a watch on the handles in the stores; without them all zero */
	zval *app_param_avg_zv, *app_param_sum_zv, *custom_params_zv;
	kaq_node_list *node_buffer; /* closed spans, newest first */
	kaq_cpu *cpu_time;
	kaq_exception **exceptionslist;
	kaq_node_list node_list; /* what node_buffer points at */
	kaq_node_pool node_pool; /* every span record of this thread */
	int work_done;           /* this thread's functions are wrapped */
	/* The payload's text and its line, kept while they are of a usual size. */
	smart_str payload_text;
	char *payload_line;
	size_t payload_line_room;
ZEND_END_MODULE_GLOBALS(kaq)
// clang-format on

ZEND_EXTERN_MODULE_GLOBALS(kaq)

static inline void kaq_bind_thread(void) {
	kaq_bind_module_globals(KAQ_MODULE_GLOBALS_KEY(kaq));
}

/* The calling thread's record. REQUIRES: the thread has been bound (kaq_bind_thread). */
static inline zend_kaq_globals *kaq_get_globals(void) {
	return KAQ_MODULE_GLOBALS_POINTER(kaq);
}
