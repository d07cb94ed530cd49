/* The forms in which names and values, users and tokens are written. */
#include <algorithm>
#include <array>
#include <cctype>

#include "analysis/secret_finder_private.h"
#include "analysis/value_ends.h"
#include "util/query_string.h"

namespace kaq {

bool SecretFinder::take_printed(size_t begin) {
	constexpr std::string_view kArray = "Array", kText = "string(";
	size_t open = skip(begin + kArray.size(), kBlanksAndLines);
	if (follows(kArray, begin) && at(open) == '(') {
		hide(begin, balanced_end(text_, open));
		return true;
	}
	size_t inner = 0;
	size_t length =
		follows(kText, begin) ? length_at(text_, begin + kText.size(), ") \"", inner) : 0;
	if (inner > 0) {
		hide(inner, std::min(inner + length, text_.size()));
	}
	return inner > 0;
}

bool SecretFinder::take_serialised() {
	size_t inner = 0;
	if (at_ == 0 || text_[at_ - 1] != 's' || !is_begin(at_ - 1)) {
		return false;
	}
	size_t length = length_at(text_, at_ + 1, ":\"", inner);
	if (inner == 0 || length > text_.size() || !follows("\";", inner + length) ||
		!is_secret(text_.substr(inner, length))) {
		return false;
	}
	size_t value = inner + length + 2;
	length = follows("s:", value) ? length_at(text_, value + 2, ":\"", inner) : 0;
	at_ = value;
	if (length > 0) {
		hide(inner, std::min(inner + length, text_.size()));
	} else if (follows("a:", value) || follows("O:", value)) {
		size_t open = text_.find('{', value);
		hide(value, open == kNowhere ? text_.size() : balanced_end(text_, open));
	} else {
		hide(std::min(value + 2, text_.size()), find_any(";", value));
	}
	return true;
}

void SecretFinder::take_user_of_url() {
	bool is_web = is_web_scheme(name_before(at_));
	size_t begin = at_ + 3;
	at_ = begin;
	size_t end = find_any("/?#\"' \t\r\n<>", begin);
	std::string_view authority = text_.substr(begin, end - begin);
	size_t at_sign = authority.rfind('@');
	size_t colon = authority.rfind(':');
	if (at_sign != kNowhere) {
		return hide(begin, begin + at_sign);
	}
	if (colon == kNowhere || authority.front() == '[' || !is_in(at(end), "/?#")) {
		return;
	}
	/* A password may have a '/' in it; but http://host:80/ has none. */
	std::string_view port = authority.substr(colon + 1);
	if (is_web && colon > 0 && !port.empty() && std::all_of(port.begin(), port.end(), is_digit)) {
		return;
	}
	size_t last = last_at_sign(begin);
	if (last != kNowhere && last > end) {
		hide(begin, last);
	}
}

bool SecretFinder::is_web_scheme(std::string_view scheme) {
	return scheme == "http" || scheme == "https" || scheme == "ws" || scheme == "wss";
}

size_t SecretFinder::last_at_sign(size_t place) {
	if (place >= word_end_) {
		word_end_ = find_any("\"' \t\r\n<>", place);
		last_at_sign_ = last_of('@', place, word_end_);
	}
	return last_at_sign_ != kNowhere && last_at_sign_ >= place ? last_at_sign_ : kNowhere;
}

void SecretFinder::take_user() {
	size_t begin = ++at_;
	if (begin < 2 || !is_name_character(text_[begin - 2])) {
		return;
	}
	if (begin > user_end_) {
		user_end_ = find_any("\"' \t\r\n<>/,;&=\\", begin);
		at_sign_ = last_of('@', begin, user_end_);
	}
	bool is_user = at_sign_ != kNowhere && at_sign_ > begin &&
				   (is_alphanumeric(at(at_sign_ + 1)) || at(at_sign_ + 1) == '[');
	if (is_user && may_be_user(name_before(begin - 1))) {
		hide(begin, at_sign_);
	}
}

bool SecretFinder::may_be_user(std::string_view name) {
	static constexpr std::array<std::string_view, 12> kOthers = {
		"mailto", "sip",    "sips", "xmpp", "acct", "mail",
		"email",  "e-mail", "to",   "from", "cc",   "bcc"};
	bool is_number = std::all_of(name.begin(), name.end(), is_digit);
	return !is_number && std::none_of(kOthers.begin(), kOthers.end(), [name](auto each) {
		return name.size() == each.size() &&
			   std::equal(name.begin(), name.end(), each.begin(),
						  [](char one, char other) { return (one | 0x20) == other; });
	});
}

void SecretFinder::take_dash() {
	size_t begin = at_++;
	if (at(at_) != '-' || take_private_key(begin)) {
		return;
	}
	bool is_first = begin == 0 || is_in(text_[begin - 1], " \t\r\n\"'");
	size_t end = begin + 2;
	while (is_alphanumeric(at(end)) || is_in(at(end), "-_")) {
		end++;
	}
	at_ = end;
	size_t value = skip(end, kBlanks);
	if (is_first && value > end && at(value) != '-' &&
		is_secret(text_.substr(begin + 2, end - begin - 2))) {
		take_value(value, Ending::kWord);
	}
}

bool SecretFinder::take_private_key(size_t begin) {
	constexpr std::string_view kBegin = "-----BEGIN ", kBeginEnd = "-----", kEnd = "-----END ";
	if (!follows(kBegin, begin)) {
		return false;
	}
	size_t name = begin + kBegin.size();
	size_t end = std::min(text_.find(kBeginEnd, name), text_.size());
	at_ = end;
	if (text_.substr(name, end - name).find("PRIVATE KEY") != kNowhere) {
		end = std::min(end + kBeginEnd.size(), text_.size());
		hide(end, std::min(text_.find(kEnd, end), text_.size()));
	}
	return true;
}

void SecretFinder::take_hash() {
	size_t begin = at_++;
	bool is_first = begin == 0 || is_in(text_[begin - 1], kBlanksAndLines);
	if (!is_first || !is_digit(at(at_)) || at(skip(at_, "0123456789")) != ' ') {
		return;
	}
	size_t end = begin;
	do {
		end = std::min(text_.find('#', end + 1), text_.size());
	} while (end < text_.size() &&
			 !(is_digit(at(end + 1)) && is_in(text_[end - 1], kBlanksAndLines)));
	std::string_view frame = text_.substr(begin, end - begin);
	size_t open = frame.find('(', std::min(frame.find(": "), frame.size()));
	size_t close = frame.rfind(')');
	if (open != kNowhere && close > open &&
		frame.substr(open, close - open).find_first_of("'\"") != kNowhere) {
		hide(begin + open + 1, begin + close);
	}
}

void SecretFinder::take_percent() {
	constexpr std::string_view kEnds = "&=?#/;, \t\r\n\"'<>";
	size_t begin = at_++;
	if (begin < decoded_to_ || !is_hex_pair(text_, begin + 1) || depth_ >= kDeepest) {
		return;
	}
	while (begin > kept_ && !is_in(text_[begin - 1], kEnds)) {
		begin--;
	}
	size_t end = find_any(kEnds, at_);
	decoded_to_ = end;
	std::string plain = form_decoded(text_.substr(begin, end - begin));
	SecretFinder within(plain, settings_, TextSyntax::kAny, depth_ + 1);
	if (within.run()) {
		replace(begin, end, encoded_again(within.result()));
		at_ = end;
	}
}

void SecretFinder::take_tag() {
	size_t name = ++at_;
	while (is_name_character(at(at_))) {
		at_++;
	}
	if (at_ > name && at(at_) == ':') {
		name = ++at_;
		while (is_name_character(at(at_))) {
			at_++;
		}
	}
	if (at_ == name || !is_secret(text_.substr(name, at_ - name))) {
		return;
	}
	size_t end = find_any("<>", at_);
	if (at(end) == '>' && text_[end - 1] != '/') {
		hide(end + 1, find_any("<", end));
	}
}

void SecretFinder::take_bearer() {
	size_t begin = at_++;
	size_t blank = follows("earer ", at_) ? at_ + 5 : follows("asic ", at_) ? at_ + 4 : 0;
	if (blank == 0 || !is_begin(begin)) {
		return;
	}
	size_t token = skip(blank, kBlanks);
	size_t end = token;
	while (end < text_.size() && is_token_character(text_[end])) {
		end++;
	}
	if (is_like_token(text_.substr(token, end - token))) {
		hide(token, end);
	}
}

void SecretFinder::take_jwt() {
	constexpr size_t kShortest = 20;
	size_t place = at_++;
	if (place < 2 || !follows("ey", place - 2) || !is_begin(place - 2)) {
		return;
	}
	size_t end = at_;
	bool has_dot = false;
	while (end < text_.size() && (is_alphanumeric(text_[end]) || is_in(text_[end], "_-."))) {
		has_dot = has_dot || text_[end] == '.';
		end++;
	}
	if (has_dot && end - place >= kShortest) {
		hide(place - 2, end);
	}
}

} // namespace kaq
