#include "wire/handshake.h"

#include "json/json_members.h"
#include "json/kaq_json.h"
#include "state/php_kaq.h"
#include "util/kaq_strings.h"
#include "util/kaq_util_functions.h"
#include "util/known_keys.h"
#include "util/memory_limit.h"
#include "wire/client.h"
#include "wire/payload.h"
#include "wire/receiver.h"
#include "wire/transport.h"

#include <stdlib.h>

/* A usual request fits, so that its buffer does not grow. */
#define KAQ_REQUEST_SIZE 1024

#define KAQ_STATUS_ENABLED 920
#define KAQ_STATUS_ENABLED_TOO 911

void kaq_get_serverport(char port[KAQ_PORT_TEXT_SIZE]) {
	const char *forwarded = kaq_server_text(KAQ_KEY_FORWARDED_PORT);
	const char *server = kaq_server_text(KAQ_KEY_SERVER_PORT);
	kaq_first_port_text(port, forwarded, server);
}

static void kaq_port_text(const zend_kaq_globals *g, char port[KAQ_PORT_TEXT_SIZE]) {
	char server_port[KAQ_PORT_TEXT_SIZE];
	kaq_get_serverport(server_port);
	kaq_choose_port_text(port, g->use_static_port, nullptr, server_port);
}

static void kaq_send_filter_notice(const zend_kaq_globals *g, const char *port,
								   kaq_port_verdict verdict) {
	smart_str notice = {nullptr, 0};
	kaq_buf_literal(&notice, "message:\tTracking disabled for instance with application name ");
	kaq_append_as_json_compatible_string_withquotes(&notice, g->application_name);
	kaq_buf_literal(&notice, " and port ");
	kaq_buf_append(&notice, port, strlen(port));
	if (verdict == KAQ_PORT_NOT_INCLUDED) {
		kaq_buf_literal(&notice, " due to kaq.include_ports ini directive\n");
	} else {
		kaq_buf_literal(&notice, " due to kaq.exclude_ports ini directive\n");
	}
	kaq_buf_terminate(&notice);
	send_packed_data_tcp(ZSTR_VAL(notice.s));
	kaq_buf_free(&notice);
}

/* The host's facts do not change, so they are escaped once. */
static const kaq_host_texts *kaq_write_host_texts(zend_kaq_globals *g) {
	smart_str *out = &g->host_texts.text;
	kaq_buf_literal(out, ",\"application.type\":\"PHP\",\"fqdn\":");
	kaq_append_as_json_compatible_string_withquotes(out, g->fqdn);
	kaq_buf_literal(out, ",\"hostname\":");
	kaq_append_as_json_compatible_string_withquotes(out, g->hostname);
	kaq_buf_literal(out, ",\"port\":");
	g->host_texts.identity_end = kaq_buf_length(out);
	kaq_buf_literal(out, ",\"host.type\":");
	kaq_append_as_json_compatible_string_withquotes(out, g->hosttype);
	kaq_buf_literal(out, ",\"rum.autoinjection\":");
	g->host_texts.type_end = kaq_buf_length(out);
	kaq_buf_literal(out, ",\"environment\":{\"MachineName\":");
	kaq_append_as_json_compatible_string_withquotes(out, g->hostname);
	kaq_buf_literal(out, ",\"OS\":");
	kaq_append_as_json_compatible_string_withquotes(out, g->os);
	kaq_buf_literal(out, ",\"OSArch\":");
	kaq_append_as_json_compatible_string_withquotes(out, g->os_arch);
	kaq_buf_literal(out, ",\"OSVersion\":");
	kaq_append_as_json_compatible_string_withquotes(out, g->os_version);
	if (g->current_host_ips) {
		kaq_buf_literal(out, ",\"IP\": [");
		kaq_buf_append(out, g->current_host_ips, strlen(g->current_host_ips));
		kaq_buf_literal(out, "]");
	}
	kaq_buf_literal(out, "}");
	return &g->host_texts;
}

static void kaq_append_part(smart_str *out, const kaq_host_texts *host, size_t begin, size_t end) {
	kaq_buf_append(out, ZSTR_VAL(host->text.s) + begin, end - begin);
}

static void kaq_append_agent_info(smart_str *out, const zend_kaq_globals *g,
								  const kaq_host_texts *host, const char *port) {
	kaq_buf_literal(out,
					"\"agent_info\":{\"agent.version\":\"" KAQ_VERSION
					"\",\"agent.version.info\":\"" KAQ_VERSION_INFO "\",\"application.name\":");
	kaq_append_as_json_compatible_string_withquotes(out, g->application_name);
	kaq_append_part(out, host, 0, host->identity_end);
	/* A bare number, not checked: a static port that is not a number makes the document invalid. */
	kaq_append_as_json_compatible_string(out, port);
	kaq_append_part(out, host, host->identity_end, host->type_end);
	if (g->enable_auto_rum) {
		kaq_buf_literal(out, "true}");
	} else {
		kaq_buf_literal(out, "false}");
	}
}

int form_instanceinfo_request(smart_str *buffer) {
	zend_kaq_globals *g = kaq_get_globals();
	char port[KAQ_PORT_TEXT_SIZE];
	kaq_port_text(g, port);
	kaq_port_verdict verdict = kaq_port_filter(g->includedports, g->excludedports, port);
	if (verdict != KAQ_PORT_PASS) {
		kaq_send_filter_notice(g, port, verdict);
		return 1;
	}
	const kaq_host_texts *host = g->host_texts.text.s ? &g->host_texts : kaq_write_host_texts(g);
	kaq_buf_reserve(buffer, KAQ_REQUEST_SIZE);
	kaq_buf_literal(buffer, "{\"connect_info\":{");
	kaq_append_agent_info(buffer, g, host, port);
	kaq_buf_literal(buffer, ",\"agent_specific_info\":{\"application.group.name\":");
	kaq_append_as_json_compatible_string_withquotes(buffer, g->application_group);
	kaq_buf_literal(buffer, "}");
	kaq_append_part(buffer, host, host->type_end, kaq_buf_length(&host->text));
	kaq_buf_literal(buffer, "},\"misc_info\":{\"txn.name\":");
	kaq_append_as_json_compatible_string_withquotes(buffer, g->request_uri);
	kaq_buf_literal(buffer, "}}\n");
	return 0;
}

/* What an answer may say, in the order in which it is taken. */
enum kaq_answer_member {
	KAQ_ANSWER_INSTANCE_ID,
	KAQ_ANSWER_NAME,
	KAQ_ANSWER_APP_ID,
	KAQ_ANSWER_STATUS,
	KAQ_ANSWER_SQL_THRESHOLD,
	KAQ_ANSWER_SNIPPET,
	KAQ_ANSWER_MEMBERS
};

static const char *const answer_names[KAQ_ANSWER_MEMBERS] = {
	"instance.id",
	"normalised.txn.name",
	"app.id",
	"instance.status",
	"transaction.trace.sql.stacktrace.threshold",
	"webtransaction.rum.snippet"};

static void kaq_take_answer_string(const kaq_json_member *member, char **field) {
	if (member->kind == KAQ_JSON_STRING) {
		free(*field);
		*field = kaq_json_copy_string(member);
	}
}

static void kaq_take_status(const kaq_json_member *member, zend_kaq_globals *g) {
	bool enabled = member->kind == KAQ_JSON_INTEGER && (member->integer == KAQ_STATUS_ENABLED ||
														member->integer == KAQ_STATUS_ENABLED_TOO);
	g->control_signal = enabled && g->instance_id && g->instance_id[0];
}

static void kaq_take_sql_threshold(const kaq_json_member *member, zend_kaq_globals *g) {
	if (member->kind == KAQ_JSON_INTEGER) {
		g->sql_trace_threshold = (float)member->integer;
	} else {
		g->sql_trace_threshold = member->kind == KAQ_JSON_DOUBLE ? (float)member->real : 0.0f;
	}
}

static void kaq_take_answer(const kaq_json_member *answer, zend_kaq_globals *g) {
	kaq_take_answer_string(&answer[KAQ_ANSWER_INSTANCE_ID], &g->instance_id);
	kaq_take_answer_string(&answer[KAQ_ANSWER_NAME], &g->normalised_txn_name);
	kaq_take_answer_string(&answer[KAQ_ANSWER_APP_ID], &g->app_id);
	kaq_take_status(&answer[KAQ_ANSWER_STATUS], g);
	kaq_take_sql_threshold(&answer[KAQ_ANSWER_SQL_THRESHOLD], g);
	kaq_take_answer_string(&answer[KAQ_ANSWER_SNIPPET], &g->rum_snippet);
}

/* A decoded object has its members in one table, and nothing else. A string ends at its first
 * NUL. */
static void kaq_member_of_value(zval *object, kaq_json_member *member) {
	const zval *value = zend_hash_str_find(Z_OBJPROP_P(object), member->name, strlen(member->name));
	member->kind = KAQ_JSON_OTHER;
	if (value && Z_TYPE_P(value) == IS_LONG) {
		member->kind = KAQ_JSON_INTEGER;
		member->integer = Z_LVAL_P(value);
	} else if (value && Z_TYPE_P(value) == IS_DOUBLE) {
		member->kind = KAQ_JSON_DOUBLE;
		member->real = Z_DVAL_P(value);
	} else if (value && Z_TYPE_P(value) == IS_STRING) {
		member->kind = KAQ_JSON_STRING;
		member->text = Z_STRVAL_P(value);
		member->length = strlen(member->text);
		member->has_escapes = false;
	}
}

static void kaq_take_decoded_answer(const char *text, kaq_json_member *answer,
									zend_kaq_globals *g) {
	kaq_memory_limit_lift();
	zval *decoded = kaq_decode_json_object(text, true);
	if (decoded) {
		for (int i = 0; i < KAQ_ANSWER_MEMBERS; i++) {
			kaq_member_of_value(decoded, &answer[i]);
		}
		kaq_take_answer(answer, g);
	}
	php_zval_free(decoded);
	kaq_memory_limit_restore();
}

/* An answer that the engine could not decode, for lack of the function, is none: however plain it
 * is, a request is monitored under the same conditions. */
void process_instance_info(const char *reply) {
	zend_kaq_globals *g = kaq_get_globals();
	if (!reply || !reply[0] || !g->json_decode_function_exists) {
		return;
	}
	kaq_json_member answer[KAQ_ANSWER_MEMBERS];
	for (int i = 0; i < KAQ_ANSWER_MEMBERS; i++) {
		answer[i].name = answer_names[i];
	}
	if (kaq_json_read_plain(reply, answer, KAQ_ANSWER_MEMBERS)) {
		kaq_take_answer(answer, g);
	} else {
		kaq_take_decoded_answer(reply, answer, g);
	}
}

/* The request is written where the payload will be. */
char *get_instance_data(void) {
	zend_kaq_globals *g = kaq_get_globals();
	smart_str *request = &g->payload_text;
	char *reply;
	kaq_buf_reset(request, KAQ_KEPT_BUFFER_SIZE);
	if (form_instanceinfo_request(request) != 0) {
		reply = (char *)calloc(1, 1);
	} else {
		char address[KAQ_ADDRESS_SIZE];
		kaq_collector_address(g->remote_exporter_ip, g->remote_exporter_hostname, address);
		reply =
			kaq_exchange(address, g->tcp_status_port, ZSTR_VAL(request->s), ZSTR_LEN(request->s));
	}
	kaq_buf_reset(request, KAQ_KEPT_BUFFER_SIZE);
	return reply;
}

void get_instance_info(void) {
	char *reply = get_instance_data();
	process_instance_info(reply);
	free(reply);
}
