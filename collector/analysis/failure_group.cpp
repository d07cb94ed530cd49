#include "analysis/failure_group.h"

#include <xxhash.h>

#include <cctype>
#include <cstdio>

#include "analysis/naming.h"
#include "analysis/statements.h"

namespace kaq {
namespace {

constexpr size_t kLongestLookedAt = 4096;
constexpr size_t kLongestMessage = 512;
constexpr size_t kLongestType = 256;
constexpr size_t kMostDigitsOfAWord = 3; /* "utf8", "42S02", but not "order12345" */

bool is_blank(char character) {
	return isspace(static_cast<unsigned char>(character)) != 0;
}

bool is_word_character(char character) {
	return isalnum(static_cast<unsigned char>(character)) != 0 || (character & 0x80) != 0;
}

bool is_digit(char character) {
	return isdigit(static_cast<unsigned char>(character)) != 0;
}

/* Walks through a message word by word. */
class Rewriter {
public:
	explicit Rewriter(std::string_view message) : text_(message) {
	}

	std::string result() {
		while (at_ < text_.size() && out_.size() < kLongestMessage) {
			if (is_blank(text_[at_])) {
				take_blanks();
			} else if (is_opening_quote()) {
				take_quoted();
			} else if (ends_words(text_[at_])) {
				out_ += text_[at_++];
			} else {
				take_word();
			}
		}
		while (!out_.empty() && out_.back() == ' ') {
			out_.pop_back();
		}
		return std::string(shortened(out_, kLongestMessage));
	}

private:
	static bool ends_words(char character) {
		return std::string_view("\"'`()[]{}<>,;=|").find(character) != std::string_view::npos;
	}

	void take_blanks() {
		while (at_ < text_.size() && is_blank(text_[at_])) {
			at_++;
		}
		out_ += ' ';
	}

	/* An apostrophe stands within a word. */
	bool is_opening_quote() const {
		char quote = text_[at_];
		bool is_quote = quote == '"' || quote == '\'' || quote == '`';
		return is_quote && (at_ == 0 || !is_word_character(text_[at_ - 1]));
	}

	/* A quote that nothing ends is a sign like any other. */
	void take_quoted() {
		char quote = text_[at_];
		size_t end = at_ + 1;
		while (end < text_.size() && (text_[end] != quote || (end + 1 < text_.size() &&
															  is_word_character(text_[end + 1])))) {
			end++;
		}
		if (end >= text_.size()) {
			out_ += text_[at_++];
			return;
		}
		out_ += quote;
		out_ += '*';
		out_ += quote;
		at_ = end + 1;
	}

	void take_word() {
		size_t end = at_;
		while (end < text_.size() && !is_blank(text_[end]) && !ends_words(text_[end])) {
			end++;
		}
		std::string_view word = text_.substr(at_, end - at_);
		at_ = end;
		/* What ends a sentence is no part of its last word. */
		size_t length = word.find_last_not_of(".:!?");
		length = length == std::string_view::npos ? word.size() : length + 1;
		out_ += rewritten(word.substr(0, length));
		out_ += word.substr(length);
	}

	static std::string rewritten(std::string_view word) {
		bool is_path = word.find('/') != std::string_view::npos;
		if (is_path) {
			return without_digits(normalised_path(word));
		}
		bool is_pointer = word.size() > 2 && word[0] == '0' && (word[1] | 0x20) == 'x';
		return is_pointer || is_varying(word) ? "*" : without_digits(word);
	}

	/* What a number, with a sign before it or a unit behind it, becomes. */
	static std::string without_digits(std::string_view word) {
		std::string kept;
		for (size_t at = 0; at < word.size();) {
			size_t end = at;
			while (end < word.size() && is_digit(word[end])) {
				end++;
			}
			bool is_begun = at > 0 && is_word_character(word[at - 1]);
			bool is_continued = end < word.size() && is_word_character(word[end]);
			if (end == at) {
				kept += word[at++];
				continue;
			}
			bool belongs_to_word = (is_begun || is_continued) && end - at <= kMostDigitsOfAWord;
			kept += belongs_to_word ? std::string(word.substr(at, end - at)) : "*";
			at = end;
		}
		return kept;
	}

	const std::string_view text_;
	size_t at_ = 0;
	std::string out_;
};

struct Uncaught {
	std::string_view type;
	std::string_view message;
};

/* "Uncaught TYPE: MESSAGE in FILE:LINE\nStack trace:..."; of a chain the last one, after "Next". */
Uncaught uncaught_of(std::string_view text) {
	constexpr std::string_view kBegin = "Uncaught ", kNext = "\nNext ", kStack = "\nStack trace:";
	if (text.substr(0, kBegin.size()) != kBegin) {
		return {};
	}
	text.remove_prefix(kBegin.size());
	size_t next = text.rfind(kNext);
	if (next != std::string_view::npos) {
		text.remove_prefix(next + kNext.size());
	}
	text = text.substr(0, text.find(kStack));
	size_t place = text.rfind(" in ");
	text = text.substr(0, place);
	size_t colon = text.find(": ");
	if (colon == std::string_view::npos) {
		return {text, {}};
	}
	return {text.substr(0, colon), text.substr(colon + 2)};
}

std::string hash_of(const FailureGroup &group) {
	std::string all = group.type + '\n' + group.place + '\n' + group.message;
	XXH128_hash_t hash = XXH3_128bits(all.data(), all.size());
	char digits[33];
	snprintf(digits, sizeof digits, "%016llx%016llx", static_cast<unsigned long long>(hash.high64),
			 static_cast<unsigned long long>(hash.low64));
	return digits;
}

} // namespace

std::string FailureGroup::readable() const {
	std::string text = type == "ERROR" ? message : type + (message.empty() ? "" : ": " + message);
	if (place.empty()) {
		return text;
	}
	size_t slash = place.rfind('/');
	return text + " (" + place.substr(slash == std::string::npos ? 0 : slash + 1) + ")";
}

FailureGroup group_of(const Failure &failure) {
	FailureGroup group;
	std::string_view message = shortened(failure.message, kLongestLookedAt);
	std::string_view type = failure.type;
	Uncaught uncaught = type == "ERROR" ? uncaught_of(message) : Uncaught();
	group.is_uncaught = !uncaught.type.empty();
	if (group.is_uncaught) {
		type = uncaught.type;
		message = uncaught.message;
	}
	group.type = shortened(type, kLongestType);
	if (!failure.file.empty()) {
		std::string file = normalised_path(shortened(failure.file, kLongestLookedAt));
		group.place = shortened(file, kLongestMessage);
		group.place += ":" + std::to_string(failure.line);
	}
	group.message = without_variables(message);
	group.key = hash_of(group);
	return group;
}

bool is_serious(const Failure &failure) {
	return failure.level == "Error";
}

std::string without_variables(std::string_view message) {
	return Rewriter(shortened(message, kLongestLookedAt)).result();
}

} // namespace kaq
