/* The pieces of a query: names of fields, values in quotes and without. Refers to the text. */
#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace kaq {

/* A value, with what was quoted or escaped told apart from wildcards. */
struct Value {
	std::string glob;           /* as TextIs has it */
	size_t begin = 0;           /* its place in the text */
	bool is_unfinished = false; /* a quote is open */
	bool ends_in_star = false;  /* a wildcard, that is */
};

class Scanner {
public:
	explicit Scanner(std::string_view text) : text_(text) {
	}

	size_t at() const {
		return at_;
	}
	void skip_blanks();
	bool is_at_end() const {
		return at_ == text_.size();
	}
	char next() const {
		return is_at_end() ? '\0' : text_[at_];
	}
	/* Takes this character if it comes next. */
	bool take(char character);
	/* Takes this word, in capitals or not, if it comes next and is not part of a longer one. */
	bool take_keyword(std::string_view keyword);
	/* Takes what may be the name of a field and the colon behind it ("a:", but neither "a::" nor
	 * "a://"); before a comparison ("a>") the name alone. */
	std::optional<std::string_view> take_field_name(bool is_before_comparison);
	/* To the next blank or parenthesis outside of quotes. */
	Value take_value();

private:
	void take_quoted(Value &value);
	void take_bare(Value &value);

	std::string_view text_;
	size_t at_ = 0;
};

bool is_blank(char character);

} // namespace kaq
