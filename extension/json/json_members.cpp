#include "json/json_members.h"

#include <stdlib.h>
#include <string.h>

/* More digits might not fit. */
#define KAQ_PLAIN_MAX_DIGITS 18

static const char *kaq_skip_blanks(const char *at) {
	while (*at == ' ' || *at == '\n' || *at == '\t' || *at == '\r') {
		at++;
	}
	return at;
}

static bool kaq_is_digit(char character) {
	return character >= '0' && character <= '9';
}

/* The character that follows a backslash, as what it stands for; NUL for any other escape. */
static char kaq_escaped_character(char character) {
	switch (character) {
	case '"':
	case '\\':
	case '/':
		return character;
	case 'b':
		return '\b';
	case 'f':
		return '\f';
	case 'n':
		return '\n';
	case 'r':
		return '\r';
	case 't':
		return '\t';
	default:
		return '\0';
	}
}

struct plain_table {
	bool is_plain[256]; /* stands for itself in a plain string */
};

static constexpr plain_table kaq_make_plain() {
	plain_table table = {};
	for (int c = ' '; c <= '~'; c++) {
		table.is_plain[c] = c != '"' && c != '\\';
	}
	return table;
}

static constexpr plain_table PLAIN = kaq_make_plain();

/* Reads on from an opening quote, past the closing one; null if the string is not plain. */
static const char *kaq_read_string(const char *at, kaq_json_member *out) {
	if (*at != '"') {
		return nullptr;
	}
	out->kind = KAQ_JSON_STRING;
	out->text = ++at;
	out->has_escapes = false;
	for (;; at++) {
		if (PLAIN.is_plain[(unsigned char)*at]) {
			continue;
		}
		if (*at == '"') {
			out->length = (size_t)(at - out->text);
			return at + 1;
		}
		out->has_escapes = true;
		if (*at != '\\' || !kaq_escaped_character(*++at)) {
			return nullptr;
		}
	}
}

static const char *kaq_read_integer(const char *at, kaq_json_member *out) {
	const char *begin = at;
	int64_t value = 0;
	while (kaq_is_digit(*at) && at - begin < KAQ_PLAIN_MAX_DIGITS) {
		value = 10 * value + (*at++ - '0');
	}
	if (*begin == '0' && at - begin > 1) {
		return nullptr;
	}
	out->kind = KAQ_JSON_INTEGER;
	out->integer = value;
	return at;
}

template <size_t size>
static const char *kaq_read_word(const char *at, const char (&word)[size], kaq_json_member *out) {
	out->kind = KAQ_JSON_OTHER;
	return strncmp(at, word, size - 1) == 0 ? at + size - 1 : nullptr;
}

static const char *kaq_read_value(const char *at, kaq_json_member *out) {
	switch (*at) {
	case '"':
		return kaq_read_string(at, out);
	case 't':
		return kaq_read_word(at, "true", out);
	case 'f':
		return kaq_read_word(at, "false", out);
	case 'n':
		return kaq_read_word(at, "null", out);
	default:
		return kaq_is_digit(*at) ? kaq_read_integer(at, out) : nullptr;
	}
}

static kaq_json_member *kaq_find_wanted(const kaq_json_member *name, kaq_json_member *wanted,
										size_t count) {
	for (size_t i = 0; i < count; i++) {
		if (wanted[i].name[0] == name->text[0] &&
			strncmp(wanted[i].name, name->text, name->length) == 0 &&
			wanted[i].name[name->length] == '\0') {
			return &wanted[i];
		}
	}
	return nullptr;
}

/* Reads on from a member's name, past its value. */
static const char *kaq_read_member(const char *at, kaq_json_member *wanted, size_t count) {
	kaq_json_member name;
	kaq_json_member unwanted;
	at = kaq_read_string(at, &name);
	if (!at || name.has_escapes) {
		return nullptr;
	}
	at = kaq_skip_blanks(at);
	if (*at != ':') {
		return nullptr;
	}
	kaq_json_member *member = kaq_find_wanted(&name, wanted, count);
	return kaq_read_value(kaq_skip_blanks(at + 1), member ? member : &unwanted);
}

bool kaq_json_read_plain(const char *text, kaq_json_member *wanted, size_t count) {
	if (strnlen(text, KAQ_PLAIN_MAX_LENGTH + 1) > KAQ_PLAIN_MAX_LENGTH) {
		return false;
	}
	for (size_t i = 0; i < count; i++) {
		wanted[i].kind = KAQ_JSON_OTHER;
	}
	const char *at = kaq_skip_blanks(text);
	int members = 0;
	if (*at != '{') {
		return false;
	}
	do {
		at = kaq_read_member(kaq_skip_blanks(at + 1), wanted, count);
		if (!at || ++members > KAQ_PLAIN_MAX_MEMBERS) {
			return false;
		}
		at = kaq_skip_blanks(at);
	} while (*at == ',');
	return *at == '}' && *kaq_skip_blanks(at + 1) == '\0';
}

char *kaq_json_copy_string(const kaq_json_member *member) {
	char *copy = (char *)malloc(member->length + 1);
	if (!copy) {
		return nullptr;
	}
	if (!member->has_escapes) {
		memcpy(copy, member->text, member->length);
		copy[member->length] = '\0';
		return copy;
	}
	char *out = copy;
	for (size_t at = 0; at < member->length; at++) {
		char character = member->text[at];
		*out++ = character == '\\' ? kaq_escaped_character(member->text[++at]) : character;
	}
	*out = '\0';
	return copy;
}
