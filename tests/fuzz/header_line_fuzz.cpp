/* Header lines: the parts found in the line again, buffers of exactly the given sizes. */
#include "tracing/header_line.h"

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

/* The first two bytes are the sizes of the buffers, the rest is the line. */
extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
	if (size < 2) {
		return 0;
	}
	size_t name_size = data[0];
	size_t value_size = data[1];
	std::string line((const char *)data + 2, size - 2);
	line = line.c_str();
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
	return 0;
}
