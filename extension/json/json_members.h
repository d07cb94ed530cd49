/*
 * The members of a plain JSON object, read in one pass without building anything: what a
 * collector's answer nearly always is. Plain is an object of at most KAQ_PLAIN_MAX_MEMBERS members
 * whose names and strings are printable ASCII, whose strings have no escapes but those of one
 * character, and whose other values are true, false, null or integers without a sign. Such an
 * object means the same to every JSON decoder; any other text is left to the engine's.
 *
 * No state, no allocation but that of kaq_json_copy_string(); any thread.
 */
#pragma once

#include <stddef.h>
#include <stdint.h>

/* Longer texts are not looked at. */
#define KAQ_PLAIN_MAX_LENGTH ((size_t)32 * 1024)
#define KAQ_PLAIN_MAX_MEMBERS 64

enum kaq_json_kind {
	KAQ_JSON_OTHER, /* missing, true, false or null */
	KAQ_JSON_INTEGER,
	KAQ_JSON_DOUBLE, /* never in a plain object */
	KAQ_JSON_STRING
};

struct kaq_json_member {
	const char *name;
	kaq_json_kind kind;
	int64_t integer;
	double real;
	const char *text; /* of a string, with its escapes; within the text that was read */
	size_t length;
	bool has_escapes;
};

/*
 * Looks for the members that `wanted` names and fills in what they are; of several members with one
 * name the last one counts. False if the text is not a plain object; `wanted` is then undefined,
 * but for the names. REQUIRES: `text` ends with NUL.
 */
bool kaq_json_read_plain(const char *text, kaq_json_member *wanted, size_t count);

/* A string member as a new heap string without escapes (release with free), or null. */
char *kaq_json_copy_string(const kaq_json_member *member);
