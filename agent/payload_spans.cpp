#include "agent/json_escape.h"
#include "agent/kaq_json.h"
#include "agent/payload.h"
#include "core/php_kaq.h"

static void kaq_append_raw(smart_str *out, const char *json) {
	kaq_buf_append(out, json, strlen(json));
}

/* A number member that stands only when the number is not 0; `key` begins with a comma. */
template <size_t size>
static void kaq_append_nonzero(smart_str *out, const char (&key)[size], int64_t value) {
	if (value != 0) {
		kaq_buf_literal(out, key);
		kaq_append_signed(out, value);
	}
}

/* A text member that stands only when the text is set. */
template <size_t size>
static void kaq_append_text(smart_str *out, const char (&key)[size], const char *text) {
	if (text) {
		kaq_buf_literal(out, key);
		kaq_append_as_json_compatible_string_withquotes(out, text);
	}
}

/* Names longer than this together are appended piece by piece. */
#define KAQ_USUAL_NAME_LENGTH 1024

static void kaq_append_long_name(smart_str *out, const kaq_function *fi) {
	kaq_buf_literal(out, ",\"fn\":\"");
	kaq_append_as_json_compatible_string(out, fi->class_name);
	if (fi->class_name) {
		kaq_buf_literal(out, "::");
	}
	kaq_append_as_json_compatible_string(out, fi->function_name);
	kaq_buf_literal(out, "\"");
}

static void kaq_append_function_name(smart_str *out, const kaq_function *fi) {
	if (!fi->function_name) {
		return;
	}
	size_t class_length = fi->class_name ? strlen(fi->class_name) : 0;
	size_t length = strlen(fi->function_name);
	if (class_length + length > KAQ_USUAL_NAME_LENGTH) {
		kaq_append_long_name(out, fi);
		return;
	}
	char *end = kaq_buf_reserve(out, 16 + KAQ_JSON_ESCAPE_MAX(class_length + length));
	end = kaq_put_literal(end, ",\"fn\":\"");
	if (fi->class_name) {
		end += kaq_json_escape(end, fi->class_name, class_length);
		end = kaq_put_literal(end, "::");
	}
	end += kaq_json_escape(end, fi->function_name, length);
	*end++ = '"';
	kaq_buf_commit(out, end);
}

static void kaq_append_arg_data(smart_str *out, const struct _arg_data *arg) {
	kaq_append_text(out, ",\"qs\":", arg->query);
	kaq_append_nonzero(out, ",\"esc\":", arg->externalStatusCode);
	kaq_append_text(out, ",\"hn\":", arg->dbconnectHost ? arg->dbconnectHost : arg->url);
	kaq_append_nonzero(out, ",\"pn\":", arg->dbconnectPort);
	kaq_append_text(out, ",\"dn\":", arg->dbname);
	if (arg->externalReqHeaders) {
		kaq_buf_literal(out, ",\"erqh\":");
		kaq_append_raw(out, arg->externalReqHeaders);
	}
	if (arg->externalResHeaders) {
		kaq_buf_literal(out, ",\"ersh\":");
		kaq_append_raw(out, arg->externalResHeaders);
	}
	if (arg->einfo.s) {
		kaq_buf_literal(out, ",\"ei\":[");
		kaq_buf_append(out, ZSTR_VAL(arg->einfo.s), ZSTR_LEN(arg->einfo.s));
		kaq_buf_literal(out, "]");
	}
	if (arg->stacktrace) {
		kaq_buf_literal(out, ",\"mst\":[");
		kaq_append_raw(out, arg->stacktrace);
		kaq_buf_literal(out, "]");
	}
}

/* Room for the members of fixed size that stand before, and behind, the function's name. */
#define KAQ_SPAN_HEAD_ROOM 128
#define KAQ_SPAN_IDS_ROOM 80

static void kaq_append_span_head(smart_str *out, const struct kaq_node_data *data) {
	char *end = kaq_buf_reserve(out, KAQ_SPAN_HEAD_ROOM);
	end = kaq_put_literal(end, "\"st\":");
	end += kaq_format_u64(end, data->start_time);
	end = kaq_put_literal(end, ",\"et\":");
	end += kaq_format_u64(end, data->end_time);
	end = kaq_put_literal(end, ",\"mo\":");
	end += kaq_format_i64(end, data->key);
	kaq_buf_commit(out, end);
}

static void kaq_append_component(smart_str *out, const kaq_function *fi) {
	if (memcmp(fi->component_name, KAQ_PHP_COMPONENT, sizeof(KAQ_PHP_COMPONENT)) == 0) {
		kaq_buf_literal(out, ",\"cn\":\"" KAQ_PHP_COMPONENT "\"");
	} else {
		kaq_append_text(out, ",\"cn\":", fi->component_name[0] ? fi->component_name : NULL);
	}
}

/* A span id is made of hexadecimal digits and needs no escaping. */
template <size_t size>
static char *kaq_put_span_id(char *end, const char (&key)[size], const char *span_id) {
	end = kaq_put_literal(end, key);
	memcpy(end, span_id, KAQ_SPAN_ID_LENGTH);
	end += strnlen(span_id, KAQ_SPAN_ID_LENGTH);
	*end++ = '"';
	return end;
}

static void kaq_append_span_ids(smart_str *out, const kaq_function *fi, const kaq_node *parent) {
	char *end = kaq_buf_reserve(out, KAQ_SPAN_IDS_ROOM);
	if (fi->span_id[0]) {
		end = kaq_put_span_id(end, ",\"si\":\"", fi->span_id);
	}
	if (parent && parent->data.function_info.span_id[0]) {
		end = kaq_put_span_id(end, ",\"psi\":\"", parent->data.function_info.span_id);
	}
	kaq_buf_commit(out, end);
}

void kaq_form_method_info(const kaq_node *node, smart_str *out) {
	const struct kaq_node_data *data = &node->data;
	const kaq_function *fi = &data->function_info;
	kaq_append_span_head(out, data);
	kaq_append_nonzero(out, ",\"pr\":", fi->priority);
	kaq_append_function_name(out, fi);
	kaq_append_component(out, fi);
	kaq_append_nonzero(out, ",\"ex\":", fi->isExternal);
	if (fi->isAsync) {
		kaq_buf_literal(out, ",\"ar\":true");
	}
	kaq_append_nonzero(out, ",\"if\":", fi->isFault);
	kaq_append_nonzero(out, ",\"ie\":", fi->isError);
	kaq_append_span_ids(out, fi, data->parent);
	kaq_append_arg_data(out, &fi->arg_data);
}

void kaq_form_root_method_info(const kaq_node *node, smart_str *out) {
	const char *caller = kaq_get_globals()->root_parentspanid;
	kaq_form_method_info(node, out);
	if (caller[0]) {
		kaq_append_text(out, ",\"psi\":", caller);
	}
}
