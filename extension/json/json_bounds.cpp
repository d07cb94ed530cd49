#include "json/json_bounds.h"

/* The index of the closing quote of the string whose content begins at `at`, or `length`. The loop
 * branches only at the end of the string, so escapes take no longer than other text. */
static size_t kaq_string_end(const char *text, size_t at, size_t length, size_t *escapes) {
	size_t found = 0;
	unsigned is_escaped = 0;
	for (; at < length; at++) {
		unsigned is_other = (unsigned)text[at] ^ '"';
		if ((is_other | is_escaped) == 0) {
			break;
		}
		is_escaped = (unsigned)(text[at] == '\\') & ~is_escaped;
		found += is_escaped;
	}
	*escapes += found;
	return at;
}

static bool kaq_is_within(const kaq_json_bounds *found, const kaq_json_bounds *bounds) {
	return found->depth <= bounds->depth && found->values <= bounds->values &&
		   found->frame <= bounds->frame && found->escapes <= bounds->escapes;
}

bool kaq_json_is_within(const char *text, size_t length, const kaq_json_bounds *bounds) {
	kaq_json_bounds found = {length, 0, 1, 0, 0};
	size_t begin = 0, last_string = 0;
	if (length > bounds->length) {
		return false;
	}
	for (size_t at = 0; at < length && kaq_is_within(&found, bounds); at++) {
		found.frame++;
		switch (text[at]) {
		case '"':
			begin = at + 1;
			at = kaq_string_end(text, begin, length, &found.escapes);
			last_string = at - begin;
			found.frame++;
			break;
		case '[':
		case '{':
			found.depth++;
			found.values++;
			break;
		case ']':
		case '}':
			found.depth -= found.depth > 0;
			break;
		case ':': /* so the last string was a key */
			found.frame += last_string;
			found.values++;
			break;
		case ',':
			found.values++;
			break;
		default:
			break;
		}
	}
	return kaq_is_within(&found, bounds);
}
