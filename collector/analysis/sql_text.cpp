#include "analysis/sql_text.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <cstdint>

namespace kaq {
namespace {

enum CharacterKind : uint8_t { kSignKind = 0, kBlankKind = 1, kDigitKind = 2, kNameKind = 4 };

/* Statements are looked at character by character, of every request: by a table. */
constexpr std::array<uint8_t, 256> character_kinds() {
	std::array<uint8_t, 256> kinds = {};
	for (size_t byte = 0; byte < kinds.size(); byte++) {
		bool is_digit = byte >= '0' && byte <= '9';
		bool is_letter = (byte >= 'a' && byte <= 'z') || (byte >= 'A' && byte <= 'Z');
		bool is_name = is_digit || is_letter || byte == '_' || byte == '$' || byte >= 0x80;
		bool is_blank = byte == ' ' || (byte >= '\t' && byte <= '\r');
		kinds[byte] = static_cast<uint8_t>((is_blank ? kBlankKind : 0) |
										   (is_digit ? kDigitKind : 0) | (is_name ? kNameKind : 0));
	}
	return kinds;
}

constexpr std::array<uint8_t, 256> kKinds = character_kinds();

bool is_of(char character, CharacterKind kind) {
	return (kKinds[static_cast<unsigned char>(character)] & kind) != 0;
}

bool is_blank(char character) {
	return is_of(character, kBlankKind);
}

bool is_digit(char character) {
	return is_of(character, kDigitKind);
}

bool is_name_character(char character) {
	return is_of(character, kNameKind);
}

/* Walks through a statement token by token. */
class Tokens {
public:
	enum class Kind { kEnd, kBlank, kLiteral, kWord, kName, kSign };

	Tokens(std::string_view statement, bool has_quoted_names)
		: text_(statement), has_quoted_names_(has_quoted_names) {
	}

	Kind next() {
		begin_ = at_;
		if (at_ >= text_.size()) {
			return Kind::kEnd;
		}
		char first = text_[at_];
		if (is_blank(first) || is_comment()) {
			skip_blanks_and_comments();
			return Kind::kBlank;
		}
		if (first == '\'' || (first == '"' && !has_quoted_names_)) {
			skip_quoted(first, true);
			return Kind::kLiteral;
		}
		if (first == '"' || first == '`') {
			skip_quoted(first, false);
			return Kind::kName;
		}
		if (is_digit(first) || (first == '.' && is_digit(at(1)))) {
			skip_number();
			return Kind::kLiteral;
		}
		if (is_name_character(first)) {
			return word();
		}
		at_++;
		return Kind::kSign;
	}

	std::string_view token() const {
		return text_.substr(begin_, at_ - begin_);
	}

private:
	char at(size_t ahead) const {
		return at_ + ahead < text_.size() ? text_[at_ + ahead] : '\0';
	}

	bool is_comment() const {
		return (text_[at_] == '-' && at(1) == '-') || (text_[at_] == '/' && at(1) == '*') ||
			   (text_[at_] == '#' && !has_quoted_names_);
	}

	void skip_blanks_and_comments() {
		while (at_ < text_.size() && (is_blank(text_[at_]) || is_comment())) {
			if (is_blank(text_[at_])) {
				at_++;
			} else if (text_[at_] == '/') {
				size_t end = text_.find("*/", at_ + 2);
				at_ = end == std::string_view::npos ? text_.size() : end + 2;
			} else {
				at_ = std::min(text_.find('\n', at_), text_.size());
			}
		}
	}

	/* A quote within is doubled or, in a literal, has a backslash before it. */
	void skip_quoted(char quote, bool has_backslashes) {
		for (at_++; at_ < text_.size(); at_++) {
			if (has_backslashes && text_[at_] == '\\') {
				at_++;
			} else if (text_[at_] == quote) {
				if (at(1) != quote) {
					at_++;
					return;
				}
				at_++;
			}
		}
		at_ = std::min(at_, text_.size());
	}

	void skip_number() {
		while (at_ < text_.size() && (is_name_character(text_[at_]) || text_[at_] == '.' ||
									  ((text_[at_] == '+' || text_[at_] == '-') &&
									   (text_[at_ - 1] | 0x20) == 'e' && is_digit(at(1))))) {
			at_++;
		}
	}

	/* x'..', N'..', _utf8'..' are literals with a word in front. */
	Kind word() {
		while (at_ < text_.size() && is_name_character(text_[at_])) {
			at_++;
		}
		if (at_ < text_.size() && text_[at_] == '\'') {
			skip_quoted('\'', true);
			return Kind::kLiteral;
		}
		return Kind::kWord;
	}

	const std::string_view text_;
	const bool has_quoted_names_;
	size_t at_ = 0;
	size_t begin_ = 0;
};

bool ends_with(const std::string &text, std::string_view end) {
	return text.size() >= end.size() &&
		   text.compare(text.size() - end.size(), end.size(), end) == 0;
}

/* "?, ?" becomes "?", and "(?), (?)" becomes "(?)". */
void fold_list(std::string &text) {
	for (std::string_view twice : {"?, ?", "?,?", "(?), (?)", "(?),(?)"}) {
		if (ends_with(text, twice)) {
			size_t once = twice[0] == '(' ? 3 : 1;
			text.resize(text.size() - (twice.size() - once));
			return;
		}
	}
}

std::string lower(std::string_view text) {
	std::string result;
	for (char character : text) {
		result += static_cast<char>(tolower(static_cast<unsigned char>(character)));
	}
	return result;
}

} // namespace

std::string without_literals(std::string_view statement, bool has_quoted_names) {
	std::string text;
	text.reserve(statement.size());
	Tokens tokens(statement, has_quoted_names);
	for (Tokens::Kind kind = tokens.next(); kind != Tokens::Kind::kEnd; kind = tokens.next()) {
		switch (kind) {
		case Tokens::Kind::kBlank:
			if (!text.empty() && text.back() != ' ') {
				text += ' ';
			}
			break;
		case Tokens::Kind::kLiteral:
			text += '?';
			fold_list(text);
			break;
		default:
			text += tokens.token();
			if (text.back() == ')' || text.back() == '?') {
				fold_list(text);
			}
			break;
		}
	}
	while (!text.empty() && (text.back() == ' ' || text.back() == ';')) {
		text.pop_back();
	}
	return text;
}

std::string first_table(std::string_view statement) {
	static constexpr std::array<std::string_view, 5> kBefore = {"from", "into", "update", "table",
																"join"};
	static constexpr std::array<std::string_view, 8> kBetween = {
		"ignore", "low_priority", "only", "if", "not", "exists", "quick", "delayed"};
	Tokens tokens(statement, true);
	bool is_next = false;
	for (Tokens::Kind kind = tokens.next(); kind != Tokens::Kind::kEnd; kind = tokens.next()) {
		std::string_view token = tokens.token();
		if (kind == Tokens::Kind::kName && is_next) {
			return std::string(token.substr(1, token.size() > 1 ? token.size() - 2 : 0));
		}
		if (kind != Tokens::Kind::kWord) {
			is_next = is_next && kind == Tokens::Kind::kBlank;
			continue;
		}
		std::string word = lower(token);
		if (is_next && std::find(kBetween.begin(), kBetween.end(), word) == kBetween.end()) {
			return std::string(token);
		}
		is_next = is_next || std::find(kBefore.begin(), kBefore.end(), word) != kBefore.end();
	}
	return {};
}

} // namespace kaq
