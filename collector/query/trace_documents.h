/* The documents of a trace's requests, as many as fit into memory. No state; any thread. */
#pragma once

#include <list>
#include <vector>

#include "model/transaction.h"
#include "store/store.h"

namespace kaq {

/* Of the spans of all requests together, and of the bytes of their texts; what comes then is left
 * out, but never the first request. */
constexpr size_t kMostSpansOfATrace = 50000;
constexpr size_t kMostBytesOfATrace = 64 * 1024 * 1024;

struct TraceDocuments {
	std::list<Transaction> documents;
	std::vector<const RequestRow *> sources;  /* whose they are, in the same order */
	std::vector<const RequestRow *> not_kept; /* without a document, or with one that is damaged */
	std::vector<const RequestRow *> left_out; /* there is no room for theirs */

	std::vector<const Transaction *> transactions() const;
};

/* REQUIRES: the rows outlive what is returned. */
TraceDocuments read_documents(Store &store, const std::vector<RequestRow> &rows);

} // namespace kaq
