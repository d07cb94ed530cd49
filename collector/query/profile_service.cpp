/* The service that adds up what stored requests did, call by call. */
#include <algorithm>

#include "analysis/compare.h"
#include "analysis/findings.h"
#include "analysis/layers.h"
#include "query/figure_question.h"
#include "query/parameters.h"
#include "query/request_json.h"
#include "query/service_table.h"

namespace kaq {
namespace {

using nlohmann::json;

constexpr size_t kUsualRequests = 100;
constexpr size_t kMostRequests = 500;
/* Rows that have a smaller part of all time than that are left out. */
constexpr int64_t kSmallestPart = 2000;

/* What the layers took in several requests. */
struct LayerSums {
	LayerTimes times = {};
	int64_t requests = 0;
	int64_t duration = 0;
	int64_t cpu = 0;
	int64_t waiting = 0;

	void add(const Transaction &transaction, Serving serving) {
		LayerTimes each = layer_times(transaction);
		for (size_t i = 0; i < times.size(); i++) {
			times[i] += each[i];
		}
		requests++;
		duration += transaction.duration();
		cpu += transaction.cpu;
		/* Elsewhere the processor time is that of several requests. */
		if (serving == Serving::kOneAtATime) {
			waiting += std::max<int64_t>(0, time_of(each, Layer::kCode) - transaction.cpu);
		}
	}

	json to_json() const {
		json layers = json::object();
		for (size_t i = 0; i < times.size(); i++) {
			layers[std::string(layer_name(static_cast<Layer>(i)))] = times[i];
		}
		return layers;
	}
};

json rows_json(const Profile &profile) {
	json list = json::array();
	std::vector<int32_t> places(profile.rows.size(), -1);
	for (size_t i = 0; i < profile.rows.size(); i++) {
		const ProfileRow &row = profile.rows[i];
		bool is_root = row.parent < 0;
		int32_t parent = is_root ? -1 : places[static_cast<size_t>(row.parent)];
		bool is_seen = is_root || (parent >= 0 && row.total * kSmallestPart >= profile.duration);
		if (!is_seen) {
			continue;
		}
		places[i] = static_cast<int32_t>(list.size());
		json each = {{"name", row.name},   {"layer", layer_name(row.layer)}, {"parent", parent},
					 {"count", row.count}, {"total_ms", row.total},          {"self_ms", row.own}};
		if (!row.detail.empty()) {
			each["detail"] = row.detail;
		}
		list.push_back(std::move(each));
	}
	return list;
}

/* Documents from all over the range, so that one busy minute does not stand for all. */
class Sample {
public:
	Sample(ServiceContext &context, Filter filter, size_t limit)
		: context_(context), filter_(std::move(filter)), limit_(limit) {
	}

	/* The newest of each part of the range. */
	void take(const TimeRange &range) {
		constexpr int64_t steps = kSteps;
		int64_t length = (range.to - range.from + steps - 1) / steps;
		for (int64_t from = range.from; from < range.to; from += length) {
			take_step({from, std::min(from + length, range.to)});
		}
	}

	json to_json() {
		Profile profile = sum_.take();
		return {{"requests", all_.requests},  {"duration_ms", all_.duration},
				{"cpu_ms", all_.cpu},         {"waiting_ms", all_.waiting},
				{"layers", all_.to_json()},   {"points", std::move(points_)},
				{"rows", rows_json(profile)}, {"more", has_more_}};
	}

private:
	static constexpr size_t kSteps = 24;

	void take_step(const TimeRange &range) {
		Search search;
		search.filter = filter_;
		search.filter.range.from = std::max(filter_.range.from, range.from);
		search.filter.range.to = std::min(filter_.range.to, range.to);
		search.limit = std::max<size_t>(limit_ / kSteps, 1);
		if (search.filter.range.from >= search.filter.range.to) {
			return;
		}
		Found found = context_.store.search(search);
		has_more_ = has_more_ || found.has_more;
		LayerSums sums;
		for (const RequestRow &row : found.rows) {
			add(row, sums);
		}
		if (sums.requests > 0) {
			points_.push_back({{"time_ms", range.from},
							   {"requests", sums.requests},
							   {"duration_ms", sums.duration},
							   {"cpu_ms", sums.cpu},
							   {"waiting_ms", sums.waiting},
							   {"layers", sums.to_json()}});
		}
	}

	void add(const RequestRow &row, LayerSums &sums) {
		std::optional<Transaction> document =
			row.has_document ? read_document(context_.store, row.summary.id) : std::nullopt;
		if (document && !document->spans.empty()) {
			sum_.add(profile_of(*document));
			sums.add(*document, row.serving);
			all_.add(*document, row.serving);
		}
	}

	ServiceContext &context_;
	const Filter filter_;
	const size_t limit_;
	ProfileSum sum_;
	LayerSums all_;
	json points_ = json::array();
	bool has_more_ = false;
};

} // namespace

Answer profile_requests(ServiceContext &context, const Question &question) {
	FigureQuestion asked_for(context, question);
	size_t limit = limit_of(question, kUsualRequests, kMostRequests);
	json range = asked_for.range_json();
	Sample sample(context, asked_for.stored(), limit);
	sample.take({range.at("from_ms").get<int64_t>(), range.at("to_ms").get<int64_t>() + 1});
	json answer = sample.to_json();
	answer["range"] = std::move(range);
	return json_answer(std::move(answer));
}

} // namespace kaq
