#include "util/kaq_strings.h"

#include <stdlib.h>
#include <string.h>

static inline unsigned char kaq_fold(char c) {
	return c >= 'A' && c <= 'Z' ? (unsigned char)(c + 32) : (unsigned char)c;
}

static int kaq_starts_with(const char *text, const char *needle, size_t needle_length) {
	for (size_t i = 0; i < needle_length; i++) {
		/* Also ends at a text's NUL, which no character of the needle equals. */
		if (kaq_fold(text[i]) != kaq_fold(needle[i])) {
			return 0;
		}
	}
	return 1;
}

int strcaseidx(const char *text, const char *needle) {
	if (text == nullptr || needle == nullptr) {
		return -1;
	}
	size_t needle_length = strlen(needle);
	size_t i = 0;
	do {
		if (kaq_starts_with(text + i, needle, needle_length)) {
			return (int)i;
		}
	} while (text[i++] != '\0');
	return -1;
}

int strncaseidx(const char *text, const char *needle, size_t length) {
	if (text == nullptr || needle == nullptr) {
		return -1;
	}
	size_t needle_length = strlen(needle);
	if (needle_length == 0 || needle_length > length) {
		return -1;
	}
	for (size_t i = 0; i <= length - needle_length; i++) {
		if (kaq_starts_with(text + i, needle, needle_length)) {
			return (int)i;
		}
	}
	return -1;
}

static char *kaq_copy_of(const char *text, size_t length) {
	char *copy = (char *)malloc(length + 1);
	if (copy != nullptr) {
		memcpy(copy, text, length);
		copy[length] = '\0';
	}
	return copy;
}

char *substr(const char *text, int start, int end) {
	if (text == nullptr || start < 0 || end < start) {
		return nullptr;
	}
	size_t begin = strnlen(text, (size_t)start);
	return kaq_copy_of(text + begin, strnlen(text + begin, (size_t)(end - start)));
}

char *kaq_strdup(const char *text) {
	return text == nullptr ? nullptr : kaq_copy_of(text, strlen(text));
}

void kaq_copy_bounded(char *dst, size_t capacity, const char *src) {
	if (dst == nullptr || capacity == 0) {
		return;
	}
	size_t length = src == nullptr || *src == '\0' ? 0 : strnlen(src, capacity - 1);
	if (length > 0) {
		memcpy(dst, src, length);
	}
	dst[length] = '\0';
}
