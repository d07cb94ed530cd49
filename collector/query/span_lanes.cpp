#include "query/span_lanes.h"

#include <algorithm>
#include <map>

#include "analysis/statements.h"

namespace kaq {
namespace {

constexpr size_t kRoot = 0;
constexpr size_t kLongestLabel = 200;

class Placing {
public:
	explicit Placing(const Transaction &transaction)
		: spans_(transaction.spans), children_(spans_.size()), places_(spans_.size()) {
	}

	std::vector<std::vector<PlacedSpan>> place() {
		sort_children();
		lanes_.emplace_back();
		const Span &root = spans_[kRoot];
		places_[kRoot] = {0, 0, 0, root.start, std::max(root.start, root.end)};
		/* The next one is at the end: parents come before their children. */
		std::vector<size_t> open = {kRoot};
		while (!open.empty()) {
			size_t index = open.back();
			open.pop_back();
			const Place &place = places_[index];
			lanes_[place.lane].push_back({index, place.depth, place.start, place.end});
			place_children(index);
			open.insert(open.end(), children_[index].rbegin(), children_[index].rend());
		}
		for (std::vector<PlacedSpan> &lane : lanes_) {
			std::stable_sort(lane.begin(), lane.end(),
							 [this](const PlacedSpan &one, const PlacedSpan &other) {
								 return places_[one.index].group < places_[other.index].group;
							 });
		}
		return std::move(lanes_);
	}

private:
	struct Place {
		size_t lane = 0;
		size_t group = 0; /* which of the spans that came into their lane beside others, by time */
		size_t depth = 0;
		int64_t start = 0;
		int64_t end = 0;
	};

	void sort_children() {
		for (size_t i = 1; i < spans_.size(); i++) {
			children_[static_cast<size_t>(std::max(spans_[i].parent, 0))].push_back(i);
		}
		for (std::vector<size_t> &list : children_) {
			std::stable_sort(list.begin(), list.end(), [this](size_t one, size_t other) {
				return spans_[one].start < spans_[other].start;
			});
		}
	}

	void place_children(size_t index) {
		const Place parent = places_[index];
		int64_t free_from = parent.start;
		for (size_t child : children_[index]) {
			const Span &span = spans_[child];
			int64_t start = std::clamp(span.start, parent.start, parent.end);
			int64_t end = std::clamp(span.end, start, parent.end);
			if (start >= free_from) {
				places_[child] = {parent.lane, parent.group, parent.depth + 1, start, end};
				free_from = end;
			} else {
				places_[child] = {free_lane(start, end), ++groups_, 0, start, end};
			}
		}
	}

	/* One of the further lanes in which nothing lies from then on. */
	size_t free_lane(int64_t start, int64_t end) {
		auto first = lane_ends_.begin();
		size_t lane = lanes_.size();
		if (first != lane_ends_.end() && first->first <= start) {
			lane = first->second;
			lane_ends_.erase(first);
		} else {
			lanes_.emplace_back();
		}
		lane_ends_.emplace(end, lane);
		return lane;
	}

	const std::vector<Span> &spans_;
	std::vector<std::vector<size_t>> children_;
	std::vector<Place> places_;
	std::vector<std::vector<PlacedSpan>> lanes_;
	std::multimap<int64_t, size_t> lane_ends_; /* of the further lanes */
	size_t groups_ = 0;
};

std::string label_of(const std::string &text) {
	std::string_view kept = shortened(text, kLongestLabel);
	return kept.size() < text.size() ? std::string(kept) + "…" : text;
}

} // namespace

std::vector<std::vector<PlacedSpan>> lanes_of(const Transaction &transaction) {
	return Placing(transaction).place();
}

std::string span_label(const Span &span) {
	std::string label(span.name.empty() ? span.component : span.name);
	std::string_view called = span.query.empty() ? span.host : span.query;
	label += label.empty() || called.empty() ? "" : ": ";
	label += called;
	return label.empty() ? "(no name)" : label_of(label);
}

std::string request_label(const Transaction &transaction) {
	std::string label(transaction.application);
	for (std::string_view part :
		 {transaction.method,
		  transaction.normalised_name.empty() ? transaction.name : transaction.normalised_name}) {
		label += label.empty() || part.empty() ? "" : " ";
		label += part;
	}
	return label_of(label);
}

} // namespace kaq
