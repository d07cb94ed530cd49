/*
 * Bounds on the JSON text that the engine's decoder is given. What others have sent may be long,
 * but it must not be dear: a few bytes make the decoder build a list or an object of several
 * hundred. No allocation, no state; any thread.
 */
#pragma once

#include <stddef.h>

struct kaq_json_bounds {
	size_t length;  /* bytes of text */
	size_t depth;   /* lists and objects within each other */
	size_t values;  /* values and keys, an empty list or object as two of them */
	size_t frame;   /* bytes that are not the content of a string value */
	size_t escapes; /* in strings */
};

/*
 * The bounds of every text that is decoded, far above what a collector sends: some ten members in
 * one object. Together they keep the dearest text below 50 ms, and its memory at three times its
 * length: the text, the decoder's copy and the strings made of it.
 */
/* A byte of a string costs up to 5 ns where its characters are of changing lengths. */
#define KAQ_DECODE_MAX_LENGTH ((size_t)5 * 1024 * 1024)
/* As deep as values are encoded; the decoder itself goes down to 512. */
#define KAQ_DECODE_MAX_DEPTH 32
/* A value takes up to 400 bytes and 0.2 us. A key is compared with all keys of the object that
 * were made to have its hash. */
#define KAQ_DECODE_MAX_VALUES 1024
/* Keys, since equal hashes have them compared byte by byte, and numbers, of which a digit can cost
 * 80 ns; with them white space and punctuation. */
#define KAQ_DECODE_MAX_FRAME ((size_t)32 * 1024)
/* One among other characters, of a kind that cannot be foreseen, costs up to 50 ns. */
#define KAQ_DECODE_MAX_ESCAPES ((size_t)192 * 1024)

static const kaq_json_bounds KAQ_DECODE_BOUNDS = {KAQ_DECODE_MAX_LENGTH, KAQ_DECODE_MAX_DEPTH,
												  KAQ_DECODE_MAX_VALUES, KAQ_DECODE_MAX_FRAME,
												  KAQ_DECODE_MAX_ESCAPES};

/*
 * Whether a decoder that stops at the first mistake meets no more in the text than the bounds say.
 * Text that is no JSON may pass or not. REQUIRES: `text` is readable for `length` bytes.
 */
bool kaq_json_is_within(const char *text, size_t length, const kaq_json_bounds *bounds);
