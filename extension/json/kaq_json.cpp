#include "json/kaq_json.h"

#include "json/json_bounds.h"
#include "json/json_escape.h"
#include "util/kaq_strings.h"
#include "util/kaq_util_functions.h"

#include <math.h>
#include <stdlib.h>

/* Text is escaped in blocks, so that the room reserved for the worst case stays small. */
#define KAQ_ESCAPE_BLOCK 4096

/* Strings shorter than this are escaped without looking for their end first. */
#define KAQ_WORDS_AT_MOST 16

void kaq_buf_grow(smart_str *buffer, size_t extra) {
	size_t wanted = kaq_buf_length(buffer) + extra;
	smart_str_realloc(buffer, wanted > 2 * buffer->a ? wanted : 2 * buffer->a);
}

void kaq_buf_terminate(smart_str *buffer) {
	*kaq_buf_reserve(buffer, 1) = '\0';
}

void kaq_buf_reset(smart_str *buffer, size_t most) {
	if (buffer->a > most) {
		kaq_buf_free(buffer);
	} else if (buffer->s) {
		ZSTR_LEN(buffer->s) = 0;
	}
}

void kaq_buf_free(smart_str *buffer) {
	if (buffer->s) {
		zend_string_release(buffer->s);
		buffer->s = nullptr;
	}
	buffer->a = 0;
}

static void kaq_buf_append_char(smart_str *buffer, char character) {
	*kaq_buf_reserve(buffer, 1) = character;
	ZSTR_LEN(buffer->s)++;
}

static void kaq_append_escaped(smart_str *buffer, const char *text, size_t left) {
	while (left > 0) {
		size_t block = left < KAQ_ESCAPE_BLOCK ? left : KAQ_ESCAPE_BLOCK;
		char *out = kaq_buf_reserve(buffer, KAQ_JSON_ESCAPE_MAX(block));
		kaq_buf_commit(buffer, out + kaq_json_escape(out, text, block));
		text += block;
		left -= block;
	}
}

void kaq_append_as_json_compatible_string(smart_str *buffer, const char *text) {
	if (text) {
		kaq_append_escaped(buffer, text, strlen(text));
	}
}

void kaq_append_as_json_compatible_string_withquotes(smart_str *buffer, const char *text) {
	size_t length = text ? strlen(text) : 0;
	if (length <= KAQ_ESCAPE_BLOCK) {
		char *out = kaq_buf_reserve(buffer, KAQ_JSON_ESCAPE_MAX(length) + 2);
		*out++ = '"';
		out += kaq_json_escape(out, text, length);
		*out++ = '"';
		kaq_buf_commit(buffer, out);
		return;
	}
	kaq_buf_append_char(buffer, '"');
	kaq_append_escaped(buffer, text, length);
	kaq_buf_append_char(buffer, '"');
}

void kaq_append_unsigned_long_long(smart_str *buffer, uint64_t value) {
	char *out = kaq_buf_reserve(buffer, KAQ_FORMAT_U64_MAX);
	kaq_buf_commit(buffer, out + kaq_format_u64(out, value));
}

void kaq_append_signed(smart_str *buffer, int64_t value) {
	char *out = kaq_buf_reserve(buffer, KAQ_FORMAT_I64_MAX);
	kaq_buf_commit(buffer, out + kaq_format_i64(out, value));
}

void kaq_append_as_json_key_value(smart_str *, const char *, const char *, int, int) {
}

static void kaq_append_double(smart_str *buffer, double value) {
	if (!isfinite(value)) {
		kaq_buf_literal(buffer, "null");
		return;
	}
	char text[64];
	php_gcvt(value, 14, '.', 'e', text);
	kaq_buf_append(buffer, text, strlen(text));
}

static bool kaq_is_json_list(HashTable *table) {
	zend_ulong expected = 0;
	zend_ulong index;
	zend_string *key;
	ZEND_HASH_FOREACH_KEY(table, index, key) {
		if (key || index != expected) {
			return false;
		}
		expected++;
	}
	ZEND_HASH_FOREACH_END();
	return true;
}

/* A string of the engine between quotes, up to its first NUL. */
static void kaq_append_string(smart_str *buffer, const zend_string *text) {
	if (ZSTR_LEN(text) < KAQ_WORDS_AT_MOST) {
		char *out = kaq_buf_reserve(buffer, KAQ_JSON_ESCAPE_MAX(KAQ_WORDS_AT_MOST) + 2);
		*out++ = '"';
		out = kaq_json_escape_words(out, ZSTR_VAL(text));
		*out++ = '"';
		kaq_buf_commit(buffer, out);
	} else {
		kaq_append_as_json_compatible_string_withquotes(buffer, ZSTR_VAL(text));
	}
}

static void kaq_append_key(smart_str *buffer, const zend_string *key, zend_ulong index) {
	if (key) {
		kaq_append_string(buffer, key);
	} else {
		kaq_buf_append_char(buffer, '"');
		kaq_append_unsigned_long_long(buffer, index);
		kaq_buf_append_char(buffer, '"');
	}
	kaq_buf_append_char(buffer, ':');
}

static void kaq_append_array(smart_str *buffer, HashTable *table, int depth) {
	bool is_list = kaq_is_json_list(table);
	bool is_first = true;
	zend_ulong index;
	zend_string *key;
	zval *element;
	kaq_buf_append_char(buffer, is_list ? '[' : '{');
	ZEND_HASH_FOREACH_KEY_VAL(table, index, key, element) {
		if (kaq_buf_length(buffer) > KAQ_JSON_MAX_TEXT) {
			return;
		}
		if (!is_first) {
			kaq_buf_append_char(buffer, ',');
		}
		is_first = false;
		if (!is_list) {
			kaq_append_key(buffer, key, index);
		}
		kaq_encode_zval_to_json_internal(element, buffer, depth + 1);
	}
	ZEND_HASH_FOREACH_END();
	kaq_buf_append_char(buffer, is_list ? ']' : '}');
}

void kaq_encode_zval_to_json_internal(const zval *value, smart_str *buffer, int depth) {
	if (depth > KAQ_JSON_MAX_DEPTH || !value) {
		kaq_buf_literal(buffer, "null");
		return;
	}
	switch (Z_TYPE_P(value)) {
	case IS_FALSE:
		kaq_buf_literal(buffer, "false");
		break;
	case IS_TRUE:
		kaq_buf_literal(buffer, "true");
		break;
	case IS_LONG:
		kaq_append_signed(buffer, Z_LVAL_P(value));
		break;
	case IS_DOUBLE:
		kaq_append_double(buffer, Z_DVAL_P(value));
		break;
	case IS_STRING:
		kaq_append_string(buffer, Z_STR_P(value));
		break;
	case IS_ARRAY:
		kaq_append_array(buffer, Z_ARRVAL_P(value), depth);
		break;
	case IS_OBJECT:
		kaq_buf_literal(buffer, "\"[object]\"");
		break;
	case IS_RESOURCE:
		kaq_buf_literal(buffer, "\"[resource]\"");
		break;
	default: /* null, undefined, a reference or an engine-internal type */
		kaq_buf_literal(buffer, "null");
		break;
	}
}

char *kaq_encode_zval_to_json(const zval *value) {
	if (!value) {
		return nullptr;
	}
	smart_str buffer = {nullptr, 0};
	kaq_encode_zval_to_json_internal(value, &buffer, 0);
	char *text = nullptr;
	if (kaq_buf_length(&buffer) > 0 && kaq_buf_length(&buffer) <= KAQ_JSON_MAX_TEXT) {
		kaq_buf_terminate(&buffer);
		text = kaq_strdup(ZSTR_VAL(buffer.s));
	}
	kaq_buf_free(&buffer);
	return text;
}

/* In place, unless the buffer gets so long that a large value might have been left incomplete. */
bool kaq_append_json_value(smart_str *buffer, const zval *value) {
	if (!value) {
		return false;
	}
	size_t start = kaq_buf_length(buffer);
	kaq_encode_zval_to_json_internal(value, buffer, 0);
	if (EXPECTED(kaq_buf_length(buffer) <= KAQ_JSON_MAX_TEXT)) {
		return true;
	}
	kaq_buf_cut(buffer, start);
	char *text = kaq_encode_zval_to_json(value);
	if (text) {
		kaq_buf_append(buffer, text, strlen(text));
	}
	free(text);
	return text != nullptr;
}

zval *kaq_json_decode(zval *text, bool has_json_decode) {
	if (!text || !has_json_decode) {
		return nullptr;
	}
	return php_call("json_decode", text, nullptr, nullptr);
}

/* The script's json_last_error() must not report that our text could not be decoded. */
static void kaq_clear_decoder_error(void) {
	zval text;
	ZVAL_STRING(&text, "0");
	php_zval_free(kaq_json_decode(&text, true));
	zval_ptr_dtor(&text);
}

zval *kaq_decode_json_object(const char *json, bool has_json_decode) {
	size_t length = strlen(json);
	if (!has_json_decode || !kaq_json_is_within(json, length, &KAQ_DECODE_BOUNDS)) {
		return nullptr;
	}
	zval text;
	ZVAL_STRINGL(&text, json, length);
	zval *decoded = kaq_json_decode(&text, true);
	zval_ptr_dtor(&text);
	if (decoded && Z_TYPE_P(decoded) != IS_OBJECT) {
		kaq_clear_decoder_error();
		kaq_zval_release(&decoded);
	}
	return decoded;
}
