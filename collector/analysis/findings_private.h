/* What the parts of findings_of() share. */
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "analysis/findings.h"
#include "analysis/intervals.h"
#include "analysis/layers.h"
#include "model/transaction.h"

namespace kaq {

/* A gain that matters: so many milliseconds, and so many hundredths of the request. */
struct Threshold {
	int64_t least = 0;
	int64_t share = 0;
};

constexpr Threshold kRepeated = {20, 10};
constexpr int64_t kFewestRepetitions = 5;
constexpr Threshold kSlowOne = {100, 20};
constexpr Threshold kSlowCallOne = {100, 25};
constexpr Threshold kInSequence = {20, 10};
constexpr Threshold kFailedInVain = {20, 10};
constexpr Threshold kWaits = {100, 25};
constexpr Threshold kSlowFunction = {250, 40};
constexpr Threshold kSlowMain = {500, 50}; /* everything that is in no function belongs to main */
constexpr size_t kManyPolls = 1000;

/* A request, and what several findings need of it. */
struct Examined {
	explicit Examined(const Transaction &request, const FindingOptions &settings);

	bool matters(int64_t gain, Threshold threshold) const;

	const Span &span(int32_t index) const {
		return transaction.spans[static_cast<size_t>(index)];
	}

	/* Of a span, what is within the request: it may outlive it. */
	int64_t time_of(int32_t index) const {
		return clipped(interval_of(span(index)), interval_of(transaction.spans.front())).duration();
	}

	/* "480 of 620 ms" */
	std::string share(int64_t gain) const;

	const Transaction &transaction;
	const FindingOptions &options;
	const int64_t duration;
	const std::vector<int32_t> callers;
};

/* The user code that a group of calls has in common. */
struct Common {
	int32_t caller = 0;           /* the innermost one with at least four fifths of them */
	std::vector<int32_t> members; /* those under it */
	std::string_view branch; /* the function right below it that all members came through; empty
								if there is none, or several */
};

Common common_caller(const Examined &request, const std::vector<int32_t> &calls);

/* " under Cart::items through Item::load" */
std::string place_text(const Examined &request, const Common &common);

/* A name in a sentence: short, and on one line. */
std::string said(std::string_view name);

Finding make_finding(FindingKind kind, const std::string &sentence, int64_t gain,
					 const std::vector<int32_t> &spans);

void find_statements(const Examined &request, std::vector<Finding> &findings);
void find_calls(const Examined &request, std::vector<Finding> &findings);
void find_time(const Examined &request, std::vector<Finding> &findings);
void find_failures(const Examined &request, std::vector<Finding> &findings);

} // namespace kaq
