#include "analysis/summary.h"

#include <algorithm>

#include "analysis/failure_group.h"
#include "analysis/http_call.h"
#include "analysis/layers.h"
#include "analysis/statements.h"

namespace kaq {
namespace {

bool has_serious_failure(const Span &span) {
	return std::any_of(span.failures.begin(), span.failures.end(), is_serious);
}

void add_spans(Summary &summary, const Transaction &transaction) {
	for (const Span &span : transaction.spans) {
		summary.failures += static_cast<int64_t>(span.failures.size());
		summary.is_failed = summary.is_failed || has_serious_failure(span);
		summary.queries += is_execution(span) ? 1 : 0;
		summary.calls += is_http_call(span) ? 1 : 0;
	}
	LayerTimes times = layer_times(transaction);
	summary.query_time = time_of(times, Layer::kDatabase);
	summary.external_time = time_of(times, Layer::kHttp);
}

} // namespace

Summary summarise(const Transaction &transaction) {
	Summary summary;
	summary.id = shortened(transaction.spans.front().id, kLongestSummaryWord);
	summary.trace_id = shortened(transaction.trace_id, kLongestSummaryWord);
	summary.application = shortened(transaction.application, kLongestSummaryName);
	summary.path = shortened(transaction.name, kLongestSummaryName);
	summary.name = transaction.normalised_name.empty()
					   ? summary.path
					   : shortened(transaction.normalised_name, kLongestSummaryName);
	summary.method = shortened(transaction.method, kLongestSummaryWord);
	summary.start = transaction.start;
	summary.duration = transaction.duration();
	summary.cpu = transaction.cpu;
	summary.memory = transaction.memory;
	summary.status = transaction.status;
	summary.spans = static_cast<int64_t>(transaction.spans.size());
	summary.is_web = transaction.is_web;
	summary.is_failed = transaction.status >= 500;
	add_spans(summary, transaction);
	return summary;
}

} // namespace kaq
