#include "json/json_escape.h"

#include <string.h>

struct escape {
	char text[7];
	unsigned char length; /* 0: the byte stands for itself */
};

struct escape_table {
	escape entry[256];
};

static constexpr escape_table kaq_make_escapes() {
	const char digits[] = "0123456789abcdef";
	escape_table table = {};
	for (unsigned i = 0; i < 0x20; i++) {
		table.entry[i] = {{'\\', 'u', '0', '0', digits[i >> 4], digits[i & 15], 0}, 6};
	}
	table.entry[(unsigned char)'\b'] = {{'\\', 'b'}, 2};
	table.entry[(unsigned char)'\t'] = {{'\\', 't'}, 2};
	table.entry[(unsigned char)'\n'] = {{'\\', 'n'}, 2};
	table.entry[(unsigned char)'\f'] = {{'\\', 'f'}, 2};
	table.entry[(unsigned char)'\r'] = {{'\\', 'r'}, 2};
	table.entry[(unsigned char)'"'] = {{'\\', '"'}, 2};
	table.entry[(unsigned char)'/'] = {{'\\', '/'}, 2};
	table.entry[(unsigned char)'\\'] = {{'\\', '\\'}, 2};
	return table;
}

static constexpr escape_table ESCAPES = kaq_make_escapes();

static inline uint64_t kaq_load_u64(const char *text) {
	uint64_t value;
	memcpy(&value, text, 8);
	return value;
}

static inline uint64_t kaq_load_u32(const char *text) {
	uint32_t value;
	memcpy(&value, text, 4);
	return value;
}

/* The `len` bytes (1 to 15) at `text`, and zeros; reads no byte behind them. */
static inline kaq_block kaq_load_partial(const char *text, size_t len) {
	uint64_t low;
	uint64_t high = 0;
	if (len >= 8) {
		low = kaq_load_u64(text);
		if (len > 8) {
			high = kaq_load_u64(text + len - 8) >> (8 * (16 - len));
		}
	} else if (len >= 4) {
		low = kaq_load_u32(text) | kaq_load_u32(text + len - 4) << (8 * (len - 4));
	} else {
		low = (uint64_t)(unsigned char)text[0] |
			  (uint64_t)(unsigned char)text[len / 2] << (8 * (len / 2)) |
			  (uint64_t)(unsigned char)text[len - 1] << (8 * (len - 1));
	}
	return kaq_block_of(low, high);
}

size_t kaq_json_escape(char *out, const char *text, size_t len) {
	const char *start = out;
	while (len > 0) {
		kaq_block block;
		unsigned mask;
		size_t run;
		if (len >= 16) {
			block = kaq_block_load(text);
			mask = kaq_json_escape_mask(block);
			run = 16;
		} else {
			block = kaq_load_partial(text, len);
			mask = kaq_json_escape_mask(block) & ((1u << len) - 1);
			run = len;
		}
		if (mask != 0) {
			run = (size_t)__builtin_ctz(mask);
		}
		kaq_block_store(out, block);
		text += run;
		out += run;
		len -= run;
		if (mask == 0) {
			continue;
		}
		/* The next byte has to be escaped, and often the one after it too. */
		do {
			const escape *found = &ESCAPES.entry[(unsigned char)*text];
			if (found->length == 0) {
				break;
			}
			memcpy(out, found, sizeof *found);
			out += found->length;
			text++;
			len--;
		} while (len > 0);
	}
	return (size_t)(out - start);
}

char *kaq_json_put_escape(char *out, char byte) {
	const escape *found = &ESCAPES.entry[(unsigned char)byte];
	memcpy(out, found, sizeof *found);
	return out + found->length;
}

static const uint32_t EIGHT_DIGITS = 100000000;

/*
 * The eight decimal digits of a value below 10^8 as eight bytes of 0 to 9, the first digit in the
 * lowest byte: the value is split into halves of four, two and one digits, all halves at once.
 * 10486 / 2^20 and 103 / 2^10 divide by 100 and 10 without loss in the ranges that occur.
 */
static inline uint64_t kaq_eight_digits(uint32_t value) {
	uint64_t fours = value / 10000 | (uint64_t)(value % 10000) << 32;
	uint64_t high = (fours * 10486 >> 20) & 0x0000007f0000007fULL;
	uint64_t twos = high | (fours - 100 * high) << 16;
	uint64_t tens = (twos * 103 >> 10) & 0x000f000f000f000fULL;
	return tens | (twos - 10 * tens) << 8;
}

static inline void kaq_put_eight_digits(char *out, uint64_t digits) {
	digits |= 0x3030303030303030ULL;
	memcpy(out, &digits, sizeof digits);
}

/* A value below 10^8 without leading zeros. */
static inline size_t kaq_put_short_number(char *out, uint32_t value) {
	uint64_t digits = kaq_eight_digits(value);
	unsigned zeros = (unsigned)__builtin_ctzll(digits | 1ULL << 56) / 8;
	digits |= 0x3030303030303030ULL;
	digits >>= 8 * zeros;
	memcpy(out, &digits, sizeof digits);
	return 8 - zeros;
}

size_t kaq_format_u64(char *out, uint64_t value) {
	if (value < 10) {
		*out = (char)('0' + value);
		return 1;
	}
	if (value < EIGHT_DIGITS) {
		return kaq_put_short_number(out, (uint32_t)value);
	}
	size_t length = 0;
	uint64_t upper = value / EIGHT_DIGITS;
	if (upper >= EIGHT_DIGITS) {
		length = kaq_put_short_number(out, (uint32_t)(upper / EIGHT_DIGITS));
		kaq_put_eight_digits(out + length, kaq_eight_digits((uint32_t)(upper % EIGHT_DIGITS)));
		length += 8;
	} else {
		length = kaq_put_short_number(out, (uint32_t)upper);
	}
	kaq_put_eight_digits(out + length, kaq_eight_digits((uint32_t)(value % EIGHT_DIGITS)));
	return length + 8;
}

size_t kaq_format_i64(char *out, int64_t value) {
	if (value >= 0) {
		return kaq_format_u64(out, (uint64_t)value);
	}
	*out = '-';
	return 1 + kaq_format_u64(out + 1, 0 - (uint64_t)value);
}
