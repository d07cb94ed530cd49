#include "query/mistake.h"

#include <algorithm>

#include "util/control_character.h"

namespace kaq {
namespace {

bool begins_character(char byte) {
	return (static_cast<unsigned char>(byte) & 0xc0) != 0x80;
}

/* The byte at which a character begins; the end if there are fewer. */
size_t byte_of(std::string_view text, size_t column) {
	size_t at = 0;
	for (size_t count = 0; at < text.size(); at++) {
		count += begins_character(text[at]) ? 1 : 0;
		if (count == column) {
			break;
		}
	}
	return at;
}

std::string printable(std::string_view text) {
	std::string shown(text);
	std::replace_if(shown.begin(), shown.end(), is_control_character, ' ');
	return shown;
}

} // namespace

size_t column_at(std::string_view text, size_t at) {
	std::string_view before = text.substr(0, at);
	return 1 + static_cast<size_t>(std::count_if(before.begin(), before.end(), begins_character));
}

std::string quoted(std::string_view text) {
	constexpr size_t kMostCharacters = 40;
	size_t end = byte_of(text, kMostCharacters + 1);
	return "'" + std::string(text.substr(0, end)) + (end < text.size() ? "…'" : "'");
}

std::string explain(std::string_view text, const std::vector<Mistake> &mistakes) {
	constexpr size_t kAround = 50;
	std::string shown;
	for (const Mistake &mistake : mistakes) {
		size_t first = mistake.column > kAround ? mistake.column - kAround : 1;
		size_t begin = byte_of(text, first);
		size_t end = byte_of(text, mistake.column + kAround);
		shown += "column " + std::to_string(mistake.column) + ": " + mistake.text;
		shown += mistake.hint.empty() ? "\n" : "; " + mistake.hint + "\n";
		shown += "  " + printable(text.substr(begin, end - begin)) + "\n";
		shown += "  " + std::string(mistake.column - first, ' ') + "^\n";
	}
	return shown;
}

} // namespace kaq
