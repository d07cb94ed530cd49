/*
 * The inner loops of all JSON that goes to the collector: string content and decimal numbers,
 * written into room that the caller has reserved. No allocation, no state; any thread.
 */
#pragma once

#include "util/byte_block.h"

#include <stddef.h>
#include <stdint.h>
#include <string.h>

/* Room that kaq_json_escape needs for `len` bytes; whole 16-byte blocks are stored at a time. */
#define KAQ_JSON_ESCAPE_MAX(len) (6 * (size_t)(len) + 16)

/*
 * Writes the escaped form of the `len` bytes at `text`, without quotes and without a NUL, and
 * returns the number of bytes written, at most 6 * len. The bytes after them, up to the room
 * required, may be overwritten with anything.
 *
 * Control characters, the double quote, the backslash and the solidus are escaped (\b \t \n \f \r,
 * \u00xx in lowercase for the others). All other bytes, including 0x7F and above, are copied as
 * they are: invalid UTF-8 stays invalid.
 *
 * REQUIRES: `out` has KAQ_JSON_ESCAPE_MAX(len) bytes and does not overlap `text`; `text` is
 * readable for len bytes (it may be null when len is 0) and has no NUL bytes (one would be written
 * as \u0000).
 */
size_t kaq_json_escape(char *out, const char *text, size_t len);

/* One bit for each byte of the block; it is set if the byte is a NUL or has to be escaped. */
static inline unsigned kaq_json_escape_mask(kaq_block block) {
	return kaq_block_mask((kaq_block)((block < 0x20) | (block == (uint8_t)'"') |
									  (block == (uint8_t)'/') | (block == (uint8_t)'\\')));
}

/* Writes the escaped form of one byte that has to be escaped and returns the end. */
char *kaq_json_put_escape(char *out, char byte);

/*
 * kaq_json_escape for a NUL-terminated text whose length need not be known, as the engine stores
 * its strings. Returns the end of what it wrote.
 *
 * REQUIRES: `out` has KAQ_JSON_ESCAPE_MAX bytes for the text; the text is readable in whole steps
 * of 8 bytes, up to the step that has its NUL.
 */
static inline char *kaq_json_escape_words(char *out, const char *text) {
	for (;; text += 8) {
		uint64_t bytes;
		memcpy(&bytes, text, 8);
		unsigned mask = kaq_json_escape_mask(kaq_block_of(bytes, 0)) & 0xff;
		unsigned left = 8;
		memcpy(out, &bytes, 8);
		while (mask != 0) {
			unsigned run = (unsigned)__builtin_ctz(mask);
			char found = (char)(bytes >> (8 * run));
			out += run;
			if (found == '\0') {
				return out;
			}
			out = kaq_json_put_escape(out, found);
			left -= run + 1;
			mask >>= run + 1;
			/* In two steps: a shift by 64 is undefined. */
			bytes = bytes >> (8 * run) >> 8;
			memcpy(out, &bytes, 8);
		}
		out += left;
	}
}

/* Room that the two functions below need; eight digits are stored at a time. */
#define KAQ_FORMAT_U64_MAX 24
#define KAQ_FORMAT_I64_MAX 25

/*
 * Writes the decimal digits of `value`, no sign, no NUL, and returns their number (1 to 20).
 * REQUIRES: `out` has KAQ_FORMAT_U64_MAX bytes, which may all be overwritten.
 */
size_t kaq_format_u64(char *out, uint64_t value);
/* The same with a leading minus sign for negative values, in KAQ_FORMAT_I64_MAX bytes. */
size_t kaq_format_i64(char *out, int64_t value);
