/* Spans of time, in milliseconds since the Unix epoch. No state; any thread. */
#pragma once

#include <algorithm>
#include <cstdint>
#include <vector>

#include "model/transaction.h"

namespace kaq {

struct Interval {
	int64_t start = 0;
	int64_t end = 0;

	int64_t duration() const {
		return elapsed(start, end);
	}
};

inline Interval interval_of(const Span &span) {
	return {span.start, span.end};
}

/* The part of it that lies within the outer one; possibly empty. */
inline Interval clipped(Interval inner, Interval outer) {
	return {std::max(inner.start, outer.start), std::min(inner.end, outer.end)};
}

/* The time that at least one of them covers. Sorts them. */
inline int64_t covered_time(std::vector<Interval> &intervals) {
	std::sort(intervals.begin(), intervals.end(),
			  [](const Interval &one, const Interval &other) { return one.start < other.start; });
	int64_t total = 0;
	Interval current;
	bool has_current = false;
	for (const Interval &next : intervals) {
		if (next.end <= next.start) {
			continue;
		}
		if (has_current && next.start <= current.end) {
			current.end = std::max(current.end, next.end);
			continue;
		}
		total += current.duration();
		current = next;
		has_current = true;
	}
	return total + current.duration();
}

} // namespace kaq
