#include "util/header_line.h"

#include "util/kaq_strings.h"

#include <ctype.h>
#include <stdio.h>
#include <string.h>

static void kaq_copy_cut(char *dst, size_t size, const char *src, size_t length) {
	if (length > size - 1) {
		length = size - 1;
	}
	memcpy(dst, src, length);
	dst[length] = '\0';
}

void kaq_header_to_keyvalue(const char *line, char *name, size_t name_size, char *value,
							size_t value_size) {
	if (line == nullptr || name == nullptr || value == nullptr || name_size == 0 ||
		value_size == 0 || *line == '\0') {
		return;
	}
	const char *colon = strchr(line, ':');
	if (colon == nullptr) {
		return;
	}
	kaq_copy_cut(name, name_size, line, (size_t)(colon - line));
	const char *rest = colon + 1;
	while (isspace((unsigned char)*rest)) {
		rest++;
	}
	kaq_copy_cut(value, value_size, rest, strlen(rest));
}

char *header_format_name_value(const char *name, const char *value, int crlf) {
	if (name == nullptr || value == nullptr) {
		return nullptr;
	}
	char *line = nullptr;
	return asprintf(&line, "%s: %s%s", name, value, crlf ? "\r\n" : "") < 0 ? nullptr : line;
}

static bool kaq_is_encoded_value_character(char c) {
	return isalnum((unsigned char)c) || (c != '\0' && strchr("+/=_-.,:;%~!*'(){}\"[] \t", c));
}

char *header_extract_encoded_value(const char *key, const char *text) {
	int index = key != nullptr && text != nullptr ? strcaseidx(text, key) : -1;
	if (index < 0) {
		return nullptr;
	}
	const char *begin = text + index + strlen(key);
	begin += strspn(begin, ": \t");
	const char *end = begin;
	while (kaq_is_encoded_value_character(*end)) {
		end++;
	}
	return end > begin ? strndup(begin, (size_t)(end - begin)) : nullptr;
}
