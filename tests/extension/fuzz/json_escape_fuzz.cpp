/* String escaping against a byte-by-byte reference, in blocks of exactly the promised size. */
#include "json/json_escape.h"

#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <string>

static std::string reference(const uint8_t *data, size_t size) {
	static const char letters[] = "btn\0fr"; /* for the bytes 8 to 13; 11 has none */
	std::string out;
	for (size_t i = 0; i < size; i++) {
		uint8_t c = data[i];
		if (c == '"' || c == '/' || c == '\\') {
			out += '\\';
			out += (char)c;
		} else if (c >= 8 && c <= 13 && letters[c - 8] != '\0') {
			out += '\\';
			out += letters[c - 8];
		} else if (c < 0x20) {
			char six[8];
			snprintf(six, sizeof six, "\\u%04x", c);
			out += six;
		} else {
			out += (char)c;
		}
	}
	return out;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
	char *out = (char *)malloc(KAQ_JSON_ESCAPE_MAX(size));
	size_t length = kaq_json_escape(out, (const char *)data, size);
	std::string expected = reference(data, size);
	if (length != expected.size() || memcmp(out, expected.data(), length) != 0) {
		abort();
	}
	free(out);
	return 0;
}
