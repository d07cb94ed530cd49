#include "json/json_escape.h"
#include "json/kaq_json.h"
#include "state/php_kaq.h"
#include "wire/payload.h"

static void kaq_append_raw(smart_str *out, const char *json) {
	kaq_buf_append(out, json, strlen(json));
}

/* A number member that is written only when the number is not 0; `key` begins with a comma. */
template <size_t size>
static void kaq_append_nonzero(smart_str *out, const char (&key)[size], int64_t value) {
	if (value != 0) {
		kaq_buf_literal(out, key);
		kaq_append_signed(out, value);
	}
}

/* A text member that is written only when the text is set. */
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
	kaq_buf_literal(out, ",\"fn\":\"");
	if (fi->class_name) {
		kaq_append_as_json_compatible_string(out, fi->class_name);
		kaq_buf_literal(out, "::");
	}
	kaq_append_as_json_compatible_string(out, fi->function_name);
	kaq_buf_literal(out, "\"");
}

static void kaq_append_arg_data(smart_str *out, const struct _arg_data *arg) {
	if (!arg) {
		return;
	}
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

/* Room for the members of fixed size before and after the function's name. */
#define KAQ_SPAN_HEAD_ROOM 128
#define KAQ_SPAN_IDS_ROOM 80

/* The last time that was written, and its digits: neighbours in the list often share theirs. */
struct kaq_time_text {
	uint64_t ms;
	size_t length; /* 0: none yet */
	char digits[KAQ_FORMAT_U64_MAX];
};

struct kaq_span_times {
	kaq_time_text start;
	kaq_time_text end;
};

static inline char *kaq_put_time(char *end, kaq_time_text *last, uint64_t ms) {
	if (last->ms != ms || last->length == 0) {
		last->ms = ms;
		last->length = kaq_format_u64(last->digits, ms);
	}
	memcpy(end, last->digits, sizeof last->digits);
	return end + last->length;
}

static inline char *kaq_put_span_head(char *end, const struct kaq_node_data *data,
									  kaq_span_times *times) {
	end = kaq_put_literal(end, "\"st\":");
	end = kaq_put_time(end, &times->start, data->start_time);
	end = kaq_put_literal(end, ",\"et\":");
	end = kaq_put_time(end, &times->end, data->end_time);
	end = kaq_put_literal(end, ",\"mo\":");
	return end + kaq_format_i64(end, data->key);
}

static void kaq_append_component(smart_str *out, const kaq_function *fi) {
	if (memcmp(fi->component_name, KAQ_PHP_COMPONENT, sizeof(KAQ_PHP_COMPONENT)) == 0) {
		kaq_buf_literal(out, ",\"cn\":\"" KAQ_PHP_COMPONENT "\"");
	} else {
		kaq_append_text(out, ",\"cn\":", fi->component_name[0] ? fi->component_name : nullptr);
	}
}

/* A span id is made of hexadecimal digits and needs no escaping. */
template <size_t size>
static char *kaq_put_span_id(char *end, const char (&key)[size], const char *span_id) {
	end = kaq_put_literal(end, key);
	memcpy(end, span_id, KAQ_SPAN_ID_LENGTH);
	end += span_id[KAQ_SPAN_ID_LENGTH - 1] ? KAQ_SPAN_ID_LENGTH : strlen(span_id);
	*end++ = '"';
	return end;
}

static inline char *kaq_put_span_ids(char *end, const kaq_function *fi, const kaq_node *parent) {
	if (fi->span_id[0]) {
		end = kaq_put_span_id(end, ",\"si\":\"", fi->span_id);
	}
	if (parent && parent->data.function_info.span_id[0]) {
		end = kaq_put_span_id(end, ",\"psi\":\"", parent->data.function_info.span_id);
	}
	return end;
}

/* Whether a span is a call of user code with nothing else to tell, as most are. */
static inline bool kaq_is_plain(const kaq_function *fi) {
	return (fi->names & KAQ_ENGINE_NAMES) && !fi->arg_data &&
		   !(fi->priority | fi->isExternal | fi->isAsync | fi->isFault | fi->isError) &&
		   kaq_is_php_component(fi);
}

/* The same members as below, all at once. */
static void kaq_append_plain_span(const kaq_node *node, smart_str *out, kaq_span_times *times) {
	const struct kaq_node_data *data = &node->data;
	const kaq_function *fi = &data->function_info;
	size_t length = ZSTR_LEN(kaq_engine_string(fi->function_name));
	if (fi->class_name) {
		length += ZSTR_LEN(kaq_engine_string(fi->class_name));
	}
	char *end = kaq_buf_reserve(out, KAQ_SPAN_HEAD_ROOM + KAQ_SPAN_IDS_ROOM +
										 2 * KAQ_JSON_ESCAPE_MAX(0) + KAQ_JSON_ESCAPE_MAX(length));
	end = kaq_put_span_head(end, data, times);
	end = kaq_put_literal(end, ",\"fn\":\"");
	if (fi->class_name) {
		end = kaq_json_escape_words(end, fi->class_name);
		end = kaq_put_literal(end, "::");
	}
	end = kaq_json_escape_words(end, fi->function_name);
	end = kaq_put_literal(end, "\",\"cn\":\"" KAQ_PHP_COMPONENT "\"");
	end = kaq_put_span_ids(end, fi, data->parent);
	kaq_buf_commit(out, end);
}

static void kaq_append_span(const kaq_node *node, smart_str *out, kaq_span_times *times) {
	const struct kaq_node_data *data = &node->data;
	const kaq_function *fi = &data->function_info;
	if (kaq_is_plain(fi)) {
		kaq_append_plain_span(node, out, times);
		return;
	}
	char *end = kaq_buf_reserve(out, KAQ_SPAN_HEAD_ROOM);
	kaq_buf_commit(out, kaq_put_span_head(end, data, times));
	kaq_append_nonzero(out, ",\"pr\":", fi->priority);
	kaq_append_function_name(out, fi);
	kaq_append_component(out, fi);
	kaq_append_nonzero(out, ",\"ex\":", fi->isExternal);
	if (fi->isAsync) {
		kaq_buf_literal(out, ",\"ar\":true");
	}
	kaq_append_nonzero(out, ",\"if\":", fi->isFault);
	kaq_append_nonzero(out, ",\"ie\":", fi->isError);
	end = kaq_buf_reserve(out, KAQ_SPAN_IDS_ROOM);
	kaq_buf_commit(out, kaq_put_span_ids(end, fi, data->parent));
	kaq_append_arg_data(out, fi->arg_data);
}

static void kaq_append_root_span(const kaq_node *node, smart_str *out, kaq_span_times *times) {
	const char *caller = kaq_get_globals()->root_parentspanid;
	kaq_append_span(node, out, times);
	if (caller[0]) {
		kaq_append_text(out, ",\"psi\":", caller);
	}
}

void kaq_form_method_info(const kaq_node *node, smart_str *out) {
	kaq_span_times times = {};
	kaq_append_span(node, out, &times);
}

void kaq_form_root_method_info(const kaq_node *node, smart_str *out) {
	kaq_span_times times = {};
	kaq_append_root_span(node, out, &times);
}

void kaq_form_spans(smart_str *out, kaq_node **nodes, int count) {
	kaq_span_times times = {};
	bool is_first = true;
	kaq_buf_literal(out, ",\"method_info\":{\"span_info\":[");
	for (int key = 0; key < count; key++) {
		if (!nodes[key]) {
			continue;
		}
		if (is_first) {
			kaq_buf_literal(out, "{");
		} else {
			kaq_buf_literal(out, ",{");
		}
		is_first = false;
		if (key == 0) {
			kaq_append_root_span(nodes[key], out, &times);
		} else {
			kaq_append_span(nodes[key], out, &times);
		}
		kaq_buf_literal(out, "}");
	}
	kaq_buf_literal(out, "]}");
}
