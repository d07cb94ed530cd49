/* One request with everything that its document holds, as JSON. No state; any thread. */
#pragma once

#include <optional>
#include <string>
#include <vector>

#include <nlohmann/json_fwd.hpp>

#include "analysis/findings.h"
#include "model/transaction.h"
#include "store/store.h"

namespace kaq {

/* Of the document; nothing if it was not kept or cannot be read. `id` is whole. */
std::optional<Transaction> read_document(Store &store, const std::string &id);

/*
 * Spans in the document's order, each with its parent's index, times relative to the request's
 * begin, its own time, its layer and its statement; what is empty is left out. Spans of one `shape`
 * do the same with all that is below them; `fold` says what a span is a silent part of.
 */
nlohmann::json spans_json(const Transaction &transaction);

/* Findings, time by layer, headers and parameters. `serving` is how its process served it. */
nlohmann::json details_json(const Transaction &transaction, Serving serving);

/* Per span the number of its shape, the same for those that do the same: by name, statement and
 * address, and the shapes of the calls within, where several in a row count as one. */
std::vector<int32_t> shapes_of(const Transaction &transaction);

} // namespace kaq
