/* The service about transactions and their figures. */
#include <limits>
#include <map>
#include <tuple>

#include "query/figure_question.h"
#include "query/parameters.h"
#include "query/ranking.h"
#include "query/service_table.h"
#include "query/top.h"
#include "query/top_json.h"

namespace kaq {
namespace {

using nlohmann::json;

constexpr size_t kUsualRows = 50;
/* Below all that can be. */
constexpr double kLast = std::numeric_limits<double>::lowest();

std::vector<Ranking<TopRow>> top_rankings(int64_t threshold) {
	auto per_request = [](int64_t Figures::*sum) {
		return [sum](const TopRow &row) { return share_of(row.figures.*sum, row.figures.count); };
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
						{"monitored_share", rounded(share_of(sum.second, sum.first))}});
	}
	return list;
}

void add_curves(json &list, const FigureQuestion &asked_for, int64_t step) {
	std::map<std::pair<std::string, std::string>, std::map<int64_t, Figures>> curves;
	for (FigureStep &each : asked_for.steps(FigureKind::kTransaction, step)) {
		curves[{each.key.application, each.key.transaction}][each.time] = std::move(each.figures);
	}
	for (json &row : list) {
		row["curve"] = curve_json(curves[{row.at("application"), row.at("transaction")}]);
	}
}

double time_of(const std::vector<TopRow> &rows) {
	double time = 0;
	for (const TopRow &row : rows) {
		time += row.time;
	}
	return time;
}

/* What the running collector says of transactions that are asked for. */
json hidden_pages(const json &collector, const FigureQuestion &asked_for) {
	json list = json::array();
	for (const json &each : collector.value("hidden_pages", json::array())) {
		if (asked_for.is_application(each.value("application", "")) &&
			asked_for.is_transaction(each.value("transaction", ""))) {
			list.push_back(each);
		}
	}
	return list;
}

} // namespace

Answer top_transactions(ServiceContext &context, const Question &question) {
	FigureQuestion asked_for(context, question);
	int64_t threshold = apdex_threshold_of(question);
	int64_t step = step_of(question, asked_for.range(), context.clock(), 0);
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
	if (step > 0) {
		add_curves(list, asked_for, step);
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
						{"step_ms", step > 0 ? json(step) : json()},
						{"partial", asked_for.is_partial()},
						{"hidden_pages", hidden_pages(collector, asked_for)},
						{"suspended", collector.value("suspended", json::array())}});
}

} // namespace kaq
