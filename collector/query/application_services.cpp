/* Services about whole applications. */
#include <map>
#include <tuple>

#include "query/figure_question.h"
#include "query/parameters.h"
#include "query/ranking.h"
#include "query/service_table.h"
#include "query/top_json.h"

namespace kaq {
namespace {

using nlohmann::json;

constexpr size_t kUsualRows = 50;

using Points = std::map<std::string, std::map<int64_t, Figures>>;

Points points_of(const FigureQuestion &asked_for, int64_t step) {
	Points points;
	for (const FigureStep &each : asked_for.steps(asked_for.sums_kind(), step)) {
		points[each.key.application][each.time].add(each.figures);
	}
	return points;
}

/* Each application's transactions as one row. */
std::vector<TopRow> sums_of(std::vector<TopRow> rows, const FigureQuestion &asked_for) {
	std::map<std::string, std::vector<TopRow>> applications;
	for (TopRow &row : rows) {
		if (asked_for.is_application(row.application) &&
			asked_for.is_transaction(row.transaction)) {
			applications[row.application].push_back(std::move(row));
		}
	}
	std::vector<TopRow> sums;
	for (const auto &[application, parts] : applications) {
		sums.push_back(sum_of(parts));
		sums.back().application = application;
	}
	return sums;
}

double time_of(const std::vector<TopRow> &rows) {
	double time = 0;
	for (const TopRow &row : rows) {
		time += row.time;
	}
	return time;
}

} // namespace

Answer list_applications(ServiceContext &context, const Question &question) {
	FigureQuestion asked_for(context, question);
	int64_t now = context.clock();
	int64_t threshold = apdex_threshold_of(question);
	int64_t step = step_of(question, asked_for.range(), now, usual_step(asked_for.range(), now));
	size_t limit = limit_of(question, kUsualRows);
	std::vector<FigureRow> figures = asked_for.all_rows(FigureKind::kTransaction);
	double minutes = asked_for.minutes(figures);
	std::vector<TopRow> rows = top_rows(std::move(figures), asked_for.asked());
	TopJson to_json(threshold, minutes, time_of(rows));
	std::vector<TopRow> sums = sums_of(std::move(rows), asked_for);
	Ranking<TopRow> by_time = {"time", [](const TopRow &row) { return row.time; }};
	bool has_more = keep_first(sums, by_time, limit, [](const TopRow &one, const TopRow &other) {
		return one.application < other.application;
	});
	Points points = points_of(asked_for, step);
	json list = json::array();
	for (const TopRow &row : sums) {
		json each = to_json.of(row);
		each["application"] = row.application;
		each["points"] = json::array();
		for (const auto &[time, step_figures] : points[row.application]) {
			each["points"].push_back(point_json(time, step_figures, threshold));
		}
		list.push_back(std::move(each));
	}
	json range = asked_for.range_json();
	range["minutes"] = rounded(minutes);
	return json_answer({{"range", std::move(range)},
						{"step_ms", step},
						{"apdex_threshold_ms", threshold},
						{"applications", std::move(list)},
						{"partial", asked_for.is_partial()},
						{"more", has_more}});
}

Answer list_asked_hosts(ServiceContext &context, const Question &question) {
	FigureQuestion asked_for(context, question);
	size_t limit = limit_of(question, 10 * kUsualRows);
	std::vector<AskedHost> hosts = context.store.hosts(asked_for.range());
	keep_if(hosts,
			[&](const AskedHost &host) { return asked_for.is_application(host.application); });
	Ranking<AskedHost> by_requests = {
		"requests", [](const AskedHost &host) { return static_cast<double>(host.requests); }};
	bool has_more =
		keep_first(hosts, by_requests, limit, [](const AskedHost &one, const AskedHost &other) {
			return std::tie(one.application, one.host) < std::tie(other.application, other.host);
		});
	json list = json::array();
	for (const AskedHost &host : hosts) {
		list.push_back(
			{{"application", host.application}, {"host", host.host}, {"requests", host.requests}});
	}
	return json_answer(
		{{"range", asked_for.range_json()}, {"hosts", std::move(list)}, {"more", has_more}});
}

} // namespace kaq
