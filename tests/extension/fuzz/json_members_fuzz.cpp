/*
 * Plain JSON objects. Whatever is read lies within the text, in the form that the header promises,
 * and what is plain stays so, and means the same, with blanks around it.
 */
#include "json/json_members.h"

#include <stdint.h>
#include <stdlib.h>
#include <string.h>
#include <string>

static void require(bool condition) {
	if (!condition) {
		abort();
	}
}

static void check(const std::string &text, const kaq_json_member &member) {
	if (member.kind != KAQ_JSON_STRING) {
		require(member.kind == KAQ_JSON_OTHER || member.kind == KAQ_JSON_INTEGER);
		require(member.kind != KAQ_JSON_INTEGER || member.integer >= 0);
		return;
	}
	size_t begin = (size_t)(member.text - text.c_str());
	require(begin > 0 && begin + member.length < text.size());
	require(text[begin - 1] == '"' && text[begin + member.length] == '"');
	size_t escapes = 0;
	for (size_t i = 0; i < member.length; i++) {
		require(member.text[i] >= ' ' && member.text[i] <= '~');
		if (member.text[i] == '\\') {
			escapes++;
			i++;
		}
	}
	require(member.has_escapes == (escapes > 0));
	char *copy = kaq_json_copy_string(&member);
	require(strlen(copy) == member.length - escapes);
	free(copy);
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
	std::string text((const char *)data, size);
	kaq_json_member members[2] = {};
	members[0].name = "a";
	members[1].name = "b";
	if (!kaq_json_read_plain(text.c_str(), members, 2)) {
		return 0;
	}
	std::string padded = " \n" + std::string(text.c_str()) + "\t\r";
	kaq_json_member again[2] = {};
	again[0].name = "a";
	again[1].name = "b";
	require(padded.size() > KAQ_PLAIN_MAX_LENGTH || kaq_json_read_plain(padded.c_str(), again, 2));
	for (int i = 0; i < 2; i++) {
		check(text, members[i]);
		if (padded.size() <= KAQ_PLAIN_MAX_LENGTH) {
			require(members[i].kind == again[i].kind && members[i].integer == again[i].integer);
		}
	}
	return 0;
}
