#include "query/fields.h"

#include <algorithm>

#include "analysis/summary.h"

namespace kaq {
namespace {

char lower(char character) {
	return character >= 'A' && character <= 'Z' ? static_cast<char>(character + ('a' - 'A'))
												: character;
}

template <Flag flag> Condition flag_is() {
	return {FlagIs{flag}};
}

template <NumberField field> Condition is_not_zero() {
	return {NumberIs{field, 1, NumberIs::kNoMost}};
}

Condition is_slow() {
	return {NumberIs{NumberField::kDuration, kSlowDuration + 1, NumberIs::kNoMost}};
}

Condition has_verdict() {
	return {TextIs{TextField::kVerdict, "*"}};
}

/* The fewest letters to insert, leave out, replace or swap with their neighbour. */
size_t distance(std::string_view one, std::string_view other) {
	std::vector<std::vector<size_t>> steps(one.size() + 1, std::vector<size_t>(other.size() + 1));
	for (size_t i = 0; i <= one.size(); i++) {
		for (size_t j = 0; j <= other.size(); j++) {
			if (i == 0 || j == 0) {
				steps[i][j] = i + j;
				continue;
			}
			size_t replaced =
				steps[i - 1][j - 1] + (lower(one[i - 1]) == lower(other[j - 1]) ? 0 : 1);
			steps[i][j] = std::min({replaced, steps[i - 1][j] + 1, steps[i][j - 1] + 1});
			if (i > 1 && j > 1 && lower(one[i - 1]) == lower(other[j - 2]) &&
				lower(one[i - 2]) == lower(other[j - 1])) {
				steps[i][j] = std::min(steps[i][j], steps[i - 2][j - 2] + 1);
			}
		}
	}
	return steps[one.size()][other.size()];
}

} // namespace

const std::vector<QueryField> &query_fields() {
	static const std::vector<QueryField> fields = {
		{"app", "application", TextField::kApplication, Unit::kCount, "application"},
		{"txn", "transaction", TextField::kName, Unit::kCount, "transaction: the normalised name"},
		{"path", "", TextField::kPath, Unit::kCount, "path as it was asked for, or the script"},
		{"host", "", TextField::kHost, Unit::kCount, "host that was asked for"},
		{"method", "", TextField::kMethod, Unit::kCount, "request method"},
		{"status", "", NumberField::kStatus, Unit::kCount, "HTTP status: 404, 5xx, >=400"},
		{"duration", "", NumberField::kDuration, Unit::kTime, "time that it took"},
		{"cpu", "", NumberField::kCpu, Unit::kTime, "CPU time"},
		{"mem", "memory", NumberField::kMemory, Unit::kBytes, "peak of memory"},
		{"db", "", NumberField::kDatabaseTime, Unit::kTime, "time in databases"},
		{"ext", "", NumberField::kExternalTime, Unit::kTime, "time in external calls"},
		{"queries", "", NumberField::kQueries, Unit::kCount, "number of statements"},
		{"calls", "", NumberField::kCalls, Unit::kCount, "number of external calls"},
		{"spans", "", NumberField::kSpans, Unit::kCount, "number of spans"},
		{"errors", "", NumberField::kErrors, Unit::kCount, "number of errors and exceptions"},
		{"call", "", TextField::kCall, Unit::kCount, "host of an external call"},
		{"sql", "", WordField::kStatement, Unit::kCount, "words of a statement"},
		{"fn", "function", WordField::kFunction, Unit::kCount, "words of a span's name"},
		{"error", "", WordField::kError, Unit::kCount, "words of an error's class and message"},
		{"verdict", "kind", TextField::kVerdict, Unit::kCount, "kind of a finding"},
		{"trace", "", TextField::kTraceId, Unit::kCount, "id of the trace"},
		{"id", "", TextField::kId, Unit::kCount, "id of the request"},
		{"is", "", SpecialField::kIs, Unit::kCount, "failed, slow, web, cli"},
		{"has", "", SpecialField::kHas, Unit::kCount, "error, sql, call, verdict"},
		{"since", "", SpecialField::kSince, Unit::kTime, "begun then or later: 1h, 2026-11-22"},
		{"until", "", SpecialField::kUntil, Unit::kTime, "begun before: 30m, 2026-11-22T08:30"},
	};
	return fields;
}

const QueryField *find_field(std::string_view name) {
	for (const QueryField &field : query_fields()) {
		if (is_same_name(field.name, name) ||
			(!field.other_name.empty() && is_same_name(field.other_name, name))) {
			return &field;
		}
	}
	return nullptr;
}

const std::vector<NamedValue> &named_values(SpecialField field) {
	static const std::vector<NamedValue> is = {
		{"failed", "status 5xx, or an error worse than a warning", flag_is<Flag::kFailed>},
		{"slow", "longer than 2 s, which Apdex counts as 0", is_slow},
		{"web", "asked for over HTTP", flag_is<Flag::kWeb>},
		{"cli", "a script of the command line", flag_is<Flag::kCommandLine>},
	};
	static const std::vector<NamedValue> has = {
		{"error", "errors or exceptions", is_not_zero<NumberField::kErrors>},
		{"sql", "statements", is_not_zero<NumberField::kQueries>},
		{"call", "external calls", is_not_zero<NumberField::kCalls>},
		{"verdict", "a finding", has_verdict},
	};
	static const std::vector<NamedValue> none;
	switch (field) {
	case SpecialField::kIs:
		return is;
	case SpecialField::kHas:
		return has;
	default:
		return none;
	}
}

const std::vector<NamedUnit> &units_of(Unit unit) {
	static const std::vector<NamedUnit> count = {{"", 1}};
	static const std::vector<NamedUnit> time = {{"w", 604800000}, {"d", 86400000}, {"h", 3600000},
												{"m", 60000},     {"s", 1000},     {"ms", 1}};
	static const std::vector<NamedUnit> bytes = {
		{"GB", 1 << 30}, {"MB", 1 << 20}, {"KB", 1 << 10}, {"B", 1}};
	switch (unit) {
	case Unit::kTime:
		return time;
	case Unit::kBytes:
		return bytes;
	case Unit::kCount:
		break;
	}
	return count;
}

std::string_view nearest(std::string_view written, const std::vector<std::string_view> &names) {
	constexpr size_t kLongestName = 24;
	std::string_view found;
	size_t least = std::min<size_t>(3, written.size());
	for (std::string_view name : names) {
		size_t steps = written.size() > kLongestName ? least : distance(written, name);
		if (steps < least) {
			least = steps;
			found = name;
		}
	}
	return found;
}

bool is_same_name(std::string_view one, std::string_view other) {
	return std::equal(one.begin(), one.end(), other.begin(), other.end(),
					  [](char left, char right) { return lower(left) == lower(right); });
}

} // namespace kaq
