/* Services that tell how figures went over time, and how durations are spread. */
#include <array>
#include <cmath>

#include "query/figure_question.h"
#include "query/parameters.h"
#include "query/service_table.h"
#include "query/top_json.h"

namespace kaq {
namespace {

using nlohmann::json;

/* Of each power of ten. */
constexpr std::array<int64_t, 6> kBounds = {10, 15, 20, 30, 50, 70};

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

/* From 0 on; each is a few parts longer than the one before, and such that people can read it. */
std::vector<int64_t> bounds_to(int64_t most) {
	std::vector<int64_t> bounds = {0, 1, 2, 3, 5, 7};
	for (int64_t power = 1; bounds.back() < most; power *= 10) {
		for (int64_t bound : kBounds) {
			bounds.push_back(bound * power);
		}
	}
	return bounds;
}

json buckets_json(const Histogram &durations, int64_t longest) {
	json list = json::array();
	uint64_t before = 0;
	std::vector<int64_t> bounds = bounds_to(longest);
	for (size_t i = 0; i + 1 < bounds.size(); i++) {
		/* Those shorter than the end: durations are whole milliseconds. */
		uint64_t until = durations.count_to(bounds[i + 1] - 1);
		if (until > before) {
			list.push_back(
				{{"from_ms", bounds[i]}, {"to_ms", bounds[i + 1]}, {"count", until - before}});
		}
		before = until;
	}
	return list;
}

} // namespace

Answer curve_of(ServiceContext &context, const Question &question) {
	FigureQuestion asked_for(context, question);
	int64_t now = context.clock();
	int64_t step = step_of(question, asked_for.range(), now, usual_step(asked_for.range(), now));
	int64_t threshold = apdex_threshold_of(question);
	json points = json::array();
	for (const FigurePoint &point :
		 asked_for.points(kind_of(question), text_of(question, "text"), step)) {
		points.push_back(point_json(point.time, point.figures, threshold));
	}
	json answer = {{"range", asked_for.range_json()}, {"step_ms", step}};
	answer["points"] = std::move(points);
	answer["partial"] = asked_for.is_partial();
	return json_answer(std::move(answer));
}

Answer durations_of(ServiceContext &context, const Question &question) {
	FigureQuestion asked_for(context, question);
	Figures sum;
	for (const FigureRow &row : asked_for.rows(asked_for.sums_kind())) {
		sum.add(row.figures);
	}
	json answer = {{"range", asked_for.range_json()},
				   {"count", sum.count},
				   {"buckets", buckets_json(sum.durations, sum.longest + 1)},
				   {"partial", asked_for.is_partial()}};
	add_durations(answer, sum);
	return json_answer(std::move(answer));
}

} // namespace kaq
