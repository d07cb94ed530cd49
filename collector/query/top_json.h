/* Figures of transactions as the services tell them. No state; any thread. */
#pragma once

#include <cstdint>
#include <map>
#include <vector>

#include <nlohmann/json.hpp>

#include "query/service.h"
#include "query/top.h"

namespace kaq {

/* "apdex" in milliseconds: what users are satisfied with. */
int64_t apdex_threshold_of(const Question &question);

/* "step" in milliseconds, whole minutes; where it is left out `usual`. */
int64_t step_of(const Question &question, const TimeRange &range, int64_t now, int64_t usual);

/* A step that gives a curve some sixty points. */
int64_t usual_step(const TimeRange &range, int64_t now);

/* A part of a whole; 0 of none. */
double share_of(int64_t part, int64_t whole);

/* A list of [time, count, failed, p95, total] for each step that has any. */
nlohmann::json curve_json(const std::map<int64_t, Figures> &steps);

/* A step of a curve, with everything. */
nlohmann::json point_json(int64_t time, const Figures &figures, int64_t apdex_threshold);

class TopJson {
public:
	TopJson(int64_t threshold, double minutes, double all_time)
		: threshold_(threshold), minutes_(minutes), all_time_(all_time) {
	}

	nlohmann::json of(const TopRow &row) const;
	/* With the names of the application and of the transaction. */
	nlohmann::json named(const TopRow &row) const;

private:
	int64_t threshold_;
	double minutes_;
	double all_time_;
};

} // namespace kaq
