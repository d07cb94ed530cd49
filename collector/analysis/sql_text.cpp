#include "analysis/sql_text.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <cstddef>
#include <cstdint>
#include <optional>

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

bool is_same_word(std::string_view word, std::string_view lowered) {
	return word.size() == lowered.size() &&
		   std::equal(word.begin(), word.end(), lowered.begin(),
					  [](char one, char other) { return (one | 0x20) == other; });
}

/* What a backslash before a quote does depends on the server: MySQL takes it for an escape, the
 * standard for the last character of the text. */
enum class Backslash { kEscapes, kIsPlain };

/* Walks through a statement token by token. */
class Tokens {
public:
	enum class Kind { kEnd, kBlank, kLiteral, kWord, kName, kSign };

	Tokens(std::string_view statement, bool has_quoted_names,
		   Backslash backslash = Backslash::kEscapes)
		: text_(statement), has_quoted_names_(has_quoted_names), backslash_(backslash) {
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
			skip_quoted(first, backslash_ == Backslash::kEscapes);
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
		if (first == '$' && skip_dollar_quoted()) {
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
	size_t begin() const {
		return begin_;
	}
	size_t end() const {
		return at_;
	}
	/* Whether a backslash before a quote may have been no escape. */
	bool is_doubtful() const {
		return is_doubtful_;
	}
	/* Whether the statement ended within a text. */
	bool is_open() const {
		return is_open_;
	}

private:
	char at(size_t ahead) const {
		return at_ + ahead < text_.size() ? text_[at_ + ahead] : '\0';
	}

	/* PostgreSQL has operators that begin with #>. */
	bool is_comment() const {
		return (text_[at_] == '-' && at(1) == '-') || (text_[at_] == '/' && at(1) == '*') ||
			   (text_[at_] == '#' && at(1) != '>' && !has_quoted_names_);
	}

	void skip_blanks_and_comments() {
		while (at_ < text_.size() && (is_blank(text_[at_]) || is_comment())) {
			if (is_blank(text_[at_])) {
				at_++;
			} else if (text_[at_] == '/') {
				skip_comment();
			} else {
				at_ = std::min(text_.find('\n', at_), text_.size());
			}
		}
	}

	/* With those within it where they end too: some servers nest comments, others do not. */
	void skip_comment() {
		size_t plain_end = text_.find("*/", at_ + 2);
		size_t depth = 1;
		size_t i = at_ + 2;
		for (; depth > 0 && i + 1 < text_.size() && are_comments_nested_; i++) {
			bool is_end = text_[i] == '*' && text_[i + 1] == '/';
			bool is_begin = text_[i] == '/' && text_[i + 1] == '*';
			depth += is_begin ? 1 : 0;
			depth -= is_end ? 1 : 0;
			i += is_begin || is_end ? 1 : 0;
		}
		/* Once is enough to see that they are not. */
		are_comments_nested_ = are_comments_nested_ && depth == 0;
		if (are_comments_nested_) {
			at_ = i;
		} else {
			at_ = plain_end == std::string_view::npos ? text_.size() : plain_end + 2;
		}
	}

	/* A quote within is doubled or, in a literal, may have a backslash before it. */
	void skip_quoted(char quote, bool has_backslashes) {
		for (at_++; at_ < text_.size(); at_++) {
			if (has_backslashes && text_[at_] == '\\') {
				at_++;
				is_doubtful_ = is_doubtful_ || (at(0) == quote && may_end_before(at_ + 1));
			} else if (text_[at_] == quote) {
				if (at(1) != quote) {
					at_++;
					return;
				}
				at_++;
			}
		}
		at_ = std::min(at_, text_.size());
		is_open_ = true;
	}

	/* Whether what stands there can follow a text, as a comma can, and the "s" of "it's" cannot. */
	bool may_end_before(size_t place) const {
		size_t next = std::min(text_.find_first_not_of(" \t\r\n", place), text_.size());
		if (next == text_.size() || next > place) {
			return true;
		}
		return std::string_view(",);:|=<>+-*/%!~&^]").find(text_[next]) != std::string_view::npos;
	}

	void skip_number() {
		while (at_ < text_.size() && (is_name_character(text_[at_]) || text_[at_] == '.' ||
									  ((text_[at_] == '+' || text_[at_] == '-') &&
									   (text_[at_ - 1] | 0x20) == 'e' && is_digit(at(1))))) {
			at_++;
		}
	}

	/* $$..$$, $word$..$word$; false if there is none. */
	bool skip_dollar_quoted() {
		size_t end = at_ + 1;
		while (end < text_.size() && text_[end] != '$' && is_name_character(text_[end])) {
			end++;
		}
		if (end >= text_.size() || text_[end] != '$' || is_digit(at(1))) {
			return false;
		}
		skip_to(text_.substr(at_, end + 1 - at_), end + 1);
		return true;
	}

	/* Behind the first place from `from` on that has that text, else to the end. */
	void skip_to(std::string_view closing, size_t from) {
		size_t end = text_.find(closing, from);
		is_open_ = is_open_ || end == std::string_view::npos;
		at_ = end == std::string_view::npos ? text_.size() : end + closing.size();
	}

	/* x'..', N'..', _utf8'..' are literals with a word in front. In E'..' backslashes are escapes
	 * everywhere; q'[..]' ends with its own sign before the quote. */
	Kind word() {
		while (at_ < text_.size() && is_name_character(text_[at_])) {
			at_++;
		}
		if (at_ >= text_.size() || text_[at_] != '\'') {
			return Kind::kWord;
		}
		std::string_view prefix = token();
		if ((is_same_word(prefix, "q") || is_same_word(prefix, "nq")) && at_ + 1 < text_.size()) {
			constexpr std::string_view kOpening = "[{(<", kClosing = "]})>";
			size_t pair = kOpening.find(at(1));
			char closing = pair == std::string_view::npos ? at(1) : kClosing[pair];
			skip_to(std::string({closing, '\''}), at_ + 2);
		} else {
			skip_quoted('\'', backslash_ == Backslash::kEscapes || is_same_word(prefix, "e"));
		}
		return Kind::kLiteral;
	}

	const std::string_view text_;
	const bool has_quoted_names_;
	const Backslash backslash_;
	size_t at_ = 0;
	size_t begin_ = 0;
	bool are_comments_nested_ = true;
	bool is_doubtful_ = false;
	bool is_open_ = false;
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

/* Writes a statement anew, without its literals. */
class Plain {
public:
	Plain(std::string_view statement, bool has_quoted_names)
		: statement_(statement), tokens_(statement, has_quoted_names) {
	}

	std::string result() {
		text_.reserve(statement_.size());
		for (Tokens::Kind kind = tokens_.next(); kind != Tokens::Kind::kEnd;
			 kind = tokens_.next()) {
			take(kind);
		}
		keep_to(statement_.size());
		while (!text_.empty() && (text_.back() == ' ' || text_.back() == ';')) {
			text_.pop_back();
		}
		return std::move(text_);
	}

	/* Whether there is but one way to read its backslashes. */
	bool is_certain() const {
		return !tokens_.is_doubtful();
	}

private:
	void take(Tokens::Kind kind) {
		std::string_view token = tokens_.token();
		switch (kind) {
		case Tokens::Kind::kBlank:
			if (token != " " || tokens_.begin() == 0) {
				replace(tokens_.begin() == 0 ? "" : " ");
			}
			return;
		case Tokens::Kind::kLiteral:
			replace("?");
			fold_list(text_);
			break;
		case Tokens::Kind::kWord:
			if (is_name_next_) {
				replace("?");
				break;
			}
			/* IDENTIFIED BY password, which Oracle takes without quotes. */
			is_name_next_ = is_identified_ && is_same_word(token, "by");
			is_identified_ = is_same_word(token, "identified");
			return;
		case Tokens::Kind::kSign:
			if (token.front() == ')' || token.front() == '?') {
				keep_to(tokens_.end());
				fold_list(text_);
			}
			break;
		default:
			break;
		}
		is_identified_ = false;
		is_name_next_ = false;
	}

	void replace(std::string_view other) {
		keep_to(tokens_.begin());
		text_ += other;
		kept_ = tokens_.end();
	}

	/* Most of a statement stays as it is. */
	void keep_to(size_t end) {
		text_.append(statement_, kept_, end - kept_);
		kept_ = end;
	}

	const std::string_view statement_;
	Tokens tokens_;
	std::string text_;
	size_t kept_ = 0; /* what stands before that is in the text, or left out */
	bool is_identified_ = false;
	bool is_name_next_ = false;
};

/* What is a literal or a comment in one reading of a statement's backslashes. */
struct Reading {
	Reading(std::string_view statement, bool has_quoted_names, Backslash backslash)
		: marks(statement.size(), ' ') {
		Tokens tokens(statement, has_quoted_names, backslash);
		for (Tokens::Kind kind = tokens.next(); kind != Tokens::Kind::kEnd; kind = tokens.next()) {
			if (kind == Tokens::Kind::kLiteral || kind == Tokens::Kind::kBlank) {
				char mark = kind == Tokens::Kind::kLiteral ? kLiteral : kComment;
				std::fill(marks.begin() + static_cast<std::ptrdiff_t>(tokens.begin()),
						  marks.begin() + static_cast<std::ptrdiff_t>(tokens.end()), mark);
			}
		}
		is_open = tokens.is_open();
	}

	static constexpr char kLiteral = '?';
	static constexpr char kComment = '-';
	std::string marks; /* one for each character */
	bool is_open = false;
};

/*
 * The statement with '?' for each text that is in a literal in either reading, where both make
 * sense; nothing where only the usual one does, in which a backslash is an escape.
 */
std::optional<std::string> masked(std::string_view statement, bool has_quoted_names) {
	Reading usual(statement, has_quoted_names, Backslash::kEscapes);
	Reading standard(statement, has_quoted_names, Backslash::kIsPlain);
	if (!usual.is_open && standard.is_open) {
		return std::nullopt;
	}
	std::string text;
	bool is_in_literal = false;
	for (size_t i = 0; i < statement.size(); i++) {
		char one = usual.marks[i], other = standard.marks[i];
		bool is_literal = one == Reading::kLiteral || other == Reading::kLiteral;
		if (is_literal && !is_in_literal) {
			text += '?';
		} else if (!is_literal) {
			text += one == Reading::kComment || other == Reading::kComment ? ' ' : statement[i];
		}
		is_in_literal = is_literal;
	}
	return text;
}

} // namespace

std::string without_literals(std::string_view statement, bool has_quoted_names) {
	Plain plain(statement, has_quoted_names);
	std::string text = plain.result();
	if (plain.is_certain()) {
		return text;
	}
	std::optional<std::string> other = masked(statement, has_quoted_names);
	return other ? Plain(*other, has_quoted_names).result() : text;
}

bool has_places(std::string_view statement) {
	Tokens tokens(statement, false);
	char before = 0; /* a sign right before, which is none of a place's beginning itself */
	for (Tokens::Kind kind = tokens.next(); kind != Tokens::Kind::kEnd; kind = tokens.next()) {
		char first = tokens.token().front();
		bool is_word = kind == Tokens::Kind::kWord;
		bool is_number = kind == Tokens::Kind::kLiteral && is_digit(first);
		if (first == '?' || (is_word && (first == '$' || before == '@' || before == ':')) ||
			(is_number && before == ':')) {
			return true;
		}
		/* "::" is a cast, "@@" a setting of the server. */
		before = kind != Tokens::Kind::kSign ? 0 : before == first ? '\0' : first;
	}
	return false;
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
