#include "analysis/secret_names.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <cstdint>
#include <string>

namespace kaq {
namespace {

template <size_t count> using Words = std::array<std::string_view, count>;

/* No name is secret that has none of them in it. */
constexpr Words<21> kRoots = {"pas",  "pw",  "psw", "key", "oke", "ecr", "ses",
							  "car",  "cre", "srf", "cv",  "sid", "aut", "pin",
							  "ooki", "onc", "otp", "jwt", "mdp", "nnw", "kelv"};

/* Of the whole name. */
constexpr Words<2> kWholeNames = {"pin", "x-skelvor-id"};
/* Anywhere in the name. */
constexpr Words<12> kParts = {"passw",         "passphrase",    "passcode", "pwd",
							  "sessid",        "credential",    "csrf",     "xsrf",
							  "authorization", "authorisation", "kennwort", "cvv"};
/* One of the name's words. */
constexpr Words<21> kWords = {"key",  "keys", "pass", "passes", "pw",    "psw",   "pswd",
							  "card", "sess", "sid",  "cookie", "cred",  "creds", "cvc",
							  "otp",  "totp", "jwt",  "mdp",    "nonce", "cards", "cookies"};
/* The last one of the name's words. */
constexpr Words<2> kLastWords = {"auth", "pin"};
/* What one of the words ends with, and words that do and mean something else. */
constexpr Words<6> kEnds = {"pass", "pw", "key", "card", "cookie", "nonce"};
constexpr Words<33> kOthers = {
	"compass",  "encompass", "bypass",    "trespass",  "surpass",     "overpass", "underpass",
	"bandpass", "highpass",  "lowpass",   "allpass",   "multipass",   "monkey",   "donkey",
	"turkey",   "whiskey",   "hockey",    "jockey",    "hotkey",      "lackey",   "flunkey",
	"malarkey", "smokey",    "mickey",    "discard",   "wildcard",    "postcard", "scorecard",
	"placard",  "vcard",     "flashcard", "punchcard", "businesscard"};
/* What follows "card" within a word: cardnumber, but not cardinal. */
constexpr Words<12> kOfCards = {"nu",  "no",  "nr",   "ho", "co",  "cv",
								"exp", "pan", "data", "id", "sec", "val"};
/* Parts that are secret unless one of these stands there. */
struct Part {
	std::string_view part;
	Words<2> before;
	Words<2> behind;
};
constexpr std::array<Part, 3> kPartsButFor = {
	{{"session", {"pos", "ob"}, {}}, {"secret", {}, {"ar", "io"}}, {"token", {}, {"iz", "is"}}}};

constexpr bool is_letter(unsigned char byte) {
	return ((byte | 0x20) >= 'a' && (byte | 0x20) <= 'z') || byte >= 0x80;
}

constexpr bool is_upper(unsigned char byte) {
	return byte >= 'A' && byte <= 'Z';
}

bool starts_with(std::string_view text, std::string_view start) {
	return text.substr(0, start.size()) == start;
}

bool ends_with(std::string_view text, std::string_view end) {
	return text.size() >= end.size() && text.substr(text.size() - end.size()) == end;
}

template <size_t count> bool is_one_of(std::string_view text, const Words<count> &words) {
	return std::find(words.begin(), words.end(), text) != words.end();
}

/* All roots looked for in one pass: each has a bit for each of its characters, which is set while
 * what was read ends with the root up to there. */
struct RootTable {
	constexpr RootTable() {
		size_t bit = 0;
		for (std::string_view root : kRoots) {
			begins |= uint64_t{1} << bit;
			for (char character : root) {
				for (char spelled : {character, static_cast<char>(character & ~0x20)}) {
					bits[static_cast<unsigned char>(spelled)] |= uint64_t{1} << bit;
				}
				bit++;
			}
			ends |= (uint64_t{1} << bit) >> 1;
		}
	}

	bool finds_one(std::string_view name) const {
		uint64_t state = 0;
		for (char character : name) {
			state = ((state << 1) | begins) & bits[static_cast<unsigned char>(character)];
			if ((state & ends) != 0) {
				return true;
			}
		}
		return false;
	}

	std::array<uint64_t, 256> bits = {};
	uint64_t begins = 0;
	uint64_t ends = 0;
};

constexpr size_t total_of_roots() {
	size_t total = 0;
	for (std::string_view root : kRoots) {
		total += root.size();
	}
	return total;
}
static_assert(total_of_roots() <= 64, "a bit for each character");

constexpr RootTable kRootTable;

/* Where the word that begins there ends: before a sign, between letters and digits, and where a
 * capital begins another word, as in "apiKey" and "APIKey". */
size_t end_of_word(std::string_view name, size_t begin) {
	auto byte = [&name](size_t at) { return static_cast<unsigned char>(name[at]); };
	size_t end = begin + 1;
	while (end < name.size() && is_letter(byte(end))) {
		bool begins_after_small = is_upper(byte(end)) && !is_upper(byte(end - 1));
		bool begins_before_small = is_upper(byte(end)) && end + 1 < name.size() &&
								   is_letter(byte(end + 1)) && !is_upper(byte(end + 1));
		if (begins_after_small || begins_before_small) {
			break;
		}
		end++;
	}
	return end;
}

bool is_secret_word(std::string_view word, bool is_last) {
	if (is_one_of(word, kWords) || (is_last && is_one_of(word, kLastWords))) {
		return true;
	}
	std::string_view one =
		ends_with(word, "s") && !ends_with(word, "ss") ? word.substr(0, word.size() - 1) : word;
	bool has_end = std::any_of(kEnds.begin(), kEnds.end(),
							   [one](std::string_view end) { return ends_with(one, end); });
	if (has_end && !is_one_of(one, kOthers)) {
		return true;
	}
	return starts_with(word, "card") &&
		   std::any_of(kOfCards.begin(), kOfCards.end(),
					   [word](std::string_view each) { return starts_with(word.substr(4), each); });
}

bool has_part(std::string_view lowered, const Part &wanted) {
	for (size_t at = lowered.find(wanted.part); at != std::string_view::npos;
		 at = lowered.find(wanted.part, at + 1)) {
		std::string_view before = lowered.substr(0, at);
		std::string_view behind = lowered.substr(at + wanted.part.size());
		bool is_other = false;
		for (size_t i = 0; i < wanted.before.size(); i++) {
			is_other = is_other ||
					   (!wanted.before[i].empty() && ends_with(before, wanted.before[i])) ||
					   (!wanted.behind[i].empty() && starts_with(behind, wanted.behind[i]));
		}
		if (!is_other) {
			return true;
		}
	}
	return false;
}

std::string lower(std::string_view text) {
	std::string result(text);
	for (char &character : result) {
		character = static_cast<char>(
			is_upper(static_cast<unsigned char>(character)) ? character | 0x20 : character);
	}
	return result;
}

bool has_secret_word(std::string_view name, const std::string &lowered) {
	for (size_t begin = 0; begin < name.size();) {
		if (!is_letter(static_cast<unsigned char>(name[begin]))) {
			begin++;
			continue;
		}
		size_t end = end_of_word(name, begin);
		auto is_end = [](char each) { return !is_letter(static_cast<unsigned char>(each)); };
		bool is_last =
			std::all_of(name.begin() + static_cast<std::ptrdiff_t>(end), name.end(), is_end);
		if (is_secret_word(std::string_view(lowered).substr(begin, end - begin), is_last)) {
			return true;
		}
		begin = end;
	}
	return false;
}

} // namespace

bool says_secret(std::string_view name) {
	if (!kRootTable.finds_one(name)) {
		return false;
	}
	std::string lowered = lower(name);
	auto is_in = [&lowered](std::string_view part) {
		return lowered.find(part) != std::string::npos;
	};
	return is_one_of(lowered, kWholeNames) || std::any_of(kParts.begin(), kParts.end(), is_in) ||
		   std::any_of(kPartsButFor.begin(), kPartsButFor.end(),
					   [&lowered](const Part &part) { return has_part(lowered, part); }) ||
		   has_secret_word(name, lowered);
}

bool says_secret_line(std::string_view name) {
	std::string lowered = lower(name);
	constexpr Words<4> kOfLines = {"pas", "pw", "authori", "cookie"};
	return std::any_of(kOfLines.begin(), kOfLines.end(), [&lowered](std::string_view part) {
		return lowered.find(part) != std::string::npos;
	});
}

bool is_secret_name(std::string_view name, const ScrubSettings &settings) {
	if (says_secret(name)) {
		return true;
	}
	return std::any_of(settings.secret_names.begin(), settings.secret_names.end(),
					   [name](const std::string &each) {
						   return name.size() == each.size() &&
								  std::equal(name.begin(), name.end(), each.begin(),
											 [](char one, char other) {
												 return tolower(static_cast<unsigned char>(one)) ==
														tolower(static_cast<unsigned char>(other));
											 });
					   });
}

} // namespace kaq
