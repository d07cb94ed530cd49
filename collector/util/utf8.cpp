#include "util/utf8.h"

namespace kaq {
namespace {

constexpr std::string_view kReplacement = "\xEF\xBF\xBD";

bool continues(unsigned char byte, unsigned char least, unsigned char most) {
	return byte >= least && byte <= most;
}

/* The bytes of the valid sequence that the text begins with; 0 if it begins with none. */
size_t sequence_length(std::string_view text) {
	auto byte = [&text](size_t at) {
		return at < text.size() ? static_cast<unsigned char>(text[at])
								: static_cast<unsigned char>(0);
	};
	unsigned char first = byte(0);
	if (first < 0x80) {
		return 1;
	}
	if (first >= 0xC2 && first <= 0xDF) {
		return continues(byte(1), 0x80, 0xBF) ? 2 : 0;
	}
	if (first >= 0xE0 && first <= 0xEF) {
		unsigned char least = first == 0xE0 ? 0xA0 : 0x80;
		unsigned char most = first == 0xED ? 0x9F : 0xBF;
		return continues(byte(1), least, most) && continues(byte(2), 0x80, 0xBF) ? 3 : 0;
	}
	if (first >= 0xF0 && first <= 0xF4) {
		unsigned char least = first == 0xF0 ? 0x90 : 0x80;
		unsigned char most = first == 0xF4 ? 0x8F : 0xBF;
		bool is_valid = continues(byte(1), least, most) && continues(byte(2), 0x80, 0xBF) &&
						continues(byte(3), 0x80, 0xBF);
		return is_valid ? 4 : 0;
	}
	return 0;
}

} // namespace

std::string replace_invalid_utf8(std::string_view text) {
	std::string repaired;
	repaired.reserve(text.size());
	size_t kept_from = 0;
	size_t at = 0;
	while (at < text.size()) {
		size_t length = sequence_length(text.substr(at));
		if (length > 0) {
			at += length;
			continue;
		}
		repaired.append(text, kept_from, at - kept_from).append(kReplacement);
		kept_from = ++at;
	}
	return repaired.append(text, kept_from);
}

} // namespace kaq
