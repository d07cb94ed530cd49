#include "wire/payload.h"

#include "json/kaq_json.h"
#include "state/php_kaq.h"
#include "tracing/kaq_headers.h"
#include "wire/kaq_base64.h"
#include "wire/request_context.h"
#include "wire/request_values.h"
#include "wire/transport.h"

#include <stdlib.h>
#include <sys/syscall.h>
#include <unistd.h>

/* First guess of a payload's size, so that a usual one never grows its buffer. */
#define KAQ_PAYLOAD_BASE_SIZE 8192
#define KAQ_PAYLOAD_SPAN_SIZE 192

template <size_t size>
static void kaq_append_text_member(smart_str *out, const char (&key)[size], const char *text) {
	kaq_buf_literal(out, key);
	kaq_append_as_json_compatible_string_withquotes(out, text);
}

template <size_t size>
static void kaq_append_number_member(smart_str *out, const char (&key)[size], int64_t value) {
	kaq_buf_literal(out, key);
	kaq_append_signed(out, value);
}

/* Appends key and value, unless there is none, or it is an empty array and that counts as none. */
template <size_t size>
static bool kaq_append_json_member(smart_str *out, const char (&key)[size], const zval *value,
								   bool omit_empty) {
	size_t start = kaq_buf_length(out);
	if (!value) {
		return false;
	}
	kaq_buf_literal(out, key);
	bool is_written = kaq_append_json_value(out, value);
	const char *text = ZSTR_VAL(out->s) + start + size - 1;
	if (!is_written || (omit_empty && kaq_buf_length(out) == start + size - 1 + strlen("[]") &&
						text[0] == '[' && text[1] == ']')) {
		kaq_buf_cut(out, start);
		return false;
	}
	return true;
}

static void kaq_append_response(smart_str *out) {
	size_t start = kaq_buf_length(out);
	kaq_buf_literal(out, ",\"http_resp_headers\":");
	if (!kaq_append_response_headers(out)) {
		kaq_buf_cut(out, start);
	}
}

static void kaq_append_arguments(smart_str *out) {
	char *arguments = kaq_get_cli_args();
	if (arguments && strcmp(arguments, "[]") != 0) {
		kaq_buf_literal(out, ",\"bckgrnd_input_params\":");
		kaq_buf_append(out, arguments, strlen(arguments));
	}
	free(arguments);
}

static void kaq_form_application_info(smart_str *out, const zend_kaq_globals *g) {
	kaq_append_text_member(
		out, ",\"application_info\":{\"application_type\":\"PHP\",\"application_name\":",
		g->application_name);
	kaq_append_text_member(out, ",\"application_group\":", g->application_group);
	kaq_append_text_member(out, ",\"instance_id\":", g->instance_id);
	kaq_buf_literal(out, "}");
}

static const char *kaq_transaction_text(const zend_kaq_globals *g) {
	if (g->request_uri_custom_name) {
		return g->request_uri_custom_name;
	}
	return g->transaction_type == WEB ? g->request_uri : g->php_self;
}

static void kaq_form_request_facts(smart_str *out, const zend_kaq_globals *g) {
	kaq_append_text_member(out, ",\"transaction_info\":{\"t_name\":", kaq_transaction_text(g));
	if (g->normalised_txn_name && g->normalised_txn_name[0]) {
		kaq_append_text_member(out, ",\"normalised_tname\":", g->normalised_txn_name);
	}
	if (g->http_host_name && g->http_host_name[0]) {
		kaq_append_text_member(out, ",\"http_host\":", g->http_host_name);
	}
	kaq_append_text_member(out, ",\"http_query_str\":", g->query_string);
	kaq_buf_literal(out, ",\"s_time\":");
	kaq_append_unsigned_long_long(out, g->start_time);
	kaq_buf_literal(out, ",\"e_time\":");
	kaq_append_unsigned_long_long(out, g->end_time);
	kaq_append_text_member(out, ",\"http_method_name\":", g->request_method);
	kaq_append_number_member(out, ",\"bytes_in\":", SG(request_info).content_length);
	kaq_append_number_member(out, ",\"bytes_out\":", kaq_get_response_content_length());
}

static void kaq_form_figures(smart_str *out, const zend_kaq_globals *g) {
	kaq_append_number_member(out, ",\"transaction_type\":", g->transaction_type);
	kaq_append_number_member(out, ",\"thread_id\":", syscall(SYS_gettid));
	if (g->transaction_type == WEB) {
		kaq_append_number_member(out, ",\"httpcode\":", kaq_get_response_code());
	}
	kaq_buf_literal(out, ",\"cputime\":");
	kaq_append_unsigned_long_long(out, g->cpu_time->total_time);
	kaq_buf_literal(out, ",\"memalloc\":");
	kaq_append_unsigned_long_long(out, zend_memory_peak_usage(0));
	kaq_append_text_member(out, ",\"trace_id\":", g->trace_id);
	if (g->session_id) {
		kaq_append_text_member(out, ",\"session_id\":", g->session_id);
	}
}

static void kaq_form_inputs(smart_str *out, const zend_kaq_globals *g) {
	if (g->transaction_type == WEB) {
		kaq_append_json_member(out, ",\"http_headers\":", kaq_request_headers(), false);
		kaq_append_json_member(out, ",\"http_input_params\":", kaq_request_parameters(), true);
		kaq_append_response(out);
	} else {
		kaq_append_arguments(out);
	}
	kaq_append_json_member(out, ",\"custom_params\":", g->custom_params_zv, false);
}

static void kaq_form_origin(smart_str *out, const zend_kaq_globals *g) {
	kaq_buf_literal(out, ",\"origin\":{");
	/* Begins with a comma when the call is asynchronous; the collector expects it so. */
	if (g->is_async_call) {
		kaq_buf_literal(out, ",\"async\":true");
	} else {
		kaq_buf_literal(out, "\"async\":false");
	}
	if (g->app_flow && g->app_flow[0]) {
		kaq_append_text_member(out, ",\"flow\":", g->app_flow);
	}
	kaq_buf_literal(out, "}}");
}

/* With averages alone the object begins with a comma; the collector expects it so. */
static void kaq_form_app_parameters(smart_str *out, const zend_kaq_globals *g) {
	kaq_buf_literal(out, ",\"app_parameters\":{");
	bool has_sums = kaq_append_json_member(out, "\"sum\":", g->app_param_sum_zv, false);
	bool has_averages = kaq_append_json_member(out, ",\"average\":", g->app_param_avg_zv, false);
	if (has_sums || has_averages) {
		kaq_buf_literal(out, ",\"data\":true");
	}
	kaq_buf_literal(out, "}");
}

void kaq_form_payload(smart_str *out, kaq_node **nodes) {
	const zend_kaq_globals *g = kaq_get_globals();
	kaq_buf_reserve(out,
					KAQ_PAYLOAD_BASE_SIZE + (size_t)g->node_buffer_len * KAQ_PAYLOAD_SPAN_SIZE);
	kaq_buf_literal(out, "{\"apm\":{\"data\":true");
	kaq_form_application_info(out, g);
	kaq_form_request_facts(out, g);
	kaq_form_figures(out, g);
	kaq_form_inputs(out, g);
	kaq_form_origin(out, g);
	kaq_form_spans(out, nodes, g->node_buffer_len);
	kaq_form_app_parameters(out, g);
	kaq_buf_literal(out, "}}");
}

static void kaq_keep_usual_buffers(zend_kaq_globals *g) {
	kaq_buf_reset(&g->payload_text, KAQ_KEPT_BUFFER_SIZE);
	if (g->payload_line_room > KAQ_KEPT_BUFFER_SIZE) {
		free(g->payload_line);
		g->payload_line = nullptr;
		g->payload_line_room = 0;
	}
}

const char *kaq_form_payload_line(kaq_node **nodes) {
	zend_kaq_globals *g = kaq_get_globals();
	kaq_buf_reset(&g->payload_text, KAQ_KEPT_BUFFER_SIZE);
	kaq_form_payload(&g->payload_text, nodes);
	return kaq_base64_encode_line(&g->payload_line, &g->payload_line_room,
								  ZSTR_VAL(g->payload_text.s), ZSTR_LEN(g->payload_text.s));
}

void kaq_request_data_dump_ex(void) {
	zend_kaq_globals *g = kaq_get_globals();
	if (!g->request_uri || !g->request_uri[0]) {
		send_packed_data_tcp("message:\tNo request URI Found\n");
		return;
	}
	if (g->node_buffer_len == 0) {
		return;
	}
	kaq_node **nodes = kaq_validate_nodes();
	if (!nodes) {
		return;
	}
	send_packed_data_tcp(kaq_form_payload_line(nodes));
	kaq_keep_usual_buffers(g);
	free(nodes);
}
