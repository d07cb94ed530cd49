/* One request from start to end. The order of the steps is a contract; the numbers are those of
 * docs/architecture.md. */
#include "core/lifecycle.h"
#include "core/settings.h"
#include "curl/curl_stores.h"
#include "diagnostics/crash_handler.h"
#include "diagnostics/kaq_rum.h"
#include "instrumentation/kaq_instrumentation.h"
#include "spans/kaq_execute.h"
#include "tracing/trace_context.h"
#include "util/engine_access.h"
#include "util/kaq_clock.h"
#include "util/kaq_util_functions.h"
#include "util/known_keys.h"
#include "util/memory_limit.h"
#include "wire/handshake.h"
#include "wire/payload.h"
#include "wire/request_context.h"
#include "wire/request_values.h"
#include "wire/transport.h"

#include <stdlib.h>

static void kaq_release_request_texts(zend_kaq_globals *g) {
	char **texts[] = {&g->request_uri_custom_name,
					  &g->application_name,
					  &g->instance_id,
					  &g->normalised_txn_name,
					  &g->rum_snippet,
					  &g->session_id,
					  &g->remote_exporter_hostname,
					  &g->remote_exporter_ip,
					  &g->application_group,
					  &g->app_id,
					  &g->app_flow};
	for (char **text : texts) {
		if (*text) {
			free(*text);
			*text = nullptr;
		}
	}
}

/* Values of one request, beside the stores of curl handles. */
static zval *zend_kaq_globals::*const request_values[] = {
	&zend_kaq_globals::request_headers_zv, &zend_kaq_globals::curlinfo_effective_url,
	&zend_kaq_globals::curlinfo_http_code, &zend_kaq_globals::curlinfo_total_time,
	&zend_kaq_globals::custom_params_zv,   &zend_kaq_globals::app_param_avg_zv,
	&zend_kaq_globals::app_param_sum_zv};

/* An extension that bails out at request end keeps the engine from calling ours. The memory that
 * such a request's values were in is gone by now. */
static void kaq_forget_unended_request(zend_kaq_globals *g) {
	kaq_memory_limit_unwind(0);
	kaq_release_request_texts(g);
	kaq_forget_curl_stores();
	for (zval *zend_kaq_globals::*value : request_values) {
		g->*value = nullptr;
	}
}

static void kaq_build_auto_globals(void) {
	zend_is_auto_global(kaq_keys[KAQ_KEY_SERVER]);
	zend_is_auto_global(kaq_keys[KAQ_KEY_REQUEST]);
}

static void kaq_reset_counters(zend_kaq_globals *g) {
	g->node_buffer_len = 0;
	g->stored_node_count = 0;
	g->control_signal = 0;
	g->exception_count = 0;
	g->error_count = 0;
	g->json_decode_function_exists = 0;
	g->rum_injected = 0;
	g->rum_page = 0;
	g->failure_bytes = 0;
	g->is_recording_failure = 0;
	g->is_caller_same_user = 0;
	g->is_async_call = 0;
}

/* They are read as texts only: clearing all of their 45 KB would cost more, and leave a page
 * without what it has in the processor's cache. */
static void kaq_clear_text_buffers(zend_kaq_globals *g) {
	g->request_uri[0] = '\0';
	g->http_host_name[0] = '\0';
	g->php_self[0] = '\0';
	g->request_method[0] = '\0';
	g->query_string[0] = '\0';
}

static void kaq_reset_spans(zend_kaq_globals *g) {
	kaq_release_spans(g);
	for (int i = 0; i < KAQ_EXCEPTION_SLOTS; i++) {
		g->exceptionslist[i]->name = nullptr;
		g->exceptionslist[i]->count = 0;
	}
}

static void kaq_check_necessary_functions(zend_kaq_globals *g) {
	g->json_decode_function_exists =
		kaq_has_plain_objects() &&
		kaq_find_callable_function("json_decode", strlen("json_decode")) != nullptr;
}

static void kaq_take_trace_context(zend_kaq_globals *g) {
	if (g->transaction_type == WEB) {
		g->request_headers_zv = kaq_capture_request_headers();
		kaq_is_caller_same_user();
		kaq_get_traceparent();
		kaq_get_origin();
	} else {
		kaq_start_background_trace();
	}
}

void kaq_request_start(void) {
	zend_kaq_globals *g = kaq_get_globals();
	uint64_t sec;
	uint64_t usec;
	kaq_forget_unended_request(g);
	g->in_request = 1;
	kaq_wall_clock(&sec, &usec);      /*  1 */
	kaq_set_request_global_strings(); /*  2 */
	kaq_late_initialization();        /*  3 */
	wrap_sethandler();                /*  4 */
	kaq_build_auto_globals();         /*  5 */
	kaq_reset_counters(g);            /*  6 */
	kaq_clear_text_buffers(g);        /*  7 */
	kaq_create_curl_stores();         /*  8 */
	kaq_reset_spans(g);               /*  9 */
	kaq_request_uri();                /* 10 */
	if (!g->request_uri[0]) {         /* 11 */
		send_packed_data_tcp("message:\tNo request URI Found\n");
		return;
	}
	kaq_check_necessary_functions(g); /* 12 */
	get_instance_info();              /* 13 */
	if (!g->control_signal) {         /* 14 */
		return;
	}
	g->start_time = kaq_ms_of(sec, usec); /* 15 */
	kaq_take_trace_context(g);            /* 16 */
	kaq_create_main_method();             /* 17 */
	kaq_cpu_usage_start();                /* 18 */
	kaq_start_rum_injection();            /* 19 */
}

static void kaq_disabled_instance_data_dump(void) {
	send_packed_data_tcp("message:\tRequest ended. No data collected since instance is disabled\n");
}

static void kaq_finish_transaction(const zend_kaq_globals *g) {
	kaq_cpu_usage_end();
	kaq_close_open_nodes();
	if (g->prune_intermediate_spans) {
		kaq_prune_intermediate_nodes();
	}
	kaq_request_data_dump_ex();
}

static void kaq_release_request_values(zend_kaq_globals *g) {
	kaq_release_curl_stores();
	for (zval *zend_kaq_globals::*value : request_values) {
		kaq_zval_release(&(g->*value));
	}
}

/* Script code may still run: session handlers, stream wrappers. Nothing of it is recorded, for
 * nothing would be released any more. */
static void kaq_leave_request(zend_kaq_globals *g) {
	g->in_request = 0;
	g->control_signal = 0;
}

/* A script that ended for lack of memory leaves none for us: until we are done the limit is off. */
void kaq_request_end(void) {
	zend_kaq_globals *g = kaq_get_globals();
	uint64_t sec;
	uint64_t usec;
	kaq_wall_clock(&sec, &usec);
	g->end_time = kaq_ms_of(sec, usec); /* 1 */
	kaq_memory_limit_lift();
	if (g->control_signal) { /* 2 */
		kaq_finish_transaction(g);
	} else {
		kaq_disabled_instance_data_dump();
	}
	kaq_free_node_buffer();        /* 3 */
	kaq_release_request_texts(g);  /* 4 */
	kaq_release_request_values(g); /* 5 */
	kaq_memory_limit_unwind(0);
	kaq_leave_request(g); /* 6 */
}
