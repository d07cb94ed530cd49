/* The requests of a trace as one tree, as JSON. No state; any thread. */
#pragma once

#include <vector>

#include <nlohmann/json_fwd.hpp>

#include "store/store.h"

namespace kaq {

/*
 * Requests with their documents, each below the call that caused it, times on one clock; the
 * critical path; the trace's begin and duration. What was kept without a document stands at the end
 * of the list, and so does what is left out as too much, which says so.
 */
nlohmann::json trace_json(Store &store, const std::vector<RequestRow> &rows);

/* What held one request up, by the same names. */
nlohmann::json critical_path_json(const Transaction &transaction);

} // namespace kaq
