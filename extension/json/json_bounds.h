/*
 * Bounds on the JSON text that the engine's decoder is given. What others have sent may be long,
 * but must not be expensive: a few bytes of text make the decoder build a list or an object of
 * several hundred bytes. No allocation, no state; any thread.
 */
#pragma once

#include <stddef.h>

struct kaq_json_bounds {
	size_t length;  /* bytes of text */
	size_t depth;   /* of nested lists and objects */
	size_t values;  /* values and keys; an empty list or object counts as two */
	size_t frame;   /* bytes that are not the content of a string value */
	size_t escapes; /* in strings */
};

/*
 * The bounds of every text that is decoded, far above what a collector sends: some ten members in
 * one object. Together they keep the most expensive text below 50 ms, and its memory at three times
 * its length: the text, the decoder's copy and the strings made of it.
 */
/* A byte of a string costs up to 5 ns if the lengths of its characters vary. */
#define KAQ_DECODE_MAX_LENGTH ((size_t)5 * 1024 * 1024)
/* As deep as values are encoded; the decoder itself goes down to 512. */
#define KAQ_DECODE_MAX_DEPTH 32
/* A value takes up to 400 bytes and 0.2 us. A key is compared with all keys of the object that have
 * the same hash, as a sender can arrange for all of them. */
#define KAQ_DECODE_MAX_VALUES 1024
/* This bounds keys, which are compared byte by byte when their hashes are equal, and numbers, a
 * digit of which can cost 80 ns. White space and punctuation count as well. */
#define KAQ_DECODE_MAX_FRAME ((size_t)32 * 1024)
/* An escape among other characters costs up to 50 ns when its kind cannot be predicted. */
#define KAQ_DECODE_MAX_ESCAPES ((size_t)192 * 1024)

static const kaq_json_bounds KAQ_DECODE_BOUNDS = {KAQ_DECODE_MAX_LENGTH, KAQ_DECODE_MAX_DEPTH,
												  KAQ_DECODE_MAX_VALUES, KAQ_DECODE_MAX_FRAME,
												  KAQ_DECODE_MAX_ESCAPES};

/*
 * Whether a decoder that stops at the first syntax error stays within the bounds. Text that is not
 * JSON may pass or fail. REQUIRES: `text` is readable for `length` bytes.
 */
bool kaq_json_is_within(const char *text, size_t length, const kaq_json_bounds *bounds);
