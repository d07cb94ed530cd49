#include "util/query_string.h"

#include <algorithm>

namespace kaq {
namespace {

/* -1 if it is no hexadecimal digit. */
int hex_value(char digit) {
	constexpr std::string_view digits = "0123456789abcdef";
	char small = digit >= 'A' && digit <= 'F' ? static_cast<char>(digit + ('a' - 'A')) : digit;
	size_t value = digits.find(small);
	return value == std::string_view::npos ? -1 : static_cast<int>(value);
}

} // namespace

std::string_view query_parameter(std::string_view query, std::string_view name) {
	while (!query.empty()) {
		size_t end = query.find('&');
		std::string_view each = query.substr(0, end);
		if (each.substr(0, name.size()) == name && each.substr(name.size(), 1) == "=") {
			return each.substr(name.size() + 1);
		}
		query = end == std::string_view::npos ? std::string_view() : query.substr(end + 1);
	}
	return {};
}

std::string percent_decoded(std::string_view text) {
	std::string plain;
	for (size_t at = 0; at < text.size(); at++) {
		int high = text[at] == '%' && at + 2 < text.size() ? hex_value(text[at + 1]) : -1;
		int low = high >= 0 ? hex_value(text[at + 2]) : -1;
		if (low >= 0) {
			plain += static_cast<char>(high * 16 + low);
			at += 2;
		} else {
			plain += text[at];
		}
	}
	return plain;
}

std::string form_decoded(std::string_view text) {
	std::string spaced(text);
	std::replace(spaced.begin(), spaced.end(), '+', ' ');
	return percent_decoded(spaced);
}

std::map<std::string, std::string> form_parameters(std::string_view query) {
	std::map<std::string, std::string> parameters;
	while (!query.empty()) {
		size_t end = query.find('&');
		std::string_view each = query.substr(0, end);
		size_t equals = each.find('=');
		if (!each.empty()) {
			std::string_view value =
				equals == std::string_view::npos ? std::string_view() : each.substr(equals + 1);
			parameters.emplace(form_decoded(each.substr(0, equals)), form_decoded(value));
		}
		query = end == std::string_view::npos ? std::string_view() : query.substr(end + 1);
	}
	return parameters;
}

} // namespace kaq
