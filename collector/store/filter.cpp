#include "store/filter.h"

#include <algorithm>

namespace kaq {
namespace {

char lower(char character) {
	return character >= 'A' && character <= 'Z' ? static_cast<char>(character + ('a' - 'A'))
												: character;
}

bool is_word_character(char character) {
	auto byte = static_cast<unsigned char>(character);
	char small = lower(character);
	return byte >= 0x80 || character == '_' || (small >= 'a' && small <= 'z') ||
		   (character >= '0' && character <= '9');
}

/* The position behind the character of UTF-8 that begins at `at`. */
size_t behind_character(std::string_view text, size_t at) {
	at++;
	while (at < text.size() && (static_cast<unsigned char>(text[at]) & 0xc0) == 0x80) {
		at++;
	}
	return at;
}

/* One element of a glob, read from its front. */
struct GlobPart {
	enum class Kind { kLiteral, kAnyCharacter, kAnyText };

	explicit GlobPart(std::string_view glob) {
		if (glob[0] == '*') {
			kind = Kind::kAnyText;
		} else if (glob[0] == '?') {
			kind = Kind::kAnyCharacter;
		} else if (glob[0] == '\\' && glob.size() > 1) {
			character = glob[1];
			length = 2;
		} else {
			character = glob[0];
		}
	}

	Kind kind = Kind::kLiteral;
	char character = 0;
	size_t length = 1;
};

/* The words of a text, one after the other. */
class WordReader {
public:
	explicit WordReader(std::string_view text) : rest_(text) {
	}

	/* Empty when there are no more. */
	std::string_view next() {
		auto begin = std::find_if(rest_.begin(), rest_.end(), is_word_character);
		auto end = std::find_if_not(begin, rest_.end(), is_word_character);
		std::string_view word = rest_.substr(static_cast<size_t>(begin - rest_.begin()),
											 static_cast<size_t>(end - begin));
		rest_.remove_prefix(static_cast<size_t>(end - rest_.begin()));
		return word;
	}

private:
	std::string_view rest_;
};

bool begins_with_word(std::string_view text, std::string_view lower_word) {
	return text.size() >= lower_word.size() &&
		   std::equal(lower_word.begin(), lower_word.end(), text.begin(),
					  [](char one, char other) { return one == lower(other); });
}

/* Whether the phrase stands at the reader's place, with its first word already read. */
bool continues(WordReader reader, std::string_view word, const Words &phrase) {
	for (size_t i = 0; i < phrase.words.size(); i++) {
		bool is_part = phrase.is_prefix && i + 1 == phrase.words.size();
		if (word.empty() || !begins_with_word(word, phrase.words[i]) ||
			(!is_part && word.size() != phrase.words[i].size())) {
			return false;
		}
		word = reader.next();
	}
	return true;
}

struct Matcher {
	const RequestView &request;

	bool operator()(const And &node) const {
		return std::all_of(node.conditions.begin(), node.conditions.end(),
						   [this](const Condition &each) { return matches(each, request); });
	}
	bool operator()(const Or &node) const {
		return std::any_of(node.conditions.begin(), node.conditions.end(),
						   [this](const Condition &each) { return matches(each, request); });
	}
	bool operator()(const Not &node) const {
		return !matches(*node.condition, request);
	}
	bool operator()(const TextIs &node) const {
		return request.has_text(
			node.field, [&node](std::string_view text) { return is_like(text, node.glob); });
	}
	bool operator()(const NumberIs &node) const {
		int64_t number = request.number(node.field);
		return node.least <= number && number <= node.most;
	}
	bool operator()(const Words &node) const {
		auto test = [&node](std::string_view text) { return has_words(text, node); };
		if (node.field != WordField::kAnywhere) {
			return request.has_text(node.field, test);
		}
		return request.has_text(TextField::kPath, test) ||
			   request.has_text(TextField::kName, test) ||
			   request.has_text(WordField::kStatement, test) ||
			   request.has_text(WordField::kFunction, test) ||
			   request.has_text(WordField::kError, test);
	}
	bool operator()(const FlagIs &node) const {
		return request.has(node.flag);
	}
};

bool operator==(const And &one, const And &other) {
	return one.conditions == other.conditions;
}

bool operator==(const Or &one, const Or &other) {
	return one.conditions == other.conditions;
}

bool operator==(const Not &one, const Not &other) {
	return *one.condition == *other.condition;
}

bool operator==(const TextIs &one, const TextIs &other) {
	return one.field == other.field && one.glob == other.glob;
}

bool operator==(const NumberIs &one, const NumberIs &other) {
	return one.field == other.field && one.least == other.least && one.most == other.most;
}

bool operator==(const Words &one, const Words &other) {
	return one.field == other.field && one.words == other.words && one.is_prefix == other.is_prefix;
}

bool operator==(const FlagIs &one, const FlagIs &other) {
	return one.flag == other.flag;
}

} // namespace

bool operator==(const Condition &one, const Condition &other) {
	return std::visit(
		[](const auto &left, const auto &right) {
			if constexpr (std::is_same_v<decltype(left), decltype(right)>) {
				return left == right;
			} else {
				return false;
			}
		},
		one.node, other.node);
}

bool operator==(const Filter &one, const Filter &other) {
	return one.range.from == other.range.from && one.range.to == other.range.to &&
		   one.condition == other.condition;
}

bool matches(const Condition &condition, const RequestView &request) {
	return std::visit(Matcher{request}, condition.node);
}

bool matches(const Filter &filter, const RequestView &request) {
	return filter.range.has(request.start()) && matches(filter.condition, request);
}

bool is_like(std::string_view text, std::string_view glob) {
	size_t at = 0;
	std::optional<std::string_view> behind_star;
	size_t star_at = 0;
	while (at < text.size()) {
		std::optional<GlobPart> part;
		if (!glob.empty()) {
			part.emplace(glob);
		}
		if (part && part->kind == GlobPart::Kind::kAnyText) {
			glob.remove_prefix(1);
			behind_star = glob;
			star_at = at;
		} else if (part && part->kind == GlobPart::Kind::kAnyCharacter) {
			glob.remove_prefix(1);
			at = behind_character(text, at);
		} else if (part && lower(part->character) == lower(text[at])) {
			glob.remove_prefix(part->length);
			at++;
		} else if (behind_star) {
			glob = *behind_star;
			at = star_at = behind_character(text, star_at);
		} else {
			return false;
		}
	}
	return glob.find_first_not_of('*') == std::string_view::npos;
}

std::optional<std::string> literal_of(std::string_view glob) {
	std::string literal;
	while (!glob.empty()) {
		GlobPart part(glob);
		if (part.kind != GlobPart::Kind::kLiteral) {
			return std::nullopt;
		}
		literal += part.character;
		glob.remove_prefix(part.length);
	}
	return literal;
}

std::string like_operand(std::string_view glob) {
	std::string operand;
	while (!glob.empty()) {
		GlobPart part(glob);
		if (part.kind == GlobPart::Kind::kAnyText) {
			operand += '%';
		} else if (part.kind == GlobPart::Kind::kAnyCharacter) {
			operand += '_';
		} else {
			if (part.character == '%' || part.character == '_' || part.character == '\\') {
				operand += '\\';
			}
			operand += part.character;
		}
		glob.remove_prefix(part.length);
	}
	return operand;
}

std::string glob_of(std::string_view literal) {
	std::string glob;
	for (char character : literal) {
		if (character == '*' || character == '?' || character == '\\') {
			glob += '\\';
		}
		glob += character;
	}
	return glob;
}

std::vector<std::string> words_of(std::string_view text) {
	std::vector<std::string> words;
	WordReader reader(text);
	for (std::string_view word = reader.next(); !word.empty(); word = reader.next()) {
		std::string &kept = words.emplace_back(word);
		std::transform(kept.begin(), kept.end(), kept.begin(), lower);
	}
	return words;
}

bool has_words(std::string_view text, const Words &words) {
	WordReader reader(text);
	for (std::string_view word = reader.next(); !word.empty(); word = reader.next()) {
		if (continues(reader, word, words)) {
			return true;
		}
	}
	return false;
}

std::string fts_query(const Words &words) {
	std::string query = "\"";
	for (const std::string &word : words.words) {
		query += query.size() > 1 ? " " + word : word;
	}
	return query + (words.is_prefix ? "\" *" : "\"");
}

} // namespace kaq
