/*
 * A request, or all requests of a trace, for other programs. No state; any thread.
 *
 * Times count from the earliest request's start. What overlaps in a request is in lanes of its own,
 * see span_lanes.h. REQUIRES: at least one request, none of them null.
 */
#pragma once

#include <string>
#include <vector>

#include "model/transaction.h"

namespace kaq {

using ExportedRequests = std::vector<const Transaction *>;

/* The JSON of speedscope: an evented profile for each lane of each request, in milliseconds. */
std::string to_speedscope(const ExportedRequests &trace);

/* The trace event format in JSON, which Perfetto and Chromium read: a process for each request, a
 * thread for each lane, an arrow from each call to the request that it made; in microseconds. */
std::string to_trace_events(const ExportedRequests &trace);

/* Everything that is known, as docs/export.md describes it. */
std::string to_json_document(const ExportedRequests &trace);

} // namespace kaq
