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
	summary.id = transaction.spans.front().id;
	summary.trace_id = transaction.trace_id;
	summary.application = transaction.application;
	summary.path = transaction.name;
	summary.name =
		transaction.normalised_name.empty() ? transaction.name : transaction.normalised_name;
	summary.method = transaction.method;
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
