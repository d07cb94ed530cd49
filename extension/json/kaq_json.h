/*
 * JSON text as the collector expects it. Every text that the extension sends is written with these
 * functions, straight into a growable buffer.
 *
 * Differs from a general JSON writer on purpose: bytes above 0x7E pass raw and unchecked, the
 * solidus is always escaped, objects and resources become marker strings, references become null,
 * negative integer keys are printed unsigned.
 *
 * Buffers are the engine's smart_str on the process heap, so that a large payload neither counts
 * against the script's memory limit nor shows in its memory figures. An empty buffer is {0}. No
 * function here writes a terminating NUL; kaq_buf_terminate() does. Release with kaq_buf_free().
 */
#pragma once

#include "util/engine_compat.h"

#include <stdint.h>
#include <string.h>

/* Values nested deeper than this are written as null. */
#define KAQ_JSON_MAX_DEPTH 32
/* A value whose text would grow beyond this counts as absent. */
#define KAQ_JSON_MAX_TEXT ((size_t)128 * 1024 * 1024)

/* Enlarges a buffer that has no room for `extra` more bytes; growth is geometric. */
void kaq_buf_grow(smart_str *buffer, size_t extra);

static inline size_t kaq_buf_length(const smart_str *buffer) {
	return buffer->s ? ZSTR_LEN(buffer->s) : 0;
}

/* Makes room for `extra` more bytes and returns where they go. */
static inline char *kaq_buf_reserve(smart_str *buffer, size_t extra) {
	if (UNEXPECTED(!buffer->s || ZSTR_LEN(buffer->s) + extra >= buffer->a)) {
		kaq_buf_grow(buffer, extra);
	}
	return ZSTR_VAL(buffer->s) + ZSTR_LEN(buffer->s);
}

/* Makes what was written into the reserved room, up to `end`, part of the text. */
static inline void kaq_buf_commit(smart_str *buffer, const char *end) {
	ZSTR_LEN(buffer->s) = (size_t)(end - ZSTR_VAL(buffer->s));
}

static inline void kaq_buf_append(smart_str *buffer, const char *text, size_t length) {
	char *out = kaq_buf_reserve(buffer, length);
	/* The analyzer takes the text of a zend_string behind an offset for a null pointer. */
	/* NOLINTNEXTLINE(clang-analyzer-core.NonNullParamChecker) */
	kaq_buf_commit(buffer, (char *)memcpy(out, text, length) + length);
}

/* Appends a string literal. */
template <size_t size>
static inline void kaq_buf_literal(smart_str *buffer, const char (&text)[size]) {
	kaq_buf_append(buffer, text, size - 1);
}

/* Writes a string literal into reserved room and returns its end. */
template <size_t size> static inline char *kaq_put_literal(char *out, const char (&text)[size]) {
	return (char *)memcpy(out, text, size - 1) + size - 1;
}

/* Shortens the text. REQUIRES: it has at least `length` bytes, and the buffer is not empty. */
static inline void kaq_buf_cut(smart_str *buffer, size_t length) {
	ZSTR_LEN(buffer->s) = length;
}

void kaq_buf_terminate(smart_str *buffer);
/* Empties the buffer. Its memory is kept for the next text unless it is more than `most` bytes. */
void kaq_buf_reset(smart_str *buffer, size_t most);
void kaq_buf_free(smart_str *buffer);

/* A NUL-terminated string as JSON string content; null and "" append nothing. */
void kaq_append_as_json_compatible_string(smart_str *buffer, const char *text);
/* The same between double quotes; null and "" give an empty JSON string. */
void kaq_append_as_json_compatible_string_withquotes(smart_str *buffer, const char *text);
void kaq_append_unsigned_long_long(smart_str *buffer, uint64_t value);
void kaq_append_signed(smart_str *buffer, int64_t value);

/* Reserved; does nothing. Interface: kept for callers outside. */
void kaq_append_as_json_key_value(smart_str *buffer, const char *key, const char *value, int a,
								  int b);

/* Appends the JSON text of a value; depth is 0 at the top. */
void kaq_encode_zval_to_json_internal(const zval *value, smart_str *buffer, int depth);
/* The JSON text of a value as a new heap string (release with free). Null for a null pointer and
 * for a text longer than KAQ_JSON_MAX_TEXT. */
char *kaq_encode_zval_to_json(const zval *value);
/* Appends the same text. False, with nothing appended, where that function returns null. */
bool kaq_append_json_value(smart_str *buffer, const zval *value);

/* Decodes JSON text with the engine's json_decode. A new value (php_zval_free), or null when `text`
 * is null or `has_json_decode` is false. */
zval *kaq_json_decode(zval *text, bool has_json_decode);

/* The same for a text that others have sent: null unless it is within KAQ_DECODE_BOUNDS and decodes
 * to an object. The script's json_last_error() shows no trace of it. */
zval *kaq_decode_json_object(const char *json, bool has_json_decode);
