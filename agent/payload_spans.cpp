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

static void kaq_append_function_name(smart_str *out, const kaq_function *fi) {
	if (!fi->function_name) {
		return;
	}
	if (!fi->class_name) {
		kaq_append_text(out, ",\"fn\":", fi->function_name);
		return;
	}
	kaq_buf_literal(out, ",\"fn\":\"");
	kaq_append_as_json_compatible_string(out, fi->class_name);
	kaq_buf_literal(out, "::");
	kaq_append_as_json_compatible_string(out, fi->function_name);
	kaq_buf_literal(out, "\"");
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

void kaq_form_method_info(const kaq_node *node, smart_str *out) {
	const struct kaq_node_data *data = &node->data;
	const kaq_function *fi = &data->function_info;
	kaq_buf_literal(out, "\"st\":");
	kaq_append_unsigned_long_long(out, data->start_time);
	kaq_buf_literal(out, ",\"et\":");
	kaq_append_unsigned_long_long(out, data->end_time);
	kaq_buf_literal(out, ",\"mo\":");
	kaq_append_signed(out, data->key);
	kaq_append_nonzero(out, ",\"pr\":", fi->priority);
	kaq_append_function_name(out, fi);
	kaq_append_text(out, ",\"cn\":", fi->component_name[0] ? fi->component_name : NULL);
	kaq_append_nonzero(out, ",\"ex\":", fi->isExternal);
	if (fi->isAsync) {
		kaq_buf_literal(out, ",\"ar\":true");
	}
	kaq_append_nonzero(out, ",\"if\":", fi->isFault);
	kaq_append_nonzero(out, ",\"ie\":", fi->isError);
	kaq_append_text(out, ",\"si\":", fi->span_id[0] ? fi->span_id : NULL);
	const char *parent_id = data->parent ? data->parent->data.function_info.span_id : "";
	kaq_append_text(out, ",\"psi\":", parent_id[0] ? parent_id : NULL);
	kaq_append_arg_data(out, &fi->arg_data);
}

void kaq_form_root_method_info(const kaq_node *node, smart_str *out) {
	const char *caller = kaq_get_globals()->root_parentspanid;
	kaq_form_method_info(node, out);
	if (caller[0]) {
		kaq_append_text(out, ",\"psi\":", caller);
	}
}
