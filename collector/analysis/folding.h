/*
 * Calls of a request that tell nothing one by one: polls of a multi handle that brought no
 * transfer, and the calls that set a transfer up. A view shows a run of them in one line. No state;
 * any thread.
 */
#pragma once

#include <cstdint>
#include <vector>

#include "model/transaction.h"

namespace kaq {

enum class FoldKind { kPolls, kOptions };

/* Calls with the same parent, with no other call of that parent in between; at least two. */
struct Fold {
	FoldKind kind = FoldKind::kPolls;
	int32_t parent = 0;
	std::vector<int32_t> spans; /* in their order */
	int64_t total = 0;          /* milliseconds */
};

/* In the order of their first spans. */
std::vector<Fold> folds_of(const Transaction &transaction);

} // namespace kaq
