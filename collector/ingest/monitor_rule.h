/* Which requests are recorded, and with what. */
#pragma once

#include <cstdint>
#include <string>

namespace kaq {

/* A share is counted in millionths, so that counting it out is exact. */
constexpr uint32_t kWholeShare = 1000000;

/* A rule of the configuration; the first one counts whose patterns match. Both are globs. */
struct MonitorRule {
	std::string application = "*";
	std::string transaction = "*"; /* the path that is asked for */
	uint32_t share = kWholeShare;  /* of the requests; 0: none */
	int sql_stack_seconds = 1;     /* a slower statement is recorded with its callers */
	std::string snippet;           /* for browsers; empty: none */
};

} // namespace kaq
