/* The part of assemble_trace() that finds what held a trace up. */
#pragma once

#include <vector>

#include "analysis/trace.h"

namespace kaq {

/* Of the first request, with all that it has caused. */
std::vector<PathStep> critical_path_of(const std::vector<TraceRequest> &requests);

} // namespace kaq
