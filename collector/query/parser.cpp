#include "query/parser.h"

#include <algorithm>
#include <optional>

#include "analysis/finding_kind.h"
#include "query/fields.h"
#include "query/scanner.h"
#include "query/values.h"
#include "util/control_character.h"
#include "util/utf8.h"

namespace kaq {
namespace {

constexpr size_t kMostMistakes = 8;

Condition joined(std::vector<Condition> conditions, bool is_or) {
	if (conditions.size() == 1) {
		return std::move(conditions.front());
	}
	if (is_or) {
		return {Or{std::move(conditions)}};
	}
	return {And{std::move(conditions)}};
}

/* A phrase without the marks of a glob; false if a '*' stands where none may. */
bool read_words(std::string_view glob, Words &words) {
	std::string text;
	for (size_t i = 0; i < glob.size(); i++) {
		bool is_last = i + 1 == glob.size();
		if (glob[i] == '*' && !is_last) {
			return false;
		}
		if (glob[i] == '*') {
			/* Behind anything but a word it adds nothing. */
			words.is_prefix = !text.empty() && !words_of(text.substr(text.size() - 1)).empty();
		} else {
			text += glob[i] == '\\' && !is_last ? glob[++i] : glob[i];
		}
	}
	words.words = words_of(text);
	return true;
}

bool is_kind(std::string_view glob) {
	const std::vector<std::string_view> &names = finding_names();
	return std::any_of(names.begin(), names.end(),
					   [glob](std::string_view name) { return is_like(name, glob); });
}

class Parser {
public:
	Parser(std::string_view text, const ParseSettings &settings)
		: text_(text), settings_(settings), scanner_(text) {
	}

	tl::expected<Filter, std::vector<Mistake>> parse();

private:
	/* Conditions that are none: a time, or a mistake that was told. */
	using Parsed = std::optional<Condition>;

	bool has_good_characters();
	Parsed parse_alternatives(bool is_top);
	Parsed parse_all(bool is_top);
	bool take_and(bool &is_something_missing, bool has_something);
	Parsed parse_one(bool is_top);
	Parsed parse_negated(bool is_sign);
	Parsed parse_group();
	Parsed parse_term(bool is_top);
	Parsed parse_field(const QueryField &field, bool is_top);
	Parsed parse_condition(const QueryField &field, const Value &value);
	Parsed parse_unknown_field(std::string_view name, size_t at);
	Parsed parse_words(WordField field, const Value &value);
	Parsed parse_named(SpecialField field, const Value &value);
	Parsed unknown_value(const Value &value, const std::vector<std::string_view> &names);
	Parsed parse_time(SpecialField field, const Value &value, bool is_top);
	Parsed parse_number(NumberField field, Unit unit, const Value &value);
	std::optional<Value> take_value(std::string_view name);

	/* What the value means without wildcards, else as it stands there. */
	std::string plain(const Value &value) const {
		return literal_of(value.glob)
			.value_or(std::string(text_.substr(value.begin, scanner_.at() - value.begin)));
	}

	std::nullopt_t tell(size_t at, std::string text, std::string hint) {
		if (mistakes_.size() < kMostMistakes) {
			mistakes_.push_back({column_at(text_, at), std::move(text), std::move(hint)});
		}
		is_stopped_ = is_stopped_ || mistakes_.size() == kMostMistakes;
		return std::nullopt;
	}
	/* For mistakes behind which nothing is sure. */
	std::nullopt_t stop(size_t at, std::string text, std::string hint) {
		if (!is_stopped_) {
			tell(at, std::move(text), std::move(hint));
		}
		is_stopped_ = true;
		return std::nullopt;
	}

	std::string_view text_;
	const ParseSettings &settings_;
	Scanner scanner_;
	TimeRange range_;
	std::optional<size_t> time_at_;
	std::vector<Mistake> mistakes_;
	bool is_stopped_ = false;
	int depth_ = 0;
	int terms_ = 0;
};

tl::expected<Filter, std::vector<Mistake>> Parser::parse() {
	Filter filter;
	if (text_.size() > settings_.longest) {
		stop(0, "more than " + std::to_string(settings_.longest) + " bytes", "");
	} else if (has_good_characters()) {
		scanner_.skip_blanks();
		if (!scanner_.is_at_end()) {
			filter.condition = parse_alternatives(true).value_or(Condition{});
		}
	}
	if (!is_stopped_ && !scanner_.is_at_end()) {
		stop(scanner_.at(), "')' closes nothing", "put text with parentheses in quotes");
	}
	if (mistakes_.empty() && range_.from >= range_.to) {
		stop(*time_at_, "nothing is both since and until then", "since: is the earlier one");
	}
	if (!mistakes_.empty()) {
		std::stable_sort(
			mistakes_.begin(), mistakes_.end(),
			[](const Mistake &one, const Mistake &other) { return one.column < other.column; });
		return tl::unexpected(std::move(mistakes_));
	}
	filter.range = range_;
	return filter;
}

bool Parser::has_good_characters() {
	std::string mended = replace_invalid_utf8(text_);
	if (mended != text_) {
		auto bad = std::mismatch(text_.begin(), text_.end(), mended.begin(), mended.end());
		stop(static_cast<size_t>(bad.first - text_.begin()), "no valid UTF-8", "");
		return false;
	}
	for (size_t i = 0; i < text_.size(); i++) {
		if (is_control_character(text_[i]) && !is_blank(text_[i])) {
			stop(i, "a control character", "'?' stands for any character");
			return false;
		}
	}
	return true;
}

Parser::Parsed Parser::parse_alternatives(bool is_top) {
	std::vector<Condition> alternatives;
	bool is_first = true;
	do {
		if (Parsed parsed = parse_all(is_top)) {
			alternatives.push_back(std::move(*parsed));
		} else if (is_first && is_top && mistakes_.empty()) {
			/* Nothing but times. */
			alternatives.push_back({});
		}
		if (!is_first && is_top && time_at_) {
			stop(*time_at_, "a time cannot be one of several alternatives",
				 "put the others in parentheses: since:1h (a OR b)");
		}
		is_first = false;
	} while (!is_stopped_ && scanner_.take_keyword("OR"));
	return alternatives.empty() ? Parsed() : joined(std::move(alternatives), true);
}

/* Takes AND; false if it does not come next, or where it may not stand. */
bool Parser::take_and(bool &is_something_missing, bool has_something) {
	size_t at = scanner_.at();
	if (!scanner_.take_keyword("AND")) {
		return false;
	}
	if (!has_something || is_something_missing) {
		stop(at, "nothing before AND", "put the word in quotes to look for it");
		return false;
	}
	is_something_missing = true;
	return true;
}

Parser::Parsed Parser::parse_all(bool is_top) {
	std::vector<Condition> conditions;
	bool has_something = false;
	bool is_something_missing = false;
	while (!is_stopped_) {
		scanner_.skip_blanks();
		Scanner ahead = scanner_;
		if (scanner_.is_at_end() || scanner_.next() == ')' || ahead.take_keyword("OR")) {
			break;
		}
		if (take_and(is_something_missing, has_something) || is_stopped_) {
			continue;
		}
		if (Parsed parsed = parse_one(is_top)) {
			conditions.push_back(std::move(*parsed));
		}
		has_something = true;
		is_something_missing = false;
	}
	if (!has_something || is_something_missing) {
		return stop(scanner_.at(), "something is missing here",
					"put OR, AND and NOT in quotes to look for the words");
	}
	return conditions.empty() ? Parsed() : joined(std::move(conditions), false);
}

Parser::Parsed Parser::parse_one(bool is_top) {
	size_t at = scanner_.at();
	bool is_sign = scanner_.take('-');
	bool is_negated = is_sign || scanner_.take_keyword("NOT");
	if (!is_negated && !scanner_.take('(')) {
		return parse_term(is_top);
	}
	if (++depth_ > kDeepestQuery) {
		return stop(at, "more than " + std::to_string(kDeepestQuery) + " levels", "");
	}
	Parsed parsed = is_negated ? parse_negated(is_sign) : parse_group();
	depth_--;
	return parsed;
}

Parser::Parsed Parser::parse_negated(bool is_sign) {
	if (!is_sign) {
		scanner_.skip_blanks();
	}
	Scanner ahead = scanner_;
	if (scanner_.is_at_end() || is_blank(scanner_.next()) || scanner_.next() == ')' ||
		ahead.take_keyword("OR") || ahead.take_keyword("AND")) {
		return stop(scanner_.at(), "nothing to negate", "");
	}
	Parsed parsed = parse_one(false);
	if (!parsed) {
		return std::nullopt;
	}
	return Condition{Not{std::make_shared<const Condition>(std::move(*parsed))}};
}

Parser::Parsed Parser::parse_group() {
	size_t at = scanner_.at() - 1;
	Parsed parsed = parse_alternatives(false);
	if (!is_stopped_ && !scanner_.take(')')) {
		return stop(at, "this parenthesis is not closed", "");
	}
	return parsed;
}

Parser::Parsed Parser::parse_term(bool is_top) {
	size_t at = scanner_.at();
	if (++terms_ > kMostQueryTerms) {
		return stop(at, "more than " + std::to_string(kMostQueryTerms) + " terms", "");
	}
	char first = scanner_.next();
	if (first == '<' || first == '>' || first == '=') {
		return parse_field(*find_field("duration"), is_top);
	}
	Scanner ahead = scanner_;
	std::optional<std::string_view> compared = ahead.take_field_name(true);
	const QueryField *field = compared ? find_field(*compared) : nullptr;
	if (field && std::holds_alternative<NumberField>(field->target)) {
		scanner_ = ahead;
		return parse_field(*field, is_top);
	}
	std::optional<std::string_view> name = scanner_.take_field_name(false);
	if (!name) {
		std::optional<Value> value = take_value("");
		return value ? parse_words(WordField::kAnywhere, *value) : std::nullopt;
	}
	field = find_field(*name);
	return field ? parse_field(*field, is_top) : parse_unknown_field(*name, at);
}

std::optional<Value> Parser::take_value(std::string_view name) {
	Value value = scanner_.take_value();
	if (value.is_unfinished) {
		return stop(value.begin, "this quote is not closed", "");
	}
	if (scanner_.next() == '(') {
		return stop(scanner_.at(), "a parenthesis within a text", "put the text in quotes");
	}
	if (scanner_.at() == value.begin) {
		return tell(value.begin, "nothing behind " + std::string(name) + ":",
					"no blank may stand there");
	}
	return value;
}

Parser::Parsed Parser::parse_field(const QueryField &field, bool is_top) {
	std::optional<Value> value = take_value(field.name);
	if (!value) {
		return std::nullopt;
	}
	const auto *special = std::get_if<SpecialField>(&field.target);
	bool is_time = special && *special != SpecialField::kIs && *special != SpecialField::kHas;
	if (!is_time) {
		return parse_condition(field, *value);
	}
	if (settings_.is_live) {
		return tell(value->begin, "times choose nothing while requests pass",
					"kaq find looks through those that are kept");
	}
	return parse_time(*special, *value, is_top);
}

Parser::Parsed Parser::parse_condition(const QueryField &field, const Value &value) {
	if (const auto *text = std::get_if<TextField>(&field.target)) {
		if (*text == TextField::kVerdict && !is_kind(value.glob)) {
			return unknown_value(value, finding_names());
		}
		return Condition{TextIs{*text, value.glob}};
	}
	if (const auto *number = std::get_if<NumberField>(&field.target)) {
		return parse_number(*number, field.unit, value);
	}
	if (const auto *words = std::get_if<WordField>(&field.target)) {
		return parse_words(*words, value);
	}
	return parse_named(std::get<SpecialField>(field.target), value);
}

Parser::Parsed Parser::parse_unknown_field(std::string_view name, size_t at) {
	std::vector<std::string_view> names;
	for (const QueryField &field : query_fields()) {
		names.push_back(field.name);
		names.push_back(field.other_name);
	}
	std::string_view meant = nearest(name, names);
	tell(at, "unknown field " + quoted(name),
		 meant.empty() ? "put text with a colon in quotes"
					   : "did you mean " + std::string(meant) + ":?");
	scanner_.take_value();
	return std::nullopt;
}

Parser::Parsed Parser::parse_words(WordField field, const Value &value) {
	Words words;
	words.field = field;
	if (!read_words(value.glob, words)) {
		return tell(value.begin, "'*' within words", "it may only stand at the end");
	}
	if (words.words.empty()) {
		return tell(value.begin, "no word to look for", "words are letters, digits and '_'");
	}
	if (words.words.size() > kMostQueryWords) {
		return tell(value.begin, "more than " + std::to_string(kMostQueryWords) + " words in a row",
					"");
	}
	return Condition{std::move(words)};
}

Parser::Parsed Parser::parse_number(NumberField field, Unit unit, const Value &value) {
	auto number = read_number(plain(value), field, unit);
	if (!number) {
		return tell(value.begin, number.error().text, number.error().hint);
	}
	return Condition{*number};
}

Parser::Parsed Parser::parse_named(SpecialField field, const Value &value) {
	std::string written = plain(value);
	std::vector<std::string_view> names;
	for (const NamedValue &each : named_values(field)) {
		if (is_same_name(each.name, written)) {
			return each.condition();
		}
		names.push_back(each.name);
	}
	return unknown_value(value, names);
}

Parser::Parsed Parser::unknown_value(const Value &value,
									 const std::vector<std::string_view> &names) {
	std::string written = plain(value);
	std::string_view meant = nearest(written, names);
	std::string hint = "did you mean " + std::string(meant) + "?";
	if (meant.empty()) {
		hint = "one of";
		for (std::string_view name : names) {
			hint += (name == names.front() ? " " : ", ") + std::string(name);
		}
	}
	return tell(value.begin, "unknown value " + kaq::quoted(written), std::move(hint));
}

Parser::Parsed Parser::parse_time(SpecialField field, const Value &value, bool is_top) {
	if (!is_top) {
		return tell(value.begin, "since: and until: within NOT or parentheses",
					"they hold for the whole query");
	}
	time_at_ = time_at_.value_or(value.begin);
	auto time = read_time(plain(value), settings_.now);
	if (!time) {
		return tell(value.begin, time.error().text, time.error().hint);
	}
	if (field == SpecialField::kSince) {
		range_.from = std::max(range_.from, *time);
	} else {
		range_.to = std::min(range_.to, *time);
	}
	return std::nullopt;
}

} // namespace

tl::expected<Filter, std::vector<Mistake>> parse_query(std::string_view text,
													   const ParseSettings &settings) {
	return Parser(text, settings).parse();
}

} // namespace kaq
