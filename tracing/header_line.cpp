#include "tracing/header_line.h"

#include <ctype.h>
#include <string.h>

static void copy_cut(char *dst, size_t size, const char *src, size_t length) {
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
	copy_cut(name, name_size, line, (size_t)(colon - line));
	const char *rest = colon + 1;
	while (isspace((unsigned char)*rest)) {
		rest++;
	}
	copy_cut(value, value_size, rest, strlen(rest));
}
