#include <algorithm>
#include <unordered_map>

#include <nlohmann/json.hpp>

#include "query/export.h"
#include "query/export_private.h"
#include "query/span_lanes.h"

namespace kaq {
namespace {

using nlohmann::json;

/* What is called the same is one frame. */
class Frames {
public:
	size_t index_of(const std::string &name) {
		auto [found, is_new] = indexes_.emplace(name, indexes_.size());
		if (is_new) {
			list_.push_back({{"name", name}});
		}
		return found->second;
	}

	json take() {
		return std::move(list_);
	}

private:
	std::unordered_map<std::string, size_t> indexes_;
	json list_ = json::array();
};

json events_of(const Transaction &transaction, const std::vector<PlacedSpan> &lane, int64_t origin,
			   Frames &frames) {
	struct Open {
		size_t frame;
		int64_t end;
	};
	json events = json::array();
	std::vector<Open> open;
	auto close_to = [&](size_t depth) {
		for (; open.size() > depth; open.pop_back()) {
			events.push_back(
				{{"type", "C"}, {"frame", open.back().frame}, {"at", open.back().end - origin}});
		}
	};
	for (const PlacedSpan &placed : lane) {
		close_to(placed.depth);
		size_t frame = frames.index_of(span_label(transaction.spans[placed.index]));
		events.push_back({{"type", "O"}, {"frame", frame}, {"at", placed.start - origin}});
		open.push_back({frame, placed.end});
	}
	close_to(0);
	return events;
}

json profile(const std::string &name, int64_t origin, const std::vector<PlacedSpan> &lane,
			 json events) {
	int64_t end = lane.front().end;
	for (const PlacedSpan &placed : lane) {
		end = std::max(end, placed.end);
	}
	return {{"type", "evented"},        {"name", name},
			{"unit", "milliseconds"},   {"startValue", lane.front().start - origin},
			{"endValue", end - origin}, {"events", std::move(events)}};
}

} // namespace

std::string to_speedscope(const ExportedRequests &trace) {
	Frames frames;
	json profiles = json::array();
	int64_t origin = start_of(trace);
	for (const Transaction *transaction : in_order(trace)) {
		std::string name = request_label(*transaction);
		size_t number = 0;
		for (const std::vector<PlacedSpan> &lane : lanes_of(*transaction)) {
			profiles.push_back(profile(lane_label(name, number++), origin, lane,
									   events_of(*transaction, lane, origin, frames)));
		}
	}
	return text_of({{"$schema", "https://www.speedscope.app/file-format-schema.json"},
					{"name", request_label(*in_order(trace).front())},
					{"exporter", "kaq"},
					{"activeProfileIndex", 0},
					{"shared", {{"frames", frames.take()}}},
					{"profiles", std::move(profiles)}});
}

} // namespace kaq
