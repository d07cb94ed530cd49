/* Port lists against a reference that splits them into tokens; the port text against its rule. */
#include "wire/port_filter.h"

#include <sstream>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>
#include <string>

static void require(bool condition) {
	if (!condition) {
		abort();
	}
}

static bool holds(const std::string &list, const std::string &port) {
	std::istringstream tokens(list);
	std::string token;
	while (std::getline(tokens, token, ',')) {
		if (!token.empty() && token == port) {
			return true;
		}
	}
	return false;
}

static kaq_port_verdict reference(const std::string &included, const std::string &excluded,
								  const std::string &port) {
	if (!included.empty()) {
		return holds(included, port) ? KAQ_PORT_PASS : KAQ_PORT_NOT_INCLUDED;
	}
	return holds(excluded, port) ? KAQ_PORT_EXCLUDED : KAQ_PORT_PASS;
}

static std::string chosen(const std::string &first, const std::string &second,
						  const std::string &third) {
	for (const std::string *text : {&first, &second, &third}) {
		if (text->size() >= 1 && text->size() <= 9) {
			return *text;
		}
	}
	return "0";
}

/* Three lines: include list, exclude list, port. */
extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
	std::string input((const char *)data, size);
	std::istringstream lines(std::string(input.c_str()));
	std::string included, excluded, port;
	std::getline(lines, included);
	std::getline(lines, excluded);
	std::getline(lines, port);
	require(kaq_port_filter(included.c_str(), excluded.c_str(), port.c_str()) ==
			reference(included, excluded, port));
	char text[KAQ_PORT_TEXT_SIZE];
	kaq_choose_port_text(text, included.c_str(), excluded.c_str(), port.c_str());
	require(chosen(included, excluded, port) == text);
	return 0;
}
