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

/* What is copied in blocks of this size may write as many bytes behind its end. */
#define KAQ_COPY_BLOCK 32

/* The longest text of two times; as much is copied of a shorter one. */
#define KAQ_TIMES_SIZE 64

#define KAQ_KNOWN_NAMES 64

/* Where in the text a call of that function has been named. */
struct kaq_known_name {
	const char *class_name;
	const char *function_name; /* null: none yet */
	size_t start;
	size_t length;
};

/* What has been written already: neighbours in the list often share their times, many spans their
 * function, and each key follows the one before. */
struct kaq_written {
	uint64_t start_time;
	uint64_t end_time;
	size_t times_length; /* 0: none yet */
	char times[72];      /* from the comma and brace before the span to its key */
	int key;
	unsigned key_length; /* 0: none yet, or its digits are not in `key_digits` */
	uint64_t key_digits; /* the first one in the lowest byte */
	kaq_known_name names[KAQ_KNOWN_NAMES];
};

/* How a span begins within the list, where it begins it, and without its brace. */
enum kaq_span_start { KAQ_NEXT_SPAN = 0, KAQ_FIRST_SPAN = 1, KAQ_SPAN_MEMBERS = 2 };

static inline void kaq_copy_blocks(char *out, const char *from, size_t length) {
	for (size_t done = 0; done < length; done += KAQ_COPY_BLOCK) {
		memcpy(out + done, from + done, KAQ_COPY_BLOCK);
	}
}

static __attribute__((noinline)) void kaq_write_times(kaq_written *written,
													  const struct kaq_node_data *data) {
	static_assert(sizeof(",{\"st\":,\"et\":,\"mo\":") + 2 * 20 <= KAQ_TIMES_SIZE, "both fit");
	/* The formatter stores more than the digits. */
	char text[KAQ_TIMES_SIZE + KAQ_FORMAT_U64_MAX] = {};
	char *end = kaq_put_literal(text, ",{\"st\":");
	end += kaq_format_u64(end, data->start_time);
	end = kaq_put_literal(end, ",\"et\":");
	end += kaq_format_u64(end, data->end_time);
	end = kaq_put_literal(end, ",\"mo\":");
	memcpy(written->times, text, sizeof written->times);
	written->times_length = (size_t)(end - text);
	written->start_time = data->start_time;
	written->end_time = data->end_time;
}

static inline char *kaq_put_times(char *out, kaq_written *written, const struct kaq_node_data *data,
								  kaq_span_start start) {
	if (UNEXPECTED(written->start_time != data->start_time || written->end_time != data->end_time ||
				   written->times_length == 0)) {
		kaq_write_times(written, data);
	}
	static_assert(KAQ_SPAN_MEMBERS + KAQ_TIMES_SIZE <= sizeof written->times, "can be read");
	memcpy(out, written->times + start, KAQ_TIMES_SIZE);
	return out + written->times_length - start;
}

static __attribute__((noinline)) void kaq_write_key(kaq_written *written, int key) {
	char digits[KAQ_FORMAT_I64_MAX];
	size_t length = kaq_format_i64(digits, key);
	memcpy(&written->key_digits, digits, sizeof written->key_digits);
	written->key_length = length <= sizeof written->key_digits && key >= 0 ? (unsigned)length : 0;
	written->key = key;
}

/* Of the next key only the last digit differs, but for every tenth. */
static inline char *kaq_put_key(char *out, kaq_written *written, int key) {
	unsigned shift = 8 * (written->key_length - 1);
	if (EXPECTED(written->key_length != 0 && key == written->key + 1 &&
				 (written->key_digits >> shift & 15) != 9)) {
		written->key_digits += (uint64_t)1 << shift;
		written->key = key;
	} else {
		kaq_write_key(written, key);
		if (UNEXPECTED(written->key_length == 0)) {
			return out + kaq_format_i64(out, key);
		}
	}
	memcpy(out, &written->key_digits, sizeof written->key_digits);
	return out + written->key_length;
}

static inline char *kaq_put_span_head(char *out, const struct kaq_node_data *data,
									  kaq_written *written, kaq_span_start start) {
	return kaq_put_key(kaq_put_times(out, written, data, start), written, data->key);
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

static inline kaq_known_name *kaq_known_name_of(kaq_written *written, const kaq_function *fi) {
	uint32_t mixed = (uint32_t)(((uintptr_t)fi->function_name + (uintptr_t)fi->class_name) >> 3);
	return &written->names[mixed * 0x9e3779b1u / (UINT32_MAX / KAQ_KNOWN_NAMES + 1)];
}

/* Begins a span of a function that has none yet in its place, up to its ids. */
static __attribute__((noinline)) char *
kaq_put_new_name(smart_str *out, const kaq_node *node, kaq_written *written, kaq_span_start start) {
	const kaq_function *fi = &node->data.function_info;
	size_t length = ZSTR_LEN(kaq_engine_string(fi->function_name));
	if (fi->class_name) {
		length += ZSTR_LEN(kaq_engine_string(fi->class_name));
	}
	char *end = kaq_buf_reserve(out, KAQ_SPAN_HEAD_ROOM + KAQ_SPAN_IDS_ROOM +
										 2 * KAQ_JSON_ESCAPE_MAX(0) + KAQ_JSON_ESCAPE_MAX(length));
	end = kaq_put_span_head(end, &node->data, written, start);
	const char *name = end;
	end = kaq_put_literal(end, ",\"fn\":\"");
	if (fi->class_name) {
		end = kaq_json_escape_words(end, fi->class_name);
		end = kaq_put_literal(end, "::");
	}
	end = kaq_json_escape_words(end, fi->function_name);
	end = kaq_put_literal(end, "\",\"cn\":\"" KAQ_PHP_COMPONENT "\"");
	*kaq_known_name_of(written, fi) = {fi->class_name, fi->function_name,
									   (size_t)(name - ZSTR_VAL(out->s)), (size_t)(end - name)};
	return end;
}

/* The same members as below, all at once. They are not yet part of the text; returns their end,
 * with room for one character more. */
static inline char *kaq_put_plain_span(smart_str *out, const kaq_node *node, kaq_written *written,
									   kaq_span_start start) {
	const kaq_function *fi = &node->data.function_info;
	const kaq_known_name *known = kaq_known_name_of(written, fi);
	char *end;
	if (EXPECTED(known->function_name == fi->function_name &&
				 known->class_name == fi->class_name)) {
		end = kaq_buf_reserve(out, KAQ_SPAN_HEAD_ROOM + KAQ_SPAN_IDS_ROOM + KAQ_COPY_BLOCK +
									   known->length);
		end = kaq_put_span_head(end, &node->data, written, start);
		kaq_copy_blocks(end, ZSTR_VAL(out->s) + known->start, known->length);
		end += known->length;
	} else {
		end = kaq_put_new_name(out, node, written, start);
	}
	return kaq_put_span_ids(end, fi, node->data.parent);
}

static void kaq_append_span(smart_str *out, const kaq_node *node, kaq_written *written,
							kaq_span_start start) {
	const struct kaq_node_data *data = &node->data;
	const kaq_function *fi = &data->function_info;
	char *end = kaq_buf_reserve(out, KAQ_SPAN_HEAD_ROOM);
	kaq_buf_commit(out, kaq_put_span_head(end, data, written, start));
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

static void kaq_append_root_span(smart_str *out, const kaq_node *node, kaq_written *written,
								 kaq_span_start start) {
	const char *caller = kaq_get_globals()->root_parentspanid;
	kaq_append_span(out, node, written, start);
	if (caller[0]) {
		kaq_append_text(out, ",\"psi\":", caller);
	}
}

void kaq_form_method_info(const kaq_node *node, smart_str *out) {
	kaq_written written = {};
	kaq_append_span(out, node, &written, KAQ_SPAN_MEMBERS);
}

void kaq_form_root_method_info(const kaq_node *node, smart_str *out) {
	kaq_written written = {};
	kaq_append_root_span(out, node, &written, KAQ_SPAN_MEMBERS);
}

/* The known names are most of it, and a root alone needs none. */
static void kaq_clear_written(kaq_written *written, int count) {
	memset(written, 0, count > 1 ? sizeof *written : offsetof(kaq_written, names));
}

void kaq_form_spans(smart_str *out, kaq_node **nodes, int count) {
	kaq_written written;
	kaq_clear_written(&written, count);
	kaq_span_start start = KAQ_FIRST_SPAN;
	kaq_buf_literal(out, ",\"method_info\":{\"span_info\":[");
	for (int key = 0; key < count; key++) {
		const kaq_node *node = nodes[key];
		if (!node) {
			continue;
		}
		if (key == 0) {
			kaq_append_root_span(out, node, &written, start);
			kaq_buf_literal(out, "}");
		} else if (EXPECTED(kaq_is_plain(&node->data.function_info))) {
			char *end = kaq_put_plain_span(out, node, &written, start);
			*end++ = '}';
			kaq_buf_commit(out, end);
		} else {
			kaq_append_span(out, node, &written, start);
			kaq_buf_literal(out, "}");
		}
		start = KAQ_NEXT_SPAN;
	}
	kaq_buf_literal(out, "]}");
}
