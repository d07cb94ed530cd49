/*
 * Base64: what is encoded decodes to itself, both inner loops agree, and the decoder survives
 * whatever it is given.
 */
#include "wire/kaq_base64.h"

#include <stdint.h>
#include <stdlib.h>
#include <string.h>

static void require(bool condition) {
	if (!condition) {
		abort();
	}
}

static void loops_agree(const uint8_t *data, size_t size, const char *encoded) {
	size_t room = (size + 2) / 3 * 4;
	char *out = (char *)malloc(room);
	require(kaq_base64_encode_scalar(out, data, size) == room);
	require(memcmp(out, encoded, room) == 0);
	if (kaq_base64_has_avx2()) {
		memset(out, 0, room);
		require(kaq_base64_encode_avx2(out, data, size) == room);
		require(memcmp(out, encoded, room) == 0);
	}
	free(out);
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
	if (size == 0) {
		return 0;
	}
	char *encoded = kaq_base64_encode_with_newline((const char *)data, size);
	size_t length = strlen(encoded);
	require(length == (size + 2) / 3 * 4 + 1);
	require(strchr(encoded, '\n') == encoded + length - 1);
	loops_agree(data, size, encoded);
	unsigned char *decoded = kaq_base64_decode((const unsigned char *)encoded, length);
	require(decoded != nullptr && memcmp(decoded, data, size) == 0);
	free(decoded);
	free(encoded);
	free(kaq_base64_decode(data, size));
	return 0;
}
