#include "ingest/handshake_request.h"

#include <cstdint>

namespace kaq {
namespace {

/* Longer texts are cut: nothing that a site is called by is as long. */
constexpr size_t kLongestText = 8192;

int hex_value(char digit) {
	if (digit >= '0' && digit <= '9') {
		return digit - '0';
	}
	char lower = static_cast<char>(digit | 0x20);
	return lower >= 'a' && lower <= 'f' ? lower - 'a' + 10 : -1;
}

/* A control character that is written with four digits; nothing else is. */
int control_character(std::string_view digits) {
	int value = 0;
	for (char digit : digits.substr(0, 4)) {
		int each = hex_value(digit);
		if (each < 0) {
			return -1;
		}
		value = value * 16 + each;
	}
	return digits.size() >= 4 && value < 0x80 ? value : -1;
}

char plain_escape(char character) {
	switch (character) {
	case 'b':
		return '\b';
	case 'f':
		return '\f';
	case 'n':
		return '\n';
	case 'r':
		return '\r';
	case 't':
		return '\t';
	default:
		return character;
	}
}

/* The content of a JSON string whose opening quote has been passed, up to its closing quote. */
std::string string_from(std::string_view text) {
	std::string content;
	for (size_t at = 0; at < text.size() && text[at] != '"' && content.size() < kLongestText;
		 at++) {
		if (text[at] != '\\' || at + 1 == text.size()) {
			content += text[at];
			continue;
		}
		at++;
		int control = text[at] == 'u' ? control_character(text.substr(at + 1)) : -1;
		if (control >= 0) {
			content += static_cast<char>(control);
			at += 4;
		} else {
			content += plain_escape(text[at]);
		}
	}
	return content;
}

/* What follows `key` at its first place. No text that a visitor can write holds a key: within
 * strings a quote has a backslash before it, and a port is too short. */
std::string_view after(std::string_view text, std::string_view key) {
	size_t found = text.find(key);
	return found == std::string_view::npos ? std::string_view() : text.substr(found + key.size());
}

std::string text_member(std::string_view text, std::string_view key) {
	return string_from(after(text, key));
}

std::string port_of(std::string_view text) {
	std::string_view rest = after(text, "\"port\":");
	return std::string(rest.substr(0, rest.find(",\"host.type\":")).substr(0, 9));
}

} // namespace

HandshakeRequest read_handshake_request(std::string_view text) {
	HandshakeRequest request;
	request.version = text_member(text, "\"agent.version.info\":\"");
	request.application = text_member(text, "\"application.name\":\"");
	request.group = text_member(text, "\"application.group.name\":\"");
	request.host = text_member(text, "\"hostname\":\"");
	request.port = port_of(text);
	request.transaction = text_member(text, "\"misc_info\":{\"txn.name\":\"");
	request.takes_snippet = after(text, "\"rum.autoinjection\":").substr(0, 4) == "true";
	return request;
}

} // namespace kaq
