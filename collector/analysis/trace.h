/*
 * The requests of one trace as one tree: each below the call that caused it, on one clock. Times
 * are milliseconds; those of the trace are on the clock of its first request's host. No state; any
 * thread. The transactions are the caller's and have to outlive the trace.
 */
#pragma once

#include <cstdint>
#include <vector>

#include "model/transaction.h"

namespace kaq {

struct TraceRequest {
	const Transaction *transaction = nullptr;
	int32_t caller_request = -1; /* index; -1: nobody of this trace has called it */
	int32_t caller_span = -1;    /* the call in it */
	/*
	 * To be added to its times. Clocks of hosts differ: a request that does not lie within the call
	 * that caused it is moved as little as is needed for that, to the call's beginning if it is
	 * longer.
	 */
	int64_t shift = 0;
	/*
	 * Set in what a forked process reported: the request of the process that it comes from. Which
	 * of both that is nobody tells: it is taken to be the one with the lower number. What the child
	 * repeats of it, calls that had ended before the fork, is_repeated by span.
	 */
	int32_t forked_from = -1;
	std::vector<bool> is_repeated; /* empty: nothing is */

	bool repeats(int32_t span) const {
		return !is_repeated.empty() && is_repeated[static_cast<size_t>(span)];
	}
};

/* Part of the time that the trace took: nothing else held it up then but this span itself. */
struct PathStep {
	int32_t request = 0;
	int32_t span = 0;
	int64_t from = 0; /* on the clock of the trace */
	int64_t to = 0;
};

struct Trace {
	std::vector<TraceRequest> requests; /* callers before those that they called */
	/* From the beginning of the first request to its end, without a gap. */
	std::vector<PathStep> critical_path;
};

/* Of transactions with at least one span each, in any order. */
Trace assemble_trace(const std::vector<const Transaction *> &transactions);

/* A time on the clock of the trace. */
int64_t shifted(int64_t time, int64_t shift);

} // namespace kaq
