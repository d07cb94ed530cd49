#include "query/trace_documents.h"

#include <algorithm>
#include <optional>

#include "query/request_json.h"

namespace kaq {

std::vector<const Transaction *> TraceDocuments::transactions() const {
	std::vector<const Transaction *> all;
	all.reserve(documents.size());
	for (const Transaction &each : documents) {
		all.push_back(&each);
	}
	return all;
}

TraceDocuments read_documents(Store &store, const std::vector<RequestRow> &rows) {
	TraceDocuments found;
	size_t spans = 0;
	size_t bytes = 0;
	for (const RequestRow &row : rows) {
		if (!row.has_document) {
			found.not_kept.push_back(&row);
			continue;
		}
		size_t more = static_cast<size_t>(std::max<int64_t>(row.summary.spans, 0));
		bool has_room = spans + more <= kMostSpansOfATrace && bytes <= kMostBytesOfATrace;
		if (!has_room && !found.documents.empty()) {
			found.left_out.push_back(&row);
			continue;
		}
		std::optional<Transaction> document = read_document(store, row.summary.id);
		if (!document) {
			found.not_kept.push_back(&row);
			continue;
		}
		spans += document->spans.size();
		bytes += document->texts.bytes();
		found.documents.push_back(std::move(*document));
		found.sources.push_back(&row);
	}
	return found;
}

} // namespace kaq
