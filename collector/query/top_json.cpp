#include "query/top_json.h"

#include <algorithm>

#include "query/figure_question.h"
#include "query/parameters.h"

namespace kaq {
namespace {

using nlohmann::json;

constexpr int64_t kLongestThreshold = 3600 * 1000;
constexpr int64_t kUsualPoints = 60;
constexpr int64_t kMostPoints = 10000;
constexpr int64_t kHourMs = 60 * kMinuteMs;
constexpr int64_t kLongestStep = 400 * 24 * kHourMs;

int64_t length_of(const TimeRange &range, int64_t now) {
	return std::min(range.to, now) - std::max<int64_t>(range.from, 0);
}

} // namespace

int64_t apdex_threshold_of(const Question &question) {
	return number_of(question, "apdex", kSatisfyingDuration, 1, kLongestThreshold);
}

int64_t usual_step(const TimeRange &range, int64_t now) {
	int64_t length = length_of(range, now);
	int64_t unit = length > kUsualPoints * kHourMs ? kHourMs : kMinuteMs;
	return std::max(unit, (length / kUsualPoints + unit - 1) / unit * unit);
}

int64_t step_of(const Question &question, const TimeRange &range, int64_t now, int64_t usual) {
	int64_t step = number_of(question, "step", usual, kMinuteMs, kLongestStep);
	if (step % kMinuteMs != 0) {
		throw ServiceMistake(400, "a step has whole minutes", "such as 60000 or 3600000", "step");
	}
	if (step > 0 && length_of(range, now) / step > kMostPoints) {
		throw ServiceMistake(400, "these are too many points", "make the step longer", "step");
	}
	return step;
}

double share_of(int64_t part, int64_t whole) {
	return whole > 0 ? static_cast<double>(part) / static_cast<double>(whole) : 0;
}

json curve_json(const std::map<int64_t, Figures> &steps) {
	json list = json::array();
	for (const auto &[time, figures] : steps) {
		list.push_back(
			{time, figures.count, figures.failed, percentile_json(figures, 0.95), figures.total});
	}
	return list;
}

json point_json(int64_t time, const Figures &figures, int64_t apdex_threshold) {
	json each = {{"time_ms", time},
				 {"count", figures.count},
				 {"failed", figures.failed},
				 {"total_ms", figures.total},
				 {"database_ms", figures.query_time},
				 {"external_ms", figures.external_time},
				 {"cpu_ms", figures.cpu}};
	bool has_any = figures.count > 0 && figures.durations.count() > 0;
	each["apdex"] = has_any ? json(rounded(apdex_of(figures.durations, apdex_threshold))) : json();
	add_durations(each, figures);
	return each;
}

json TopJson::of(const TopRow &row) const {
	const Figures &figures = row.figures;
	json each = {{"requests", row.requests},
				 {"exact", row.is_exact},
				 {"recorded", figures.count},
				 {"calls_per_minute", rounded(static_cast<double>(row.requests) / minutes_)},
				 {"failed", figures.failed},
				 {"total_ms", rounded(row.time)},
				 {"time_share", all_time_ > 0 ? rounded(row.time / all_time_) : 0.0}};
	each["monitored_share"] = row.monitored_share ? json(rounded(*row.monitored_share)) : json();
	add_durations(each, figures);
	bool has_any = figures.count > 0;
	auto per_request = [&](const char *name, int64_t sum) {
		each[name] = has_any ? json(rounded(share_of(sum, figures.count))) : json();
	};
	per_request("error_share", figures.failed);
	per_request("queries_per_request", figures.queries);
	per_request("calls_per_request", figures.calls);
	per_request("database_ms", figures.query_time);
	per_request("external_ms", figures.external_time);
	per_request("cpu_ms", figures.cpu);
	each["apdex"] = has_any ? json(rounded(apdex_of(figures.durations, threshold_))) : json();
	each["memory_bytes"] = has_any ? json(figures.memory) : json();
	each["first_ms"] = has_any ? json(figures.first) : json();
	each["last_ms"] = has_any ? json(figures.last) : json();
	each["slowest"] = has_any ? json(figures.example) : json();
	return each;
}

json TopJson::named(const TopRow &row) const {
	json each = of(row);
	each["application"] = row.application;
	each["transaction"] = row.transaction;
	return each;
}

} // namespace kaq
