/* What the parts of looking for secrets in a text share. */
#pragma once

#include <algorithm>
#include <cctype>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "analysis/secret_texts.h"

namespace kaq {

constexpr size_t kNowhere = std::string_view::npos;
/* What is encoded may hold what is encoded. */
constexpr int kDeepest = 3;
constexpr std::string_view kBlanks = " \t";
constexpr std::string_view kBlanksAndLines = " \t\r\n";

inline bool is_digit(char character) {
	return character >= '0' && character <= '9';
}

inline bool is_alphanumeric(char character) {
	return isalnum(static_cast<unsigned char>(character)) != 0;
}

inline bool is_in(char character, std::string_view set) {
	return set.find(character) != kNowhere;
}

inline bool is_name_character(char character) {
	return is_alphanumeric(character) || is_in(character, "_-.[]%$+");
}

inline bool is_token_character(char character) {
	return is_alphanumeric(character) || is_in(character, "._~+/=-");
}

inline bool is_hex_pair(std::string_view text, size_t at) {
	return at + 1 < text.size() && isxdigit(static_cast<unsigned char>(text[at])) != 0 &&
		   isxdigit(static_cast<unsigned char>(text[at + 1])) != 0;
}

/* Walks through a text once, and writes it anew where there is a secret. */
class SecretFinder {
public:
	SecretFinder(std::string_view text, const ScrubSettings &settings, TextSyntax syntax,
				 int depth = 0)
		: text_(text), settings_(settings), syntax_(syntax), depth_(depth) {
	}

	/* Whether there was any. */
	bool run();
	/* The text without them. REQUIRES: run. */
	std::string result();

private:
	/* How a value ends that has no quotes. */
	enum class Ending { kWord, kLine, kMember, kParameter };

	void take(uint8_t start);
	char at(size_t place) const {
		return place < text_.size() ? text_[place] : '\0';
	}
	bool follows(std::string_view what, size_t place) const {
		return text_.substr(std::min(place, text_.size()), what.size()) == what;
	}
	size_t skip(size_t place, std::string_view what) const {
		return std::min(text_.find_first_not_of(what, place), text_.size());
	}
	size_t find_any(std::string_view what, size_t place) const {
		return std::min(text_.find_first_of(what, place), text_.size());
	}
	size_t last_of(char character, size_t begin, size_t end) const {
		size_t place = text_.substr(begin, end - begin).rfind(character);
		return place == kNowhere ? kNowhere : begin + place;
	}
	/* Whether no word goes on there. */
	bool is_begin(size_t place) const {
		return place == 0 || !is_alphanumeric(text_[place - 1]);
	}
	bool is_secret(std::string_view name) const;
	void hide(size_t begin, size_t end);
	void replace(size_t begin, size_t end, const std::string &other);
	/* All digits up to the next character that is none are one number. */
	void take_number();
	/* The name that ends there, without what stands around it: name , "name" , \"name\" */
	std::string_view name_before(size_t end) const;
	/* name=value, name = value, [name] => value */
	void take_equals();
	void take_colon();
	void take_value(size_t begin, Ending ending);
	size_t value_end(size_t begin, Ending ending) const;
	/* As print_r() and var_dump() show a value. */
	bool take_printed(size_t begin);
	/* s:8:"password";s:6:"secret"; as serialize() writes it */
	bool take_serialised();
	/* In //user:password@host the user's part is hidden whole. */
	void take_user_of_url();
	static bool is_web_scheme(std::string_view scheme);
	/* In what goes on there without a blank. It is looked for once. */
	size_t last_at_sign(size_t place);
	/* user:password@host */
	void take_user();
	/* Not what stands before an address, nor an hour. */
	static bool may_be_user(std::string_view name);
	/* --name value, and private keys */
	void take_dash();
	bool take_private_key(size_t begin);
	/* What functions were given: "#0 /srv/a.php(3): PDO->__construct('mysql:...', 'root', ...)" */
	void take_hash();
	/* What is encoded is looked at as it is meant. */
	void take_percent();
	/* <name>value</name> */
	void take_tag();
	/* Bearer token, Basic token */
	void take_bearer();
	/* A JSON object in Base64 begins with "eyJ", and a dot follows it. */
	void take_jwt();

	const std::string_view text_;
	const ScrubSettings &settings_;
	const TextSyntax syntax_;
	const int depth_;
	size_t at_ = 0;
	size_t kept_ = 0; /* what stands before it is in `out_`, or left out */
	bool has_found_ = false;
	std::string out_;
	/* What was looked for ahead, so that it is looked for once. */
	size_t decoded_to_ = 0;
	size_t word_end_ = 0;
	size_t last_at_sign_ = kNowhere;
	size_t user_end_ = 0;
	size_t at_sign_ = kNowhere;
};

} // namespace kaq
