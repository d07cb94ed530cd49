/*
 * What the processes of a fork report: each the request before the fork, and what it did itself
 * afterwards. No state; any thread.
 */
#pragma once

#include <cstdint>
#include <vector>

#include "model/transaction.h"

namespace kaq {

/* The same for all processes of a fork, which differ by their thread; another for other requests,
 * as far as 64 bits can tell. */
uint64_t fork_family(const Transaction &transaction);

/* What a span is known by in another process. */
struct SpanMark {
	int32_t parent;
	uint64_t call; /* its name and component */
	int64_t start;
	int64_t end;
};

std::vector<SpanMark> marks_of(const Transaction &transaction);

/* By span of `other`, whether `one`, of another process of the same fork, has recorded it as well.
 * The root never is. */
std::vector<bool> repeated_spans(const std::vector<SpanMark> &one,
								 const std::vector<SpanMark> &other);

} // namespace kaq
