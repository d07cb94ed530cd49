/*
 * Base64 (RFC 4648 alphabet, padding with "=") for the records of the data port.
 *
 * Results are blocks of the process heap that the caller frees. No state; any thread.
 */
#pragma once

#include <stddef.h>

/*
 * Encodes `len` bytes into one line without inner line breaks, ended by one line feed, the record
 * terminator of the data port, and a NUL. No input gives just the line feed.
 * Null when memory is short or the size of the result is beyond size_t.
 *
 * Interface: kept for callers outside.
 *
 * REQUIRES: `src` has `len` readable bytes; it may be null when len is 0.
 */
char *kaq_base64_encode_with_newline(const char *src, size_t len);

/*
 * The same into a block that the caller keeps from one line to the next: *line is a block of the
 * process heap of *room bytes, or null with *room 0, and is replaced when it is too small.
 * Returns *line, or null, with both unchanged, where the function above returns null.
 */
char *kaq_base64_encode_line(char **line, size_t *room, const char *src, size_t len);

/*
 * Decodes `len` characters. Bytes outside the alphabet are skipped. The block holds three bytes per
 * four valid characters; a group with one "=" lacks its last byte, with two its last two, and
 * nothing after such a group is decoded. Bytes of the block that were not decoded are zero. The
 * result is not NUL-terminated and its length is not returned. Null when there are no valid
 * characters ("=" counts as one) or their number is no multiple of four, when the first padded
 * group has more than two "=", or when memory is short.
 *
 * Interface: kept for callers outside.
 */
unsigned char *kaq_base64_decode(const unsigned char *src, size_t len);

/*
 * The encoder's inner loops, separately so that each can be tested on every machine that has it.
 * Both write the characters of `len` bytes with padding, without line feed or NUL, and return
 * their number, (len + 2) / 3 * 4, which is the room that `out` needs.
 *
 * REQUIRES: kaq_base64_encode_avx2 only where kaq_base64_has_avx2 returns 1.
 */
size_t kaq_base64_encode_scalar(char *out, const unsigned char *src, size_t len);
size_t kaq_base64_encode_avx2(char *out, const unsigned char *src, size_t len);
int kaq_base64_has_avx2(void);
