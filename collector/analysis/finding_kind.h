/*
 * The kinds of findings about a request; docs/verdicts.md has the table of them. No state; any
 * thread.
 */
#pragma once

#include <string_view>
#include <vector>

namespace kaq {

enum class FindingKind {
	kFailure,   /* an error ended the request, or it answered 500 and above after an exception */
	kTimeLimit, /* ended the request: what took the time is said by others */
	kDuplicateStatement, /* a reading statement ran again with the same values */
	kRepeatedStatement,  /* the same statement again and again, with other values */
	kSlowStatement,
	kRepeatedCacheCall,
	kCallsInSequence, /* HTTP calls that could overlap, if they are independent */
	kSlowCall,
	kFailedCall,
	kWaiting,
	kSlowCode,
	kPolling,   /* of transfers, without waiting in between */
	kSpanLimit, /* reached: what follows is missing */
};

/* "repeated-statement" */
std::string_view finding_name(FindingKind kind);
/* Of all kinds, in their order. */
const std::vector<std::string_view> &finding_names();

} // namespace kaq
