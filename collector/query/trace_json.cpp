#include "query/trace_json.h"

#include <algorithm>

#include <nlohmann/json.hpp>

#include "analysis/trace.h"
#include "query/request_json.h"
#include "query/summary_json.h"
#include "query/trace_documents.h"

namespace kaq {
namespace {

using nlohmann::json;

/* Indexes of the document's spans that the forked child only repeats. */
json repeated_json(const TraceRequest &request) {
	json spans = json::array();
	for (size_t i = 0; i < request.is_repeated.size(); i++) {
		if (request.is_repeated[i]) {
			spans.push_back(i);
		}
	}
	return spans;
}

json request_json(const TraceRequest &request, const RequestRow &row, int64_t begin) {
	json each = details_json(*request.transaction, row.serving);
	each["request"] = to_json(row);
	each["spans"] = spans_json(*request.transaction);
	each["shift_ms"] = request.shift;
	each["start_ms"] = shifted(request.transaction->spans.front().start, request.shift) - begin;
	if (request.caller_request >= 0) {
		each["caller"] = {{"request", request.caller_request}, {"span", request.caller_span}};
	}
	if (request.forked_from >= 0) {
		each["forked_from"] = request.forked_from;
		each["repeated_spans"] = repeated_json(request);
	}
	return each;
}

json path_json(const Trace &trace, int64_t begin) {
	json path = json::array();
	for (const PathStep &step : trace.critical_path) {
		path.push_back({{"request", step.request},
						{"span", step.span},
						{"from_ms", step.from - begin},
						{"to_ms", step.to - begin}});
	}
	return path;
}

} // namespace

json trace_json(Store &store, const std::vector<RequestRow> &rows) {
	TraceDocuments found = read_documents(store, rows);
	std::vector<const Transaction *> transactions = found.transactions();
	Trace trace = assemble_trace(transactions);
	json requests = json::array();
	int64_t begin = 0;
	int64_t end = 0;
	for (const TraceRequest &request : trace.requests) {
		const Span &root = request.transaction->spans.front();
		begin = requests.empty() ? shifted(root.start, request.shift) : begin;
		end = std::max(end, shifted(root.end, request.shift));
		auto at = std::find(transactions.begin(), transactions.end(), request.transaction);
		const RequestRow &row = *found.sources[static_cast<size_t>(at - transactions.begin())];
		requests.push_back(request_json(request, row, begin));
	}
	json critical_path = path_json(trace, begin);
	for (const RequestRow *row : found.not_kept) {
		requests.push_back({{"request", to_json(*row)}});
	}
	for (const RequestRow *row : found.left_out) {
		requests.push_back({{"request", to_json(*row)}, {"left_out", true}});
	}
	return {{"start_ms", begin},
			{"duration_ms", elapsed(begin, end)},
			{"requests", std::move(requests)},
			{"left_out", found.left_out.size()},
			{"critical_path", std::move(critical_path)}};
}

json critical_path_json(const Transaction &transaction) {
	return path_json(assemble_trace({&transaction}), transaction.spans.front().start);
}

} // namespace kaq
