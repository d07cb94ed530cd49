#include "wire/kaq_base64.h"

#include <stdint.h>
#include <stdlib.h>
#include <string.h>
#ifdef __x86_64__
#include <immintrin.h>
#endif

static constexpr char ALPHABET[] =
	"ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

static const unsigned char INVALID = 0x80;

struct pair_table {
	uint16_t pair[4096]; /* two characters per 12 bits, the first one in the low byte */
};

static constexpr pair_table kaq_make_pairs() {
	pair_table table = {};
	for (unsigned i = 0; i < 4096; i++) {
		table.pair[i] =
			(uint16_t)((unsigned char)ALPHABET[i >> 6] | (unsigned char)ALPHABET[i & 63] << 8);
	}
	return table;
}

struct value_table {
	unsigned char value[256];
};

static constexpr value_table kaq_make_values() {
	value_table table = {};
	for (unsigned i = 0; i < 256; i++) {
		table.value[i] = INVALID;
	}
	for (unsigned i = 0; i < 64; i++) {
		table.value[(unsigned char)ALPHABET[i]] = (unsigned char)i;
	}
	table.value[(unsigned char)'='] = 0;
	return table;
}

static constexpr pair_table PAIRS = kaq_make_pairs();
static constexpr value_table VALUES = kaq_make_values();

/* Four characters for the low 24 bits of `bits`. */
static inline void kaq_put_group(char *out, uint32_t bits) {
	uint32_t chars = PAIRS.pair[bits >> 12 & 4095] | (uint32_t)PAIRS.pair[bits & 4095] << 16;
	memcpy(out, &chars, 4);
}

size_t kaq_base64_encode_scalar(char *out, const unsigned char *src, size_t len) {
	const char *start = out;
	/* Eight bytes are loaded for the six that are used. */
	for (; len >= 8; src += 6, len -= 6, out += 8) {
		uint64_t bits;
		memcpy(&bits, src, 8);
		bits = __builtin_bswap64(bits);
		uint64_t chars = (uint64_t)PAIRS.pair[bits >> 52] |
						 (uint64_t)PAIRS.pair[bits >> 40 & 4095] << 16 |
						 (uint64_t)PAIRS.pair[bits >> 28 & 4095] << 32 |
						 (uint64_t)PAIRS.pair[bits >> 16 & 4095] << 48;
		memcpy(out, &chars, 8);
	}
	for (; len >= 3; src += 3, len -= 3, out += 4) {
		kaq_put_group(out, (uint32_t)src[0] << 16 | (uint32_t)src[1] << 8 | src[2]);
	}
	if (len > 0) {
		kaq_put_group(out, (uint32_t)src[0] << 16 | (len == 2 ? (uint32_t)src[1] << 8 : 0));
		out[3] = '=';
		if (len == 1) {
			out[2] = '=';
		}
		out += 4;
	}
	return (size_t)(out - start);
}

#ifdef __x86_64__
/* One 6-bit value per byte for the 24 input bytes in the middle. */
__attribute__((target("avx2"))) static inline __m256i kaq_split_sextets(__m256i in) {
	const __m256i spread =
		_mm256_setr_epi8(5, 4, 6, 5, 8, 7, 9, 8, 11, 10, 12, 11, 14, 13, 15, 14, /* second lane: */
						 1, 0, 2, 1, 4, 3, 5, 4, 7, 6, 8, 7, 10, 9, 11, 10);
	in = _mm256_shuffle_epi8(in, spread);
	__m256i first_third = _mm256_mulhi_epu16(_mm256_and_si256(in, _mm256_set1_epi32(0x0fc0fc00)),
											 _mm256_set1_epi32(0x04000040));
	__m256i second_fourth = _mm256_mullo_epi16(_mm256_and_si256(in, _mm256_set1_epi32(0x003f03f0)),
											   _mm256_set1_epi32(0x01000010));
	return _mm256_or_si256(first_third, second_fourth);
}

/* Adds to each value the distance to its character, looked up by the run of the alphabet it is in.
 */
__attribute__((target("avx2"))) static inline __m256i kaq_sextets_to_chars(__m256i values) {
	const __m256i distance = _mm256_broadcastsi128_si256(
		_mm_setr_epi8('A', 'a' - 26, '0' - 52, '0' - 52, '0' - 52, '0' - 52, '0' - 52, '0' - 52,
					  '0' - 52, '0' - 52, '0' - 52, '0' - 52, '+' - 62, '/' - 63, 0, 0));
	__m256i run = _mm256_subs_epu8(values, _mm256_set1_epi8(51));
	/* A comparison that holds gives -1. */
	run = _mm256_sub_epi8(run, _mm256_cmpgt_epi8(values, _mm256_set1_epi8(25)));
	return _mm256_add_epi8(values, _mm256_shuffle_epi8(distance, run));
}

__attribute__((target("avx2"))) size_t kaq_base64_encode_avx2(char *out, const unsigned char *src,
															  size_t len) {
	const char *start = out;
	/* Each step loads four bytes before and four behind the 24 that it uses. */
	if (len >= 6 + 28) {
		out += kaq_base64_encode_scalar(out, src, 6);
		src += 6;
		len -= 6;
#pragma GCC unroll 2
		for (; len >= 28; src += 24, len -= 24, out += 32) {
			__m256i in = _mm256_loadu_si256((const __m256i *)(src - 4));
			_mm256_storeu_si256((__m256i *)out, kaq_sextets_to_chars(kaq_split_sextets(in)));
		}
	}
	return (size_t)(out - start) + kaq_base64_encode_scalar(out, src, len);
}

int kaq_base64_has_avx2(void) {
	return __builtin_cpu_supports("avx2") != 0;
}
#else
size_t kaq_base64_encode_avx2(char *out, const unsigned char *src, size_t len) {
	return kaq_base64_encode_scalar(out, src, len);
}

int kaq_base64_has_avx2(void) {
	return 0;
}
#endif

char *kaq_base64_encode_line(char **line, size_t *room, const char *src, size_t len) {
	/* The multiplication wraps for huge lengths, and the sum then lies below len. */
	size_t size = len * 4 / 3 + 6;
	if (size < len) {
		return nullptr;
	}
	if (size > *room) {
		char *larger = (char *)malloc(size);
		if (larger == nullptr) {
			return nullptr;
		}
		free(*line);
		*line = larger;
		*room = size;
	}
	char *out = *line;
	const unsigned char *bytes = (const unsigned char *)src;
	size_t used = kaq_base64_has_avx2() ? kaq_base64_encode_avx2(out, bytes, len)
										: kaq_base64_encode_scalar(out, bytes, len);
	out[used] = '\n';
	out[used + 1] = '\0';
	return out;
}

char *kaq_base64_encode_with_newline(const char *src, size_t len) {
	char *line = nullptr;
	size_t room = 0;
	return kaq_base64_encode_line(&line, &room, src, len);
}

/* Writes the bytes of a group that its padding leaves; returns 0 when there is too much padding. */
static int kaq_put_decoded(unsigned char *out, uint32_t bits, int pads) {
	if (pads > 2) {
		return 0;
	}
	out[0] = (unsigned char)(bits >> 16);
	if (pads < 2) {
		out[1] = (unsigned char)(bits >> 8);
	}
	if (pads < 1) {
		out[2] = (unsigned char)bits;
	}
	return 1;
}

unsigned char *kaq_base64_decode(const unsigned char *src, size_t len) {
	size_t valid = 0;
	for (size_t i = 0; i < len; i++) {
		valid += VALUES.value[src[i]] != INVALID;
	}
	if (valid == 0 || valid % 4 != 0) {
		return nullptr;
	}
	unsigned char *decoded = (unsigned char *)calloc(valid / 4, 3);
	if (decoded == nullptr) {
		return nullptr;
	}
	unsigned char *out = decoded;
	uint32_t bits = 0;
	int in_group = 0;
	int pads = 0;
	for (size_t i = 0; i < len; i++) {
		unsigned char value = VALUES.value[src[i]];
		if (value == INVALID) {
			continue;
		}
		pads += src[i] == '=';
		bits = bits << 6 | value;
		if (++in_group < 4) {
			continue;
		}
		if (!kaq_put_decoded(out, bits, pads)) {
			free(decoded);
			return nullptr;
		}
		if (pads > 0) {
			break;
		}
		out += 3;
		in_group = 0;
	}
	return decoded;
}
