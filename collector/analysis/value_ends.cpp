#include "analysis/value_ends.h"

#include <algorithm>
#include <cctype>

namespace kaq {
namespace {

bool is_digit(char character) {
	return character >= '0' && character <= '9';
}

bool is_in(char character, std::string_view set) {
	return set.find(character) != std::string_view::npos;
}

} // namespace

size_t quoted_end(std::string_view text, size_t place, char quote, size_t slashes) {
	size_t before = 0;
	for (size_t i = place; i < text.size(); i++) {
		if (text[i] == '\\') {
			before++;
			continue;
		}
		bool is_escape = slashes == 0 ? before % 2 == 1 : before > slashes;
		if (text[i] == quote && !is_escape) {
			bool is_doubled =
				quote == '\'' && i > place && i + 1 < text.size() && text[i + 1] == quote;
			if (!is_doubled) {
				return i - std::min(before, slashes);
			}
			i++;
		}
		before = 0;
	}
	return text.size();
}

size_t balanced_end(std::string_view text, size_t place) {
	size_t depth = 0;
	for (size_t i = place; i < text.size(); i++) {
		char character = text[i];
		if (character == '"' || character == '\'') {
			i = quoted_end(text, i + 1, character, 0);
		} else if (is_in(character, "[{(")) {
			depth++;
		} else if (is_in(character, "]})") && --depth == 0) {
			return i + 1;
		}
	}
	return text.size();
}

size_t length_at(std::string_view text, size_t place, std::string_view behind, size_t &end) {
	constexpr size_t kMostDigits = 8;
	size_t length = 0;
	size_t i = place;
	for (; i < text.size() && is_digit(text[i]) && i - place < kMostDigits; i++) {
		length = length * 10 + static_cast<size_t>(text[i] - '0');
	}
	bool is_one = i > place && text.substr(i, behind.size()) == behind;
	end = is_one ? i + behind.size() : 0;
	return is_one ? length : 0;
}

bool is_like_token(std::string_view text) {
	constexpr size_t kShortest = 8;
	bool has_sign = false;
	for (size_t i = 0; i < text.size(); i++) {
		bool is_capital = i > 0 && text[i] >= 'A' && text[i] <= 'Z';
		has_sign = has_sign || is_digit(text[i]) || text[i] == '=' || is_capital;
	}
	return text.size() >= kShortest && has_sign;
}

std::string encoded_again(std::string_view plain) {
	std::string text;
	for (char character : plain) {
		auto byte = static_cast<unsigned char>(character);
		if (isalnum(byte) != 0 || is_in(character, "-_.~/:,[] ") || byte >= 0x80) {
			text += character;
		} else {
			text += {'%', "0123456789ABCDEF"[byte >> 4], "0123456789ABCDEF"[byte & 15]};
		}
	}
	return text;
}

} // namespace kaq
