#include "query/scanner.h"

#include "query/fields.h"

namespace kaq {
namespace {

bool is_letter(char character) {
	return (character >= 'a' && character <= 'z') || (character >= 'A' && character <= 'Z') ||
		   character == '_';
}

bool ends_value(char character) {
	return is_blank(character) || character == '(' || character == ')';
}

void add_literal(std::string &glob, char character) {
	if (character == '*' || character == '?' || character == '\\') {
		glob += '\\';
	}
	glob += character;
}

} // namespace

bool is_blank(char character) {
	return character == ' ' || character == '\t' || character == '\n' || character == '\r';
}

void Scanner::skip_blanks() {
	while (!is_at_end() && is_blank(text_[at_])) {
		at_++;
	}
}

bool Scanner::take(char character) {
	bool is_next = !is_at_end() && text_[at_] == character;
	at_ += is_next ? 1 : 0;
	return is_next;
}

bool Scanner::take_keyword(std::string_view keyword) {
	size_t end = at_ + keyword.size();
	bool is_next = is_same_name(text_.substr(at_, keyword.size()), keyword) &&
				   (end == text_.size() || ends_value(text_[end]));
	at_ = is_next ? end : at_;
	return is_next;
}

std::optional<std::string_view> Scanner::take_field_name(bool is_before_comparison) {
	size_t end = at_;
	while (end < text_.size() && is_letter(text_[end])) {
		end++;
	}
	std::string_view name = text_.substr(at_, end - at_);
	std::string_view rest = text_.substr(end);
	if (name.empty() || rest.empty()) {
		return std::nullopt;
	}
	if (is_before_comparison) {
		if (rest[0] != '<' && rest[0] != '>' && rest[0] != '=') {
			return std::nullopt;
		}
		at_ = end;
		return name;
	}
	if (rest[0] != ':' || rest.substr(1, 1) == ":" || rest.substr(1, 2) == "//") {
		return std::nullopt;
	}
	at_ = end + 1;
	return name;
}

Value Scanner::take_value() {
	Value value;
	value.begin = at_;
	while (!is_at_end() && !ends_value(text_[at_])) {
		if (take('"')) {
			take_quoted(value);
		} else {
			take_bare(value);
		}
	}
	return value;
}

void Scanner::take_quoted(Value &value) {
	while (!is_at_end()) {
		char character = text_[at_++];
		if (character == '"') {
			return;
		}
		if (character == '\\' && (next() == '"' || next() == '\\')) {
			character = text_[at_++];
		}
		add_literal(value.glob, character);
		value.ends_in_star = false;
	}
	value.is_unfinished = true;
}

void Scanner::take_bare(Value &value) {
	constexpr std::string_view escaped = " \t\"\\*?()";
	char character = text_[at_++];
	bool was_star = value.ends_in_star;
	value.ends_in_star = character == '*';
	if (character == '\\' && !is_at_end() && escaped.find(next()) != std::string_view::npos) {
		add_literal(value.glob, text_[at_++]);
	} else if (character == '*') {
		/* Two in a row mean what one means. */
		value.glob += was_star ? "" : "*";
	} else if (character == '?') {
		value.glob += '?';
	} else {
		add_literal(value.glob, character);
	}
}

} // namespace kaq
