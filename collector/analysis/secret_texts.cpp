#include "analysis/secret_texts.h"

#include <algorithm>
#include <array>

#include "analysis/card_number.h"
#include "analysis/secret_finder_private.h"
#include "analysis/value_ends.h"
#include "util/query_string.h"

namespace kaq {
namespace {

/* At what a secret, or its name, can be told to begin or end. */
enum Start : uint8_t {
	kNone,
	kDigit,
	kEquals,
	kColon,
	kDash,
	kHash,
	kPercent,
	kLess,
	kOfBearer,
	kOfJwt
};

constexpr std::array<uint8_t, 256> starts() {
	std::array<uint8_t, 256> table = {};
	for (size_t digit = '0'; digit <= '9'; digit++) {
		table[digit] = kDigit;
	}
	table['='] = kEquals;
	table[':'] = kColon;
	table['-'] = kDash;
	table['#'] = kHash;
	table['%'] = kPercent;
	table['<'] = kLess;
	table['B'] = table['b'] = kOfBearer;
	table['J'] = kOfJwt;
	return table;
}

constexpr std::array<uint8_t, 256> kStarts = starts();

} // namespace

bool SecretFinder::run() {
	while (at_ < text_.size()) {
		uint8_t start = kStarts[static_cast<unsigned char>(text_[at_])];
		if (start == kNone) {
			at_++;
		} else {
			take(start);
		}
	}
	return has_found_;
}

std::string SecretFinder::result() {
	out_.append(text_, kept_);
	return std::move(out_);
}

void SecretFinder::take(uint8_t start) {
	switch (start) {
	case kDigit:
		return take_number();
	case kEquals:
		return take_equals();
	case kColon:
		return take_colon();
	case kDash:
		return take_dash();
	case kHash:
		return take_hash();
	case kPercent:
		return take_percent();
	case kLess:
		return take_tag();
	case kOfBearer:
		return take_bearer();
	default:
		return take_jwt();
	}
}

bool SecretFinder::is_secret(std::string_view name) const {
	if (name.find('%') != kNowhere) {
		return is_secret_name(percent_decoded(name), settings_);
	}
	return is_secret_name(name, settings_);
}

void SecretFinder::hide(size_t begin, size_t end) {
	if (end > begin && begin >= kept_) {
		replace(begin, end, hidden(text_.substr(begin, end - begin)));
	}
	at_ = std::max(at_, end);
}

void SecretFinder::replace(size_t begin, size_t end, const std::string &other) {
	out_.append(text_, kept_, begin - kept_);
	out_ += other;
	kept_ = end;
	has_found_ = true;
}

void SecretFinder::take_number() {
	size_t begin = at_;
	while (is_digit(at(at_))) {
		at_++;
	}
	bool goes_on = is_in(at(at_), " -+./_") || (at(at_) & 0x80) != 0;
	if (is_begin(begin) && (goes_on || at_ - begin >= kShortestCard)) {
		hide(begin, card_number_end(text_, begin));
	}
}

std::string_view SecretFinder::name_before(size_t end) const {
	while (end > 0 && is_in(text_[end - 1], kBlanks)) {
		end--;
	}
	/* ["name"] */
	if (end > 1 && text_[end - 1] == ']' && is_in(text_[end - 2], "\"'")) {
		end--;
	}
	if (end > 0 && is_in(text_[end - 1], "\"'")) {
		end--;
		while (end > 0 && text_[end - 1] == '\\') {
			end--;
		}
	}
	size_t begin = end;
	while (begin > 0 && is_name_character(text_[begin - 1])) {
		begin--;
	}
	return text_.substr(begin, end - begin);
}

void SecretFinder::take_equals() {
	bool is_arrow = at(at_ + 1) == '>';
	size_t begin = at_ + (is_arrow ? 2 : 1);
	if (at(begin) == '=') {
		at_ = skip(begin, "=");
		return;
	}
	std::string_view name = name_before(at_);
	at_ = begin;
	if (name.empty() || !is_secret(name)) {
		return;
	}
	size_t name_begin = static_cast<size_t>(name.data() - text_.data());
	bool is_parameter =
		name_begin > 0 ? is_in(text_[name_begin - 1], "?&") : syntax_ == TextSyntax::kQuery;
	if (is_parameter) {
		take_value(begin, Ending::kParameter);
	} else {
		take_value(skip(begin, is_arrow ? kBlanksAndLines : kBlanks),
				   is_arrow ? Ending::kLine : Ending::kWord);
	}
}

void SecretFinder::take_colon() {
	if (follows("://", at_)) {
		return take_user_of_url();
	}
	if (at(at_ + 1) == ':') {
		at_ += 2;
		return;
	}
	if (take_serialised()) {
		return;
	}
	std::string_view name = name_before(at_);
	if (name.empty() || !is_secret(name)) {
		return take_user();
	}
	bool is_quoted = is_in(name.data()[name.size()], "\"'\\");
	size_t begin = skip(at_ + 1, is_quoted ? kBlanksAndLines : kBlanks);
	at_++;
	/* MySQL's "(using password: YES)" */
	if (!follows("YES)", begin) && !follows("NO)", begin)) {
		take_value(begin, is_quoted                ? Ending::kMember
						  : says_secret_line(name) ? Ending::kLine
												   : Ending::kWord);
	}
}

void SecretFinder::take_value(size_t begin, Ending ending) {
	size_t slashes = skip(begin, "\\") - begin;
	char first = at(begin + slashes);
	if (ending == Ending::kParameter || first == '\0') {
		return hide(begin, value_end(begin, ending));
	}
	if (first == '"' || first == '\'') {
		size_t inner = begin + slashes + 1;
		return hide(inner, quoted_end(text_, inner, first, slashes));
	}
	if (first == '[' || first == '{') {
		return hide(begin, balanced_end(text_, begin));
	}
	if (ending == Ending::kLine && take_printed(begin)) {
		return;
	}
	hide(begin, value_end(begin, ending));
}

size_t SecretFinder::value_end(size_t begin, Ending ending) const {
	switch (ending) {
	case Ending::kLine:
		return find_any("\r\n", begin);
	case Ending::kMember:
		return find_any(",}] \t\r\n", begin);
	case Ending::kParameter:
		return find_any(syntax_ == TextSyntax::kQuery ? "&" : "& \t\r\n\"'<>", begin);
	case Ending::kWord:
		break;
	}
	size_t end = find_any("&; \t\r\n\"'<>", begin);
	while (end > begin && is_in(text_[end - 1], ",.)]}")) {
		end--;
	}
	return end;
}

std::string hidden(std::string_view secret) {
	size_t most = 4;
	while (most < secret.size() && most < 1024) {
		most *= 2;
	}
	if (secret.size() > most) {
		return "[hidden, more than 1024 bytes]";
	}
	size_t least = most == 4 ? 1 : most / 2 + 1;
	return "[hidden, " + std::to_string(least) + " to " + std::to_string(most) + " bytes]";
}

bool find_secrets(std::string_view text, const ScrubSettings &settings, TextSyntax syntax,
				  std::string &cleaned) {
	SecretFinder finder(text, settings, syntax);
	bool has_found = finder.run();
	if (has_found) {
		cleaned = finder.result();
	}
	return has_found;
}

std::string without_secrets(std::string_view text, const ScrubSettings &settings,
							TextSyntax syntax) {
	std::string cleaned;
	return find_secrets(text, settings, syntax, cleaned) ? cleaned : std::string(text);
}

} // namespace kaq
