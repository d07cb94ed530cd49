/*
 * The bounds of JSON texts against a parser that descends into the text. Whatever passes has no
 * more depth, values, frame and escapes before its first mistake than allowed; a document without
 * a mistake passes exactly if it has no more.
 */
#include "json/json_bounds.h"

#include <ctype.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>
#include <string>

static void require(bool condition) {
	if (!condition) {
		abort();
	}
}

/* Strict in punctuation, lenient within strings and words: no decoder gets any further. */
class Reference {
public:
	explicit Reference(const std::string &given) : text(given) {
	}

	/* True if the text is one value. What has been met stands in `met`. */
	bool parse() {
		bool is_value = value();
		skip_blanks();
		return is_value && at == text.size();
	}

	kaq_json_bounds met = {0, 0, 0, 0, 0};
	size_t empties = 0;

private:
	const std::string &text;
	size_t at = 0;
	size_t depth = 0;

	bool take(char expected) {
		skip_blanks();
		if (at == text.size() || text[at] != expected) {
			return false;
		}
		at++;
		met.frame++;
		return true;
	}

	void skip_blanks() {
		while (at < text.size() && strchr(" \t\r\n", text[at]) && text[at] != '\0') {
			at++;
			met.frame++;
		}
	}

	bool string() {
		if (!take('"')) {
			return false;
		}
		while (at < text.size() && text[at] != '"') {
			met.escapes += text[at] == '\\';
			at += text[at] == '\\' && at + 1 < text.size() ? 2 : 1;
		}
		return take('"');
	}

	bool word() {
		size_t begin = at;
		while (at < text.size() && (isalnum((unsigned char)text[at]) || strchr("+-.", text[at])) &&
			   text[at] != '\0') {
			at++;
			met.frame++;
		}
		return at > begin;
	}

	bool value() {
		skip_blanks();
		char first = at < text.size() ? text[at] : '\0';
		bool is_value = first == '"'   ? string()
						: first == '[' ? elements('[', ']')
						: first == '{' ? elements('{', '}')
									   : word();
		met.values += is_value;
		return is_value;
	}

	bool member() {
		skip_blanks();
		size_t begin = at + 1;
		if (!string()) {
			return false;
		}
		size_t key_length = at - 1 - begin;
		if (!take(':')) {
			return false;
		}
		met.frame += key_length;
		met.values++;
		return value();
	}

	bool elements(char open, char close) {
		take(open);
		depth++;
		met.depth = met.depth < depth ? depth : met.depth;
		if (take(close)) {
			empties++;
			depth--;
			return true;
		}
		do {
			if (!(open == '{' ? member() : value())) {
				return false;
			}
		} while (take(','));
		depth--;
		return take(close);
	}
};

/* The first four bytes are the bounds, the rest is the text. */
extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
	if (size < 4) {
		return 0;
	}
	std::string text((const char *)data + 4, size - 4);
	kaq_json_bounds bounds = {text.size(), data[0], data[1], 8 * (size_t)data[2], data[3]};
	char *block = (char *)malloc(text.size());
	memcpy(block, text.data(), text.size());
	bool passes = kaq_json_is_within(block, text.size(), &bounds);
	free(block);
	Reference reference(text);
	bool is_document = reference.parse();
	const kaq_json_bounds &met = reference.met;
	bool is_within = met.depth <= bounds.depth && met.values + reference.empties <= bounds.values &&
					 met.frame <= bounds.frame && met.escapes <= bounds.escapes;
	require(!passes || is_within);
	require(!is_document || passes == is_within);
	return 0;
}
