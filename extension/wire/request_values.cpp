#include "wire/request_values.h"

#include "json/json_escape.h"
#include "json/kaq_json.h"
#include "state/php_kaq.h"
#include "tracing/kaq_headers.h"
#include "util/kaq_util_functions.h"
#include "util/known_keys.h"

#include <ctype.h>
#include <stdio.h>

zval *kaq_capture_request_headers(void) {
	return php_call("getallheaders", nullptr, nullptr, nullptr);
}

/* What identifies our own account stays out of payloads. */
const zval *kaq_request_headers(void) {
	zend_kaq_globals *g = kaq_get_globals();
	if (g->is_caller_same_user) {
		SEPARATE_ARRAY(g->request_headers_zv);
		zend_hash_str_del(Z_ARRVAL_P(g->request_headers_zv), "X-Skelvor-Id",
						  strlen("X-Skelvor-Id"));
	}
	return g->request_headers_zv;
}

const zval *kaq_request_parameters(void) {
	return zend_hash_find(&EG(symbol_table), kaq_keys[KAQ_KEY_REQUEST]);
}

char *kaq_get_response_headers(void) {
	zval *headers = kaq_response_headers_zv();
	char *text = kaq_encode_zval_to_json(headers);
	php_zval_free(headers);
	return text;
}

/* More lines are rare, and then an array does it. */
#define KAQ_DIRECT_HEADERS 16

struct kaq_header_part {
	const char *text;
	size_t length;
};

/* Name and value of a header line, cut as kaq_add_header_line cuts them. An empty name: none. */
struct kaq_header {
	kaq_header_part name;
	kaq_header_part value;
};

static kaq_header kaq_split_header(const char *line) {
	const char *colon = line ? strchr(line, ':') : nullptr;
	if (!colon) {
		return {};
	}
	const char *value = colon + 1;
	while (isspace((unsigned char)*value)) {
		value++;
	}
	return {{line, MIN((size_t)(colon - line), (size_t)KAQ_HEADER_NAME_SIZE - 1)},
			{value, strnlen(value, KAQ_HEADER_VALUE_SIZE - 1)}};
}

/* Whether the name would be a key of its own in an array, and no number. */
static bool kaq_is_new_key(const kaq_header *headers, size_t count, kaq_header_part name) {
	if (name.text[0] == '-' || (name.text[0] >= '0' && name.text[0] <= '9')) {
		return false;
	}
	for (size_t i = 0; i < count; i++) {
		if (headers[i].name.length == name.length &&
			memcmp(headers[i].name.text, name.text, name.length) == 0) {
			return false;
		}
	}
	return true;
}

/* Collects the headers; false if there are too many, or two of a name. */
static bool kaq_collect_headers(kaq_header *headers, size_t *count) {
	zend_llist_position position;
	zend_llist *list = &SG(sapi_headers).headers;
	*count = 0;
	for (const void *entry = zend_llist_get_first_ex(list, &position); entry;
		 entry = zend_llist_get_next_ex(list, &position)) {
		kaq_header header = kaq_split_header(((const sapi_header_struct *)entry)->header);
		if (header.name.length == 0) {
			continue;
		}
		if (*count == KAQ_DIRECT_HEADERS || !kaq_is_new_key(headers, *count, header.name)) {
			return false;
		}
		headers[(*count)++] = header;
	}
	return true;
}

static char *kaq_put_text(char *out, kaq_header_part part) {
	*out++ = '"';
	out += kaq_json_escape(out, part.text, part.length);
	*out++ = '"';
	return out;
}

bool kaq_append_response_headers(smart_str *out) {
	kaq_header headers[KAQ_DIRECT_HEADERS];
	size_t count;
	if (!kaq_collect_headers(headers, &count)) {
		zval *map = kaq_response_headers_zv();
		bool appended = kaq_append_json_value(out, map);
		php_zval_free(map);
		return appended;
	}
	for (size_t i = 0; i < count; i++) {
		char *end = kaq_buf_reserve(
			out, KAQ_JSON_ESCAPE_MAX(KAQ_HEADER_NAME_SIZE + KAQ_HEADER_VALUE_SIZE) + 8);
		*end++ = i == 0 ? '{' : ',';
		end = kaq_put_text(end, headers[i].name);
		*end++ = ':';
		kaq_buf_commit(out, kaq_put_text(end, headers[i].value));
	}
	if (count > 0) {
		kaq_buf_literal(out, "}");
	}
	return count > 0;
}

char *kaq_get_cli_args(void) {
	zval *server = &PG(http_globals)[TRACK_VARS_SERVER];
	if (Z_TYPE_P(server) != IS_ARRAY) {
		return nullptr;
	}
	zval *argv = zend_hash_str_find(Z_ARRVAL_P(server), "argv", strlen("argv"));
	if (!argv || Z_TYPE_P(argv) != IS_ARRAY) {
		return nullptr;
	}
	zval args;
	array_init(&args);
	int count = 0;
	zval *element;
	ZEND_HASH_FOREACH_VAL(Z_ARRVAL_P(argv), element) {
		if (php_is_zval_non_empty_string(element)) {
			char key[32];
			snprintf(key, sizeof(key), "$argv[%d]", count++);
			add_assoc_str(&args, key, zend_string_copy(Z_STR_P(element)));
		}
	}
	ZEND_HASH_FOREACH_END();
	char *text = kaq_encode_zval_to_json(&args);
	zval_ptr_dtor(&args);
	return text;
}
