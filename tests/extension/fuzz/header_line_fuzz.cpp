/*
 * Header lines: the parts found in the line again, buffers of exactly the given sizes; a line put
 * together taken apart again; the value behind a key.
 */
#include "util/header_line.h"

#include <ctype.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>
#include <string>

static void require(bool condition) {
	if (!condition) {
		abort();
	}
}

static void split(const std::string &line, size_t name_size, size_t value_size) {
	char *name = (char *)malloc(name_size + 1);
	char *value = (char *)malloc(value_size + 1);
	memset(name, '!', name_size + 1);
	memset(value, '!', value_size + 1);
	kaq_header_to_keyvalue(line.c_str(), name, name_size, value, value_size);
	require(name[name_size] == '!' && value[value_size] == '!');
	size_t colon = line.find(':');
	if (colon == std::string::npos || name_size == 0 || value_size == 0) {
		require(name[0] == '!' && value[0] == '!');
	} else {
		size_t begin = colon + 1;
		while (isspace((unsigned char)line.c_str()[begin])) {
			begin++;
		}
		require(line.substr(0, colon).substr(0, name_size - 1) == name);
		require(line.substr(begin).substr(0, value_size - 1) == value);
	}
	free(name);
	free(value);
}

static void join(const std::string &name, const std::string &value) {
	char *line = header_format_name_value(name.c_str(), value.c_str(), 0);
	char *ended = header_format_name_value(name.c_str(), value.c_str(), 1);
	require(line && name + ": " + value == line);
	require(ended && name + ": " + value + "\r\n" == ended);
	free(line);
	free(ended);
}

static std::string lower(std::string text) {
	for (char &c : text) {
		c = c >= 'A' && c <= 'Z' ? (char)(c + 32) : c;
	}
	return text;
}

static void extract(const std::string &key, const std::string &text) {
	static const char run[] = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789"
							  "+/=_-.,:;%~!*'(){}\"[] \t";
	char *value = header_extract_encoded_value(key.c_str(), text.c_str());
	size_t found = lower(text).find(lower(key));
	std::string expected;
	if (found != std::string::npos) {
		size_t begin = text.find_first_not_of(": \t", found + key.size());
		if (begin != std::string::npos) {
			size_t end = text.find_first_not_of(run, begin);
			expected = text.substr(begin, end == std::string::npos ? end : end - begin);
		}
	}
	require(value ? expected == value : expected.empty());
	free(value);
}

/* The first two bytes are the sizes of the buffers, the rest is the line. What stands before its
 * first slash is the key. */
extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
	if (size < 2) {
		return 0;
	}
	std::string line((const char *)data + 2, size - 2);
	line = line.c_str();
	split(line, data[0], data[1]);
	size_t slash = line.find('/');
	if (slash != std::string::npos) {
		join(line.substr(0, slash), line.substr(slash + 1));
		extract(line.substr(0, slash), line.substr(slash + 1));
	}
	return 0;
}
