#include "query/parameters.h"

#include <algorithm>
#include <charconv>

#include "query/parser.h"
#include "query/values.h"

namespace kaq {
const std::string &text_of(const Question &question, const std::string &name) {
	static const std::string kNone;
	auto found = question.parameters.find(name);
	return found == question.parameters.end() ? kNone : found->second;
}

bool flag_of(const Question &question, const std::string &name) {
	const std::string &text = text_of(question, name);
	if (text == "1" || text == "true") {
		return true;
	}
	if (!text.empty() && text != "0" && text != "false") {
		throw ServiceMistake(400, kaq::quoted(text) + " is neither 1 nor 0", "", name);
	}
	return false;
}

int64_t number_of(const Question &question, const std::string &name, int64_t usual, int64_t least,
				  int64_t most) {
	const std::string &text = text_of(question, name);
	if (text.empty()) {
		return usual;
	}
	int64_t number = 0;
	const char *end = text.data() + text.size();
	auto result = std::from_chars(text.data(), end, number);
	if (result.ec != std::errc() || result.ptr != end || number < least || number > most) {
		throw ServiceMistake(400, kaq::quoted(text) + " is no number that can be used here",
							 "it is from " + std::to_string(least) + " to " + std::to_string(most),
							 name);
	}
	return number;
}

size_t limit_of(const Question &question, size_t usual, size_t most) {
	return static_cast<size_t>(
		number_of(question, "limit", static_cast<int64_t>(usual), 1, static_cast<int64_t>(most)));
}

int64_t time_of(const ServiceContext &context, const Question &question, const std::string &name,
				int64_t otherwise) {
	const std::string &text = text_of(question, name);
	if (text.empty()) {
		return otherwise;
	}
	auto time = read_time(text, context.clock());
	if (!time) {
		throw ServiceMistake(400, time.error().text, time.error().hint, name);
	}
	return *time;
}

TimeRange range_of(const ServiceContext &context, const Question &question, int64_t usual) {
	TimeRange range;
	range.to = time_of(context, question, "to", TimeRange::kForever);
	int64_t begin = usual > 0 ? std::min(range.to, context.clock()) - usual : TimeRange::kAlways;
	range.from = time_of(context, question, "from", begin);
	if (range.from >= range.to) {
		throw ServiceMistake(400, "the range ends before it begins", "", "to");
	}
	return range;
}

Filter query_of(const ServiceContext &context, const Question &question) {
	ParseSettings settings;
	settings.now = context.clock();
	auto parsed = parse_query(text_of(question, "q"), settings);
	if (!parsed) {
		const Mistake &first = parsed.error().front();
		throw ServiceMistake(400, first.text, first.hint, "q", parsed.error());
	}
	return std::move(*parsed);
}

Condition both(Condition one, Condition other) {
	return {And{{std::move(one), std::move(other)}}};
}

Filter filter_of(const ServiceContext &context, const Question &question) {
	Filter filter = query_of(context, question);
	TimeRange range = range_of(context, question);
	filter.range.from = std::max(filter.range.from, range.from);
	filter.range.to = std::min(filter.range.to, range.to);
	for (auto [name, field] :
		 {std::pair("app", TextField::kApplication), std::pair("host", TextField::kHost)}) {
		const std::string &wanted = text_of(question, name);
		if (!wanted.empty()) {
			filter.condition = both({TextIs{field, glob_of(wanted)}}, std::move(filter.condition));
		}
	}
	return filter;
}

} // namespace kaq
