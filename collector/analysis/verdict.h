/* The one sentence about a request: "61 times the same statement under Cart::items: 480 of 620 ms".
 * No state; any thread. */
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "analysis/findings.h"
#include "model/transaction.h"

namespace kaq {

struct Verdict {
	std::string sentence; /* empty: there is nothing to say */
	FindingKind kind = FindingKind::kFailure;
	int64_t gain = 0; /* milliseconds */

	bool is_said() const {
		return !sentence.empty();
	}
};

/* Of findings_of(): they are in its order. */
Verdict verdict_of(const std::vector<Finding> &findings);

Verdict verdict_of(const Transaction &transaction, const FindingOptions &options = {});

} // namespace kaq
