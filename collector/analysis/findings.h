/*
 * What is worth knowing about one request: why it was slow, what failed, what is missing. A finding
 * matters, in milliseconds and as a share of the request, or it is not made; docs/verdicts.md has
 * the table of what is looked for, when it is said and how the gain is computed. No state; any
 * thread.
 */
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "analysis/finding_kind.h"
#include "model/transaction.h"

namespace kaq {

constexpr size_t kMostSpansOfAFinding = 1000;

struct Finding {
	FindingKind kind = FindingKind::kFailure;
	std::string sentence; /* one, plain, without a full stop; at most 512 bytes */
	int64_t gain = 0;     /* milliseconds; 0 where there are none to gain, or nobody can tell */
	int64_t count = 0;    /* calls that it is about */
	std::vector<int32_t> spans; /* their indexes, the first kMostSpansOfAFinding; may be empty */
};

/* How the process serves requests, which a document does not tell. */
enum class Serving { kUnknown, kOneAtATime, kThreads };

struct FindingOptions {
	/* Processor time is that of the process: it tells what a request waited for only where the
	 * process serves nothing else meanwhile. */
	Serving serving = Serving::kUnknown;
	/* The extension's, which a site can change. */
	int64_t span_limit = 10000;
};

constexpr size_t kMostFindings = 100;

/* At most kMostFindings, the most important one first: what ended the request, then by gain. Gains
 * of several findings may overlap, and are not to be added up. */
std::vector<Finding> findings_of(const Transaction &transaction,
								 const FindingOptions &options = {});

} // namespace kaq
