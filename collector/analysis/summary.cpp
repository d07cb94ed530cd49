#include "analysis/summary.h"

#include <vector>

namespace kaq {
namespace {

enum class Layer { kCode, kDatabase, kHttp };

Layer layer_of(const Span &span) {
	if (span.component == "HTTP") {
		return Layer::kHttp;
	}
	return span.query.empty() ? Layer::kCode : Layer::kDatabase;
}

bool has_serious_failure(const Span &span) {
	for (const Failure &failure : span.failures) {
		if (failure.level == "Error") {
			return true;
		}
	}
	return false;
}

/* Time within a call counts once, however many calls it makes in turn. */
void add_spans(Summary &summary, const std::vector<Span> &spans) {
	std::vector<bool> is_within_layer(spans.size(), false);
	for (size_t i = 0; i < spans.size(); i++) {
		const Span &span = spans[i];
		Layer layer = layer_of(span);
		bool is_inner = span.parent >= 0 && is_within_layer[static_cast<size_t>(span.parent)];
		is_within_layer[i] = is_inner || layer != Layer::kCode;
		summary.failures += static_cast<int64_t>(span.failures.size());
		summary.is_failed = summary.is_failed || has_serious_failure(span);
		if (layer == Layer::kDatabase) {
			summary.queries++;
			summary.query_time += is_inner ? 0 : span.duration();
		} else if (layer == Layer::kHttp && span.is_external) {
			summary.calls++;
			summary.external_time += is_inner ? 0 : span.duration();
		}
	}
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
	add_spans(summary, transaction.spans);
	return summary;
}

} // namespace kaq
