/* Services about transactions: their figures, and how these went over time. */
#include <limits>
#include <map>
#include <tuple>

#include "query/figure_question.h"
#include "query/parameters.h"
#include "query/ranking.h"
#include "query/service_table.h"
#include "query/top.h"

namespace kaq {
namespace {

using nlohmann::json;

constexpr size_t kUsualRows = 50;
constexpr int64_t kLongestThreshold = 3600 * 1000;
constexpr int64_t kUsualPoints = 60;
constexpr int64_t kMostPoints = 10000;
constexpr int64_t kHourMs = 60 * kMinuteMs;
constexpr int64_t kLongestStep = 400 * 24 * kHourMs;
/* Below all that can be. */
constexpr double kLast = std::numeric_limits<double>::lowest();

double share(int64_t part, int64_t whole) {
	return whole > 0 ? static_cast<double>(part) / static_cast<double>(whole) : 0;
}

std::vector<Ranking<TopRow>> top_rankings(int64_t threshold) {
	auto per_request = [](int64_t Figures::*sum) {
		return [sum](const TopRow &row) { return share(row.figures.*sum, row.figures.count); };
	};
	auto percentile = [](double part) {
		return [part](const TopRow &row) {
			return static_cast<double>(row.figures.durations.percentile(part));
		};
	};
	/* The worst first, and behind them what was not recorded. */
	auto worst_apdex = [threshold](const TopRow &row) {
		return row.figures.count > 0 ? -apdex_of(row.figures.durations, threshold) : kLast;
	};
	return {{"time", [](const TopRow &row) { return row.time; }},
			{"requests", [](const TopRow &row) { return static_cast<double>(row.requests); }},
			{"p50", percentile(0.5)},
			{"p95", percentile(0.95)},
			{"p99", percentile(0.99)},
			{"longest", [](const TopRow &row) { return static_cast<double>(row.figures.longest); }},
			{"errors", per_request(&Figures::failed)},
			{"apdex", worst_apdex},
			{"queries", per_request(&Figures::queries)},
			{"database", per_request(&Figures::query_time)},
			{"external", per_request(&Figures::external_time)}};
}

class TopJson {
public:
	TopJson(int64_t threshold, double minutes, double all_time)
		: threshold_(threshold), minutes_(minutes), all_time_(all_time) {
	}

	json of(const TopRow &row) const {
		const Figures &figures = row.figures;
		json each = {{"requests", row.requests},
					 {"exact", row.is_exact},
					 {"recorded", figures.count},
					 {"calls_per_minute", rounded(static_cast<double>(row.requests) / minutes_)},
					 {"failed", figures.failed},
					 {"total_ms", rounded(row.time)},
					 {"time_share", all_time_ > 0 ? rounded(row.time / all_time_) : 0.0}};
		each["monitored_share"] =
			row.monitored_share ? json(rounded(*row.monitored_share)) : json();
		add_durations(each, figures);
		bool has_any = figures.count > 0;
		auto per_request = [&](const char *name, int64_t sum) {
			each[name] = has_any ? json(rounded(share(sum, figures.count))) : json();
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

	json named(const TopRow &row) const {
		json each = of(row);
		each["application"] = row.application;
		each["transaction"] = row.transaction;
		return each;
	}

private:
	int64_t threshold_;
	double minutes_;
	double all_time_;
};

/* Exact, where handshakes told of it. */
json applications_json(const FigureQuestion &asked_for, const std::vector<AskedCount> &asked) {
	std::map<std::string, std::pair<int64_t, int64_t>> sums;
	for (const AskedCount &count : asked) {
		if (asked_for.is_application(count.application)) {
			sums[count.application].first += count.asked;
			sums[count.application].second += count.monitored;
		}
	}
	json list = json::array();
	for (const auto &[application, sum] : sums) {
		list.push_back({{"application", application},
						{"requests", sum.first},
						{"monitored", sum.second},
						{"monitored_share", rounded(share(sum.second, sum.first))}});
	}
	return list;
}

double time_of(const std::vector<TopRow> &rows) {
	double time = 0;
	for (const TopRow &row : rows) {
		time += row.time;
	}
	return time;
}

FigureKind kind_of(const Question &question) {
	static const std::vector<std::pair<std::string_view, FigureKind>> kKinds = {
		{"transaction", FigureKind::kTransaction},
		{"statement", FigureKind::kStatement},
		{"host", FigureKind::kHost},
		{"error", FigureKind::kFailure}};
	const std::string &wanted = text_of(question, "kind");
	for (const auto &[name, kind] : kKinds) {
		if (wanted == name || wanted.empty()) {
			return kind;
		}
	}
	throw ServiceMistake(400, "unknown kind " + kaq::quoted(wanted),
						 "it is transaction, statement, host or error", "kind");
}

int64_t step_of(const Question &question, const TimeRange &range, int64_t now) {
	int64_t length = std::min(range.to, now) - std::max<int64_t>(range.from, 0);
	int64_t unit = length > kUsualPoints * kHourMs ? kHourMs : kMinuteMs;
	int64_t usual = std::max(unit, (length / kUsualPoints + unit - 1) / unit * unit);
	int64_t step = number_of(question, "step", usual, kMinuteMs, kLongestStep);
	if (step % kMinuteMs != 0) {
		throw ServiceMistake(400, "a step has whole minutes", "such as 60000 or 3600000", "step");
	}
	if (length / step > kMostPoints) {
		throw ServiceMistake(400, "these are too many points", "make the step longer", "step");
	}
	return step;
}

} // namespace

Answer top_transactions(ServiceContext &context, const Question &question) {
	FigureQuestion asked_for(context, question);
	int64_t threshold = number_of(question, "apdex", kSatisfyingDuration, 1, kLongestThreshold);
	Ranking<TopRow> ranking = ranking_of(question, top_rankings(threshold));
	size_t limit = limit_of(question, kUsualRows);
	std::vector<FigureRow> figures = asked_for.all_rows(FigureKind::kTransaction);
	double minutes = asked_for.minutes(figures);
	std::vector<AskedCount> asked = asked_for.asked();
	std::vector<TopRow> rows = top_rows(std::move(figures), asked);
	keep_if(rows, [&](const TopRow &row) { return asked_for.is_application(row.application); });
	TopJson to_json(threshold, minutes, time_of(rows));
	keep_if(rows, [&](const TopRow &row) { return asked_for.is_transaction(row.transaction); });
	json total = to_json.of(sum_of(rows));
	bool has_more = keep_first(rows, ranking, limit, [](const TopRow &one, const TopRow &other) {
		return std::tie(one.application, one.transaction) <
			   std::tie(other.application, other.transaction);
	});
	json list = json::array();
	for (const TopRow &row : rows) {
		list.push_back(to_json.named(row));
	}
	json range = asked_for.range_json();
	range["minutes"] = rounded(minutes);
	json collector = context.daemon ? context.daemon() : json::object();
	return json_answer({{"range", std::move(range)},
						{"apdex_threshold_ms", threshold},
						{"transactions", std::move(list)},
						{"more", has_more},
						{"total", std::move(total)},
						{"applications", applications_json(asked_for, asked)},
						{"suspended", collector.value("suspended", json::array())}});
}

Answer curve_of(ServiceContext &context, const Question &question) {
	FigureQuestion asked_for(context, question);
	FigureSearch search;
	search.kind = kind_of(question);
	search.range = asked_for.range();
	search.application = text_of(question, "app");
	search.transaction = text_of(question, "txn");
	search.text = text_of(question, "text");
	int64_t step = step_of(question, search.range, context.clock());
	json points = json::array();
	for (const FigurePoint &point : context.store.curve(search, step)) {
		const Figures &figures = point.figures;
		json each = {{"time_ms", point.time},
					 {"count", figures.count},
					 {"failed", figures.failed},
					 {"total_ms", figures.total},
					 {"database_ms", figures.query_time},
					 {"external_ms", figures.external_time},
					 {"cpu_ms", figures.cpu}};
		add_durations(each, figures);
		points.push_back(std::move(each));
	}
	json answer = {{"range", asked_for.range_json()}, {"step_ms", step}};
	answer["points"] = std::move(points);
	return json_answer(std::move(answer));
}

} // namespace kaq
