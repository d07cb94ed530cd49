/* Services about statements, external hosts and failures. */
#include <map>
#include <tuple>

#include "query/figure_groups.h"
#include "query/figure_question.h"
#include "query/parameters.h"
#include "query/ranking.h"
#include "query/service_table.h"
#include "query/top_json.h"

namespace kaq {
namespace {

using nlohmann::json;

constexpr size_t kUsualRows = 50;
constexpr size_t kMostParts = 5; /* of the transactions and callers that are named */

using GroupRanking = Ranking<FigureGroup>;

GroupRanking by(const char *name, int64_t Figures::*figure) {
	return {name, [figure](const FigureGroup &group) {
				return static_cast<double>(group.figures.*figure);
			}};
}

GroupRanking by_percentile(const char *name, double part) {
	return {name, [part](const FigureGroup &group) {
				return static_cast<double>(group.figures.durations.percentile(part));
			}};
}

std::vector<GroupRanking> timed_rankings() {
	return {by("time", &Figures::total),      by("count", &Figures::count),
			by("errors", &Figures::failed),   by_percentile("p50", 0.5),
			by_percentile("p95", 0.95),       by_percentile("p99", 0.99),
			by("longest", &Figures::longest), by("last", &Figures::last)};
}

std::vector<GroupRanking> failure_rankings() {
	return {by("count", &Figures::count), by("last", &Figures::last), by("first", &Figures::first),
			by("fatal", &Figures::failed)};
}

json parts_json(const std::map<std::string, GroupPart> &parts) {
	json list = json::array();
	for (const NamedPart &named : largest_parts(parts, kMostParts)) {
		list.push_back(
			{{"name", named.name}, {"count", named.part.count}, {"total_ms", named.part.total}});
	}
	return list;
}

json group_json(const FigureGroup &group) {
	const Figures &figures = group.figures;
	return {{"application", group.key.application},
			{"count", figures.count},
			{"first_ms", figures.first},
			{"last_ms", figures.last},
			{"example", figures.example},
			{"transactions", parts_json(group.transactions)},
			{"transactions_count", group.transactions.size()}};
}

json timed_json(const FigureGroup &group, int64_t all_time) {
	const Figures &figures = group.figures;
	json each = group_json(group);
	auto count = static_cast<double>(figures.count);
	each["failed"] = figures.failed;
	each["error_share"] =
		figures.count > 0 ? json(rounded(static_cast<double>(figures.failed) / count)) : json();
	each["total_ms"] = figures.total;
	each["time_share"] =
		all_time > 0 ? rounded(static_cast<double>(figures.total) / static_cast<double>(all_time))
					 : 0.0;
	add_durations(each, figures);
	return each;
}

int64_t time_of(const std::vector<FigureGroup> &groups) {
	int64_t time = 0;
	for (const FigureGroup &group : groups) {
		time += group.figures.total;
	}
	return time;
}

/* By the hashes of the groups' keys. */
using GroupCurves = std::map<int64_t, std::map<int64_t, Figures>>;

GroupCurves curves_of(const FigureQuestion &asked_for, FigureKind kind, int64_t step) {
	GroupCurves curves;
	for (FigureStep &each : asked_for.steps(kind, step)) {
		curves[key_of_group(std::move(each.key)).hash()][each.time].add(each.figures);
	}
	return curves;
}

/* The groups in their order as the answer's list of that name. */
template <typename ToJson>
Answer group_answer(ServiceContext &context, const Question &question, FigureKind kind,
					const char *name, const std::vector<GroupRanking> &rankings, ToJson to_json) {
	FigureQuestion asked_for(context, question);
	GroupRanking ranking = ranking_of(question, rankings);
	size_t limit = limit_of(question, kUsualRows);
	std::vector<FigureGroup> groups = groups_of(asked_for.rows(kind));
	int64_t all_time = time_of(groups);
	bool has_more =
		keep_first(groups, ranking, limit, [](const FigureGroup &one, const FigureGroup &other) {
			return std::tie(one.key.application, one.key.text, one.key.details) <
				   std::tie(other.key.application, other.key.text, other.key.details);
		});
	int64_t step = step_of(question, asked_for.range(), context.clock(), 0);
	GroupCurves curves = step > 0 ? curves_of(asked_for, kind, step) : GroupCurves();
	json list = json::array();
	for (const FigureGroup &group : groups) {
		json each = to_json(group, all_time);
		if (step > 0) {
			each["curve"] = curve_json(curves[key_of_group(group.key).hash()]);
		}
		list.push_back(std::move(each));
	}
	return json_answer({{"range", asked_for.range_json()},
						{"step_ms", step > 0 ? json(step) : json()},
						{name, std::move(list)},
						{"more", has_more}});
}

json statement_json(const FigureGroup &group, int64_t all_time) {
	json each = timed_json(group, all_time);
	each["statement"] = group.key.text;
	each["component"] = group.key.details[0];
	each["server"] = group.key.details[1];
	each["database"] = group.key.details[2];
	each["callers"] = parts_json(group.callers);
	each["callers_count"] = group.callers.size();
	return each;
}

json host_json(const FigureGroup &group, int64_t all_time) {
	json each = timed_json(group, all_time);
	each["host"] = group.key.text;
	return each;
}

json failure_json(const FigureGroup &group, int64_t) {
	json each = group_json(group);
	each["key"] = group.key.text;
	each["type"] = group.key.details[0];
	each["place"] = group.key.details[1];
	each["message"] = group.key.details[2];
	each["level"] = group.key.details[3];
	each["requests"] = group.figures.requests;
	each["fatal"] = group.figures.failed;
	return each;
}

} // namespace

Answer list_statements(ServiceContext &context, const Question &question) {
	return group_answer(context, question, FigureKind::kStatement, "statements", timed_rankings(),
						statement_json);
}

Answer list_hosts(ServiceContext &context, const Question &question) {
	return group_answer(context, question, FigureKind::kHost, "hosts", timed_rankings(), host_json);
}

Answer list_failures(ServiceContext &context, const Question &question) {
	return group_answer(context, question, FigureKind::kFailure, "errors", failure_rankings(),
						failure_json);
}

} // namespace kaq
