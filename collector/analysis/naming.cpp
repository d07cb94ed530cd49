#include "analysis/naming.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <cstdint>

#include "util/query_string.h"

namespace kaq {
namespace {

constexpr size_t kLongestName = 256;
constexpr size_t kMostSegments = 16;
/* Words of a language are shorter, and hashes are not. */
constexpr size_t kShortestHash = 8;
constexpr size_t kShortestToken = 20;

bool is_digit(char character) {
	return character >= '0' && character <= '9';
}

bool is_hex(char character) {
	char lower = static_cast<char>(character | 0x20);
	return is_digit(character) || (lower >= 'a' && lower <= 'f');
}

bool is_letter(char character) {
	char lower = static_cast<char>(character | 0x20);
	return lower >= 'a' && lower <= 'z';
}

/* 12, 3.5, 2024-05-01, 12:30, 1,000, 7%20: digits and what stands between digits. */
bool is_number_or_date(std::string_view text) {
	bool has_digit = false;
	for (char character : text) {
		has_digit = has_digit || is_digit(character);
		if (!is_digit(character) &&
			std::string_view(".,:-_+~").find(character) == std::string_view::npos) {
			return false;
		}
	}
	return has_digit;
}

/* UUIDs and hashes: nothing but hexadecimal digits and dashes, with a decimal digit among them. */
bool is_hash(std::string_view text) {
	if (text.size() < kShortestHash) {
		return false;
	}
	bool has_digit = false;
	for (char character : text) {
		has_digit = has_digit || is_digit(character);
		if (!is_hex(character) && character != '-') {
			return false;
		}
	}
	return has_digit;
}

bool is_address(std::string_view text) {
	size_t at = text.find('@');
	if (at == std::string_view::npos) {
		at = text.find("%40");
	}
	return at != std::string_view::npos && at > 0 && text.find('.', at) != std::string_view::npos;
}

/* Which letters follow each letter in words of English, French, German, Italian and Spanish: a bit
 * for each, 'a' the lowest one. */
constexpr std::array<uint32_t, 26> kUsualPairs = {
	0x37fbffe, 0x01e4953, 0x11e4d95, 0x1164959, 0x3ffffff, 0x01e4971, 0x01e69d1,
	0x15e7951, 0x23ffe7f, 0x0104111, 0x01e6911, 0x33c7d7f, 0x01cd113, 0x37fefff,
	0x37fffff, 0x01ec9b1, 0x0100000, 0x37efdff, 0x37ffdf7, 0x35e49d7, 0x2aeffff,
	0x0224111, 0x0166191, 0x0088110, 0x0049111, 0x2584111};

bool is_usual_pair(char one, char other) {
	auto row = static_cast<size_t>((one | 0x20) - 'a');
	return ((kUsualPairs[row] >> ((other | 0x20) - 'a')) & 1) != 0;
}

/* Whether it is made of letters and digits as chance has them, and not of words: letters stand side
 * by side that do so in few words, or beside digits. */
bool is_random(std::string_view text) {
	constexpr size_t kFewest = 4;
	constexpr size_t kOneOutOf = 5;
	size_t pairs = 0;
	size_t unusual = 0;
	for (size_t i = 1; i < text.size(); i++) {
		if (text[i - 1] == '%') {
			i += 2; /* an encoded character */
			continue;
		}
		bool are_letters = is_letter(text[i - 1]) && is_letter(text[i]);
		bool are_digits = is_digit(text[i - 1]) && is_digit(text[i]);
		bool are_mixed = (is_letter(text[i - 1]) && is_digit(text[i])) ||
						 (is_digit(text[i - 1]) && is_letter(text[i]));
		/* Words begin with a capital. */
		bool is_between_words = text[i - 1] >= 'a' && text[i] <= 'Z';
		pairs += are_letters || are_digits || are_mixed ? 1 : 0;
		unusual +=
			are_mixed || (are_letters && !is_between_words && !is_usual_pair(text[i - 1], text[i]))
				? 1
				: 0;
	}
	return unusual >= kFewest && unusual * kOneOutOf >= pairs;
}

/* Long, and letters and digits change places, or stand side by side, as they do in no words. */
bool is_token(std::string_view text) {
	if (text.size() < kShortestToken) {
		return false;
	}
	size_t changes = 0;
	size_t digits = 0;
	for (size_t i = 0; i < text.size(); i++) {
		if (!is_letter(text[i]) && !is_digit(text[i]) &&
			std::string_view("-_=.%~+").find(text[i]) == std::string_view::npos) {
			return false;
		}
		digits += is_digit(text[i]);
		changes += i > 0 && is_digit(text[i]) != is_digit(text[i - 1]);
	}
	return (digits >= 3 && changes >= 4) || is_random(text);
}

/* ".html", ".mp4" */
bool is_ending(std::string_view text) {
	constexpr size_t longest = 6;
	if (text.size() < 2 || text.size() > longest || !is_letter(text[1])) {
		return false;
	}
	return std::all_of(text.begin() + 1, text.end(),
					   [](char each) { return is_letter(each) || is_digit(each); });
}

/* A segment with its ending: "123.html" is "*.html". */
std::string normalised_segment(std::string_view segment) {
	size_t dot = segment.rfind('.');
	if (dot != std::string_view::npos && dot > 0 && is_ending(segment.substr(dot)) &&
		is_varying(segment.substr(0, dot))) {
		return "*" + std::string(segment.substr(dot));
	}
	return is_varying(segment) ? "*" : std::string(segment);
}

/* A wiki's special pages are few, the others are many: "Special:Search", "Talk:*", "*". */
std::string title_name(std::string_view title) {
	constexpr std::string_view kSpecial = "Special:";
	constexpr size_t kLongestNamespace = 32;
	if (title.substr(0, kSpecial.size()) == kSpecial) {
		return normalised_path(title.substr(0, title.find('/'))) +
			   (title.find('/') == std::string_view::npos ? "" : "/*");
	}
	size_t colon = title.find(':');
	bool has_namespace = colon <= kLongestNamespace;
	return has_namespace ? std::string(title.substr(0, colon + 1)) + "*" : "*";
}

std::string with_parameters(std::string name, std::string_view query, const NamingRule &rule) {
	char separator = '?';
	auto add = [&](const std::string &parameter, const std::string &value) {
		name += separator + parameter + "=" + value;
		separator = '&';
	};
	if (!rule.title.empty()) {
		std::string_view value = query_parameter(query, rule.title);
		if (!value.empty()) {
			add(rule.title, title_name(form_decoded(value)));
		}
	}
	for (const std::string &each : rule.parameters) {
		std::string_view value = query_parameter(query, each);
		if (!value.empty()) {
			/* "%2F" and "%3A" are common in the names of pages, and read badly. */
			add(each, normalised_path(percent_decoded(value)));
		}
	}
	return name;
}

bool applies(const NamingRule &rule, std::string_view application, std::string_view path) {
	return (rule.application.empty() || matches_glob(application, rule.application)) &&
		   matches_glob(path, rule.path);
}

} // namespace

bool matches_glob(std::string_view text, std::string_view glob) {
	size_t at = 0;
	size_t in_glob = 0;
	size_t star = std::string_view::npos;
	size_t star_at = 0;
	while (at < text.size()) {
		if (in_glob < glob.size() && glob[in_glob] == '*') {
			star = in_glob++;
			star_at = at;
		} else if (in_glob < glob.size() && (glob[in_glob] == '?' || glob[in_glob] == text[at])) {
			in_glob++;
			at++;
		} else if (star != std::string_view::npos) {
			in_glob = star + 1;
			at = ++star_at;
		} else {
			return false;
		}
	}
	return glob.find_first_not_of('*', in_glob) == std::string_view::npos;
}

bool is_varying(std::string_view word) {
	return is_number_or_date(word) || is_hash(word) || is_address(word) || is_token(word);
}

std::string normalised_path(std::string_view path) {
	std::string name;
	for (size_t count = 0; !path.empty(); count++) {
		size_t end = std::min(path.find('/'), path.size());
		if (count > kMostSegments || name.size() > kLongestName) {
			return name + "*";
		}
		name += normalised_segment(path.substr(0, end));
		if (end < path.size()) {
			name += '/';
		}
		path.remove_prefix(std::min(end + 1, path.size()));
	}
	return name;
}

const NamingRule *naming_rule(std::string_view application, std::string_view path,
							  const std::vector<NamingRule> &rules) {
	auto rule = std::find_if(rules.begin(), rules.end(), [&](const NamingRule &each) {
		return applies(each, application, path);
	});
	return rule == rules.end() ? nullptr : &*rule;
}

std::string transaction_name(std::string_view application, std::string_view path,
							 std::string_view query, const std::vector<NamingRule> &rules) {
	std::string name;
	const NamingRule *rule = naming_rule(application, path, rules);
	if (!rule) {
		name = normalised_path(path);
	} else {
		name =
			with_parameters(rule->name.empty() ? normalised_path(path) : rule->name, query, *rule);
	}
	if (name.size() > kLongestName) {
		name.resize(kLongestName);
	}
	return name;
}

const std::vector<NamingRule> &usual_naming_rules() {
	static const std::vector<NamingRule> rules = {
		{"", "*/admin-ajax.php", "", {"action"}},                            /* WordPress */
		{"", "*/wp-admin/admin.php", "", {"page"}},                          /* WordPress */
		{"", "*/api.php", "", {"action", "list"}},                           /* MediaWiki */
		{"", "*/load.php", "", {"only"}},                                    /* MediaWiki */
		{"", "*/doku.php*", "", {"do"}},                                     /* DokuWiki */
		{"", "*/index.php", "", {"route", "action", "do", "page"}, "title"}, /* MediaWiki,
																				 phpMyAdmin */
		{"", "/", "", {"route", "rest_route", "do", "action"}},
	};
	return rules;
}

std::vector<NamingRule> with_usual_rules(std::vector<NamingRule> rules) {
	const std::vector<NamingRule> &usual = usual_naming_rules();
	rules.insert(rules.end(), usual.begin(), usual.end());
	return rules;
}

} // namespace kaq
