/* The service that tells what would gain most. */
#include <algorithm>
#include <map>
#include <tuple>

#include "query/figure_question.h"
#include "query/parameters.h"
#include "query/ranking.h"
#include "query/service_table.h"

namespace kaq {
namespace {

using nlohmann::json;

constexpr size_t kUsualFindings = 5;

/* Application, transaction, kind. */
using FindingKey = std::tuple<std::string, std::string, std::string>;

/* What was found in the requests of one transaction, by the finding that was put first. */
struct FindingSum {
	int64_t requests = 0;
	int64_t gain = 0;
	std::string example; /* the request that would gain most */
	int64_t example_gain = -1;

	void add(int64_t more, int64_t their_gain, const std::string &id, int64_t its_gain) {
		requests += more;
		gain += their_gain;
		if (its_gain > example_gain) {
			example_gain = its_gain;
			example = id;
		}
	}
};

using FindingSums = std::map<FindingKey, FindingSum>;
using FindingRow = std::pair<FindingKey, FindingSum>;

FindingSums sums_of(const std::vector<FigureRow> &rows) {
	FindingSums sums;
	for (const FigureRow &row : rows) {
		sums[{row.key.application, row.key.transaction, row.key.text}].add(
			row.figures.count, row.figures.total, row.figures.example, row.figures.longest);
	}
	return sums;
}

FindingSums sums_of(const std::vector<RequestRow> &rows) {
	FindingSums sums;
	for (const RequestRow &row : rows) {
		if (!row.verdict.kinds.empty()) {
			sums[{row.summary.application, row.summary.name, row.verdict.kinds.front()}].add(
				1, row.verdict.gain, row.summary.id, row.verdict.gain);
		}
	}
	return sums;
}

std::vector<Ranking<FindingRow>> finding_rankings() {
	return {{"gain", [](const FindingRow &row) { return static_cast<double>(row.second.gain); }},
			{"requests",
			 [](const FindingRow &row) { return static_cast<double>(row.second.requests); }}};
}

/* The newest of which that is said, where the one that would gain most is not stored any more. */
std::optional<RequestRow> another_example(Store &store, const TimeRange &range,
										  const FindingKey &key) {
	const auto &[application, transaction, kind] = key;
	Search search;
	search.limit = 20;
	search.filter.range = range;
	search.filter.condition = {And{{{TextIs{TextField::kApplication, application}},
									{TextIs{TextField::kName, transaction}},
									{TextIs{TextField::kVerdict, kind}}}}};
	std::vector<RequestRow> rows = store.search(search).rows;
	const std::string &said = kind;
	auto found = std::find_if(rows.begin(), rows.end(), [&said](const RequestRow &row) {
		return !row.verdict.kinds.empty() && row.verdict.kinds.front() == said;
	});
	return found == rows.end() ? std::nullopt : std::optional(*found);
}

json finding_json(Store &store, const TimeRange &range, const FindingRow &row) {
	const auto &[key, sum] = row;
	json each = {{"application", std::get<0>(key)},
				 {"transaction", std::get<1>(key)},
				 {"kind", std::get<2>(key)},
				 {"requests", sum.requests},
				 {"gain_ms", sum.gain},
				 {"example", ""},
				 {"example_gain_ms", nullptr},
				 {"sentence", ""}};
	std::optional<RequestRow> example =
		sum.example.empty() ? std::nullopt : store.request(sum.example);
	if (!example) {
		example = another_example(store, range, key);
	}
	if (example) {
		each["example"] = example->summary.id;
		each["example_gain_ms"] = example->verdict.gain;
		each["sentence"] = example->verdict.sentence;
	}
	return each;
}

} // namespace

Answer list_findings(ServiceContext &context, const Question &question) {
	FigureQuestion asked_for(context, question);
	Ranking<FindingRow> ranking = ranking_of(question, finding_rankings());
	size_t limit = limit_of(question, kUsualFindings);
	FindingSums sums;
	bool is_partial = false;
	if (asked_for.is_of_stored()) {
		Found found = context.store.search(asked_for.with_verdict(kMostRows));
		sums = sums_of(found.rows);
		is_partial = found.is_partial || found.has_more;
	} else {
		sums = sums_of(asked_for.rows(FigureKind::kFinding));
	}
	std::vector<FindingRow> rows(sums.begin(), sums.end());
	bool has_more =
		keep_first(rows, ranking, limit, [](const FindingRow &one, const FindingRow &other) {
			return one.first < other.first;
		});
	json list = json::array();
	for (const FindingRow &row : rows) {
		list.push_back(finding_json(context.store, asked_for.range(), row));
	}
	return json_answer({{"range", asked_for.range_json()},
						{"findings", std::move(list)},
						{"more", has_more},
						{"partial", is_partial}});
}

} // namespace kaq
