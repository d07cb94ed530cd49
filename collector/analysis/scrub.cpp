#include "analysis/scrub.h"

#include <array>
#include <cctype>

#include "analysis/sql_text.h"

namespace kaq {
namespace {

/* Of any name that has one of them in it, whatever the case. */
constexpr std::array<std::string_view, 12> kSecretWords = {
	"passw", "passphrase", "pwd",  "token", "secret", "session",
	"card",  "credential", "csrf", "cvv",   "apikey", "phpsessid"};

/* Of the whole name. */
constexpr std::array<std::string_view, 9> kSecretNames = {
	"authorization", "proxy-authorization", "cookie", "set-cookie", "pass", "auth", "sid",
	"pin",           "x-skelvor-id"};

constexpr size_t kShortestCard = 13;
constexpr size_t kLongestCard = 19;

std::string lower(std::string_view text) {
	std::string result;
	for (char character : text) {
		result += static_cast<char>(tolower(static_cast<unsigned char>(character)));
	}
	return result;
}

bool is_digit(char character) {
	return character >= '0' && character <= '9';
}

bool is_name_character(char character) {
	auto byte = static_cast<unsigned char>(character);
	return isalnum(byte) ||
		   (byte != 0 && std::string_view("_-.[]%$").find(character) != std::string_view::npos);
}

/* "key" as a word of its own or at the end of one: api_key, X-Key, licenseKey; not keyword. */
bool says_key(std::string_view name) {
	for (size_t at = name.find("key"); at != std::string_view::npos;
		 at = name.find("key", at + 1)) {
		size_t end = at + 3 + (name.substr(at + 3, 1) == "s" ? 1 : 0);
		if (end == name.size() || !isalpha(static_cast<unsigned char>(name[end]))) {
			return true;
		}
	}
	return false;
}

bool is_luhn(std::string_view digits) {
	int sum = 0;
	bool is_doubled = false;
	for (size_t i = digits.size(); i-- > 0;) {
		int value = digits[i] - '0';
		if (is_doubled) {
			value = value > 4 ? 2 * value - 9 : 2 * value;
		}
		sum += value;
		is_doubled = !is_doubled;
	}
	return sum % 10 == 0;
}

/* The end of a card's number that begins at `at`; `at` itself if there is none. Digits may stand in
 * groups with a blank or a dash between them. */
size_t card_end(std::string_view text, size_t at) {
	std::string digits;
	size_t end = at;
	for (size_t i = at; i < text.size() && digits.size() <= kLongestCard; i++) {
		if (is_digit(text[i])) {
			digits += text[i];
			end = i + 1;
		} else if ((text[i] != ' ' && text[i] != '-') || !is_digit(text[i - 1])) {
			break;
		}
	}
	/* A longer number is none, and zeros alone are valid everywhere. */
	bool is_card = digits.size() >= kShortestCard && digits.size() <= kLongestCard &&
				   digits[0] != '0' && is_luhn(digits);
	return is_card ? end : at;
}

/* Writes a text anew, part by part. */
class Rewriter {
public:
	Rewriter(std::string_view text, const ScrubSettings &settings)
		: text_(text), settings_(settings) {
	}

	std::string result() {
		while (at_ < text_.size()) {
			char character = text_[at_];
			if (is_digit(character)) {
				take_number();
			} else if (character == '=' || character == ':') {
				take_separator();
			} else {
				out_ += character;
				at_++;
			}
		}
		return std::move(out_);
	}

private:
	bool follows(std::string_view what) const {
		return text_.substr(at_, what.size()) == what;
	}

	/* All digits up to the next character that is none are one number. */
	void take_number() {
		bool is_start = at_ == 0 || !isalnum(static_cast<unsigned char>(text_[at_ - 1]));
		size_t end = is_start ? card_end(text_, at_) : at_;
		if (end > at_) {
			out_ += hidden(text_.substr(at_, end - at_));
			at_ = end;
			return;
		}
		while (at_ < text_.size() && is_digit(text_[at_])) {
			out_ += text_[at_++];
		}
	}

	void take_separator() {
		if (follows("://")) {
			take_user_of_url();
		} else if (text_[at_] == '=') {
			take_value(name_before(at_), at_ + 1);
		} else {
			take_json_value();
		}
	}

	/* In //user:password@host the user's part is hidden whole. */
	void take_user_of_url() {
		out_ += "://";
		at_ += 3;
		size_t end = text_.find_first_of("/?#\"' \t\r\n<>", at_);
		size_t at_sign = text_.substr(0, end).rfind('@');
		if (at_sign != std::string_view::npos && at_sign >= at_) {
			out_ += hidden(text_.substr(at_, at_sign - at_));
			at_ = at_sign;
		}
	}

	/* The name that ends there. */
	std::string_view name_before(size_t end) const {
		size_t begin = end;
		while (begin > 0 && is_name_character(text_[begin - 1])) {
			begin--;
		}
		return text_.substr(begin, end - begin);
	}

	void take_value(std::string_view name, size_t begin) {
		out_.append(text_, at_, begin - at_);
		at_ = begin;
		if (name.empty() || !is_secret_name(name, settings_) || begin >= text_.size()) {
			return;
		}
		char quote = text_[begin];
		if (quote == '"' || quote == '\'') {
			take_quoted(quote);
			return;
		}
		size_t end = std::min(text_.find_first_of("&;, \t\r\n\"'<>)", begin), text_.size());
		hide_to(end);
	}

	/* "name" : "value" */
	void take_json_value() {
		size_t quote = at_;
		while (quote > 0 && text_[quote - 1] == ' ') {
			quote--;
		}
		bool is_name = quote > 1 && text_[quote - 1] == '"';
		std::string_view name = is_name ? name_before(quote - 1) : std::string_view();
		size_t begin = text_.find_first_not_of(' ', at_ + 1);
		out_ += text_[at_++];
		if (begin == std::string_view::npos || name.empty() || !is_secret_name(name, settings_)) {
			return;
		}
		out_.append(text_, at_, begin - at_);
		at_ = begin;
		if (text_[at_] == '"') {
			take_quoted('"');
		} else {
			hide_to(std::min(text_.find_first_of(",}] \t\r\n", at_), text_.size()));
		}
	}

	/* With its quotes, which stay. */
	void take_quoted(char quote) {
		out_ += quote;
		size_t end = ++at_;
		while (end < text_.size() && text_[end] != quote) {
			end += text_[end] == '\\' ? 2 : 1;
		}
		hide_to(std::min(end, text_.size()));
	}

	void hide_to(size_t end) {
		if (end > at_) {
			out_ += hidden(text_.substr(at_, end - at_));
			at_ = end;
		}
	}

	const std::string_view text_;
	const ScrubSettings &settings_;
	size_t at_ = 0;
	std::string out_;
};

/* Few texts hold anything that could be a secret, and those that do not are not copied. */
bool may_hold_secrets(std::string_view text) {
	size_t digits = 0;
	for (char character : text) {
		if (character == '=' || character == ':') {
			return true;
		}
		if (is_digit(character)) {
			if (++digits >= kShortestCard) {
				return true;
			}
		} else if (character != ' ' && character != '-') {
			digits = 0;
		}
	}
	return false;
}

class Scrubber {
public:
	Scrubber(Transaction &transaction, const ScrubSettings &settings)
		: transaction_(transaction), texts_(transaction.texts), settings_(settings) {
	}

	void run() {
		Transaction &t = transaction_;
		for (std::string_view *text : {&t.name, &t.normalised_name, &t.query_string, &t.flow}) {
			clean(*text);
		}
		hide(t.session_id);
		for (std::vector<Field> *fields :
			 {&t.request_headers, &t.parameters, &t.response_headers, &t.custom_parameters}) {
			clean(*fields);
		}
		for (Span &span : t.spans) {
			clean(span);
		}
	}

private:
	void clean(std::string_view &text) {
		if (may_hold_secrets(text)) {
			std::string cleaned = without_secrets(text, settings_);
			if (cleaned != text) {
				text = texts_.keep(cleaned);
			}
		}
	}

	void hide(std::string_view &text) {
		if (!text.empty()) {
			text = texts_.keep(hidden(text));
		}
	}

	void clean(std::vector<Field> &fields) {
		for (Field &field : fields) {
			if (is_secret_name(field.name, settings_)) {
				hide(field.value);
			} else {
				clean(field.value);
			}
		}
	}

	void clean(Span &span) {
		if (!span.query.empty()) {
			if (settings_.keeps_literals) {
				clean(span.query);
			} else {
				span.query = texts_.keep(without_literals(span.query, false));
			}
		}
		clean(span.name);
		clean(span.host);
		clean(span.database);
		clean(span.sent_headers);
		clean(span.received_headers);
		for (Failure &failure : span.failures) {
			clean(failure.message);
		}
	}

	Transaction &transaction_;
	TextArena &texts_;
	const ScrubSettings &settings_;
};

} // namespace

bool is_secret_name(std::string_view name, const ScrubSettings &settings) {
	std::string lowered = lower(name);
	for (std::string_view word : kSecretWords) {
		if (lowered.find(word) != std::string::npos) {
			return true;
		}
	}
	for (std::string_view whole : kSecretNames) {
		if (lowered == whole) {
			return true;
		}
	}
	for (const std::string &whole : settings.secret_names) {
		if (lowered == lower(whole)) {
			return true;
		}
	}
	return says_key(lowered);
}

std::string hidden(std::string_view secret) {
	size_t most = 4;
	while (most < secret.size() && most < 1024) {
		most *= 2;
	}
	if (secret.size() > most) {
		return "[hidden, more than 1024 bytes]";
	}
	size_t least = most == 4 ? 1 : most / 2 + 1;
	return "[hidden, " + std::to_string(least) + " to " + std::to_string(most) + " bytes]";
}

std::string without_secrets(std::string_view text, const ScrubSettings &settings) {
	return Rewriter(text, settings).result();
}

void scrub(Transaction &transaction, const ScrubSettings &settings) {
	Scrubber(transaction, settings).run();
}

} // namespace kaq
