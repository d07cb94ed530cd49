#include "query/request_json.h"

#include <nlohmann/json.hpp>

#include "analysis/folding.h"
#include "analysis/http_call.h"
#include "analysis/layers.h"
#include "analysis/statements.h"
#include "model/payload_reader.h"

namespace kaq {
namespace {

using nlohmann::json;

void set(json &target, const char *name, std::string_view text) {
	if (!text.empty()) {
		target[name] = text;
	}
}

void set(json &target, const char *name, int64_t number) {
	if (number != 0) {
		target[name] = number;
	}
}

json fields_json(const std::vector<Field> &fields) {
	json list = json::array();
	for (const Field &field : fields) {
		list.push_back({field.name, field.value});
	}
	return list;
}

void set(json &target, const char *name, const std::vector<Field> &fields) {
	if (!fields.empty()) {
		target[name] = fields_json(fields);
	}
}

json measures_json(const std::vector<Measure> &measures) {
	json list = json::array();
	for (const Measure &measure : measures) {
		list.push_back({measure.name, measure.value});
	}
	return list;
}

json failures_json(const Span &span, int64_t start) {
	json list = json::array();
	for (const Failure &failure : span.failures) {
		json each = {{"type", failure.type}, {"message", failure.message}};
		set(each, "level", failure.level);
		set(each, "file", failure.file);
		set(each, "line", failure.line);
		each["time_ms"] = elapsed(start, failure.time);
		list.push_back(std::move(each));
	}
	return list;
}

json stack_json(const Span &span) {
	json list = json::array();
	for (const StackFrame &frame : span.stack) {
		json each = {{"function", frame.function}};
		set(each, "class", frame.type);
		set(each, "file", frame.file);
		set(each, "line", frame.line);
		list.push_back(std::move(each));
	}
	return list;
}

json span_json(const Span &span, int64_t start) {
	json each = {{"name", span.name},
				 {"parent", span.parent},
				 {"layer", layer_name(layer_of(span))},
				 {"start_ms", elapsed(start, span.start)},
				 {"duration_ms", span.duration()}};
	set(each, "id", span.id);
	set(each, "component", span.component);
	set(each, "query", span.query);
	set(each, "host", span.host);
	set(each, "database", span.database);
	set(each, "port", span.port);
	set(each, "status", span.status);
	set(each, "sent_headers", span.sent_headers);
	set(each, "received_headers", span.received_headers);
	if (is_http_call(span)) {
		set(each, "endpoint", std::string_view(endpoint_of(span.host)));
	}
	if (span.is_async) {
		each["async"] = true;
	}
	if (span.is_failed || (is_http_call(span) && is_failed_call(span))) {
		each["failed"] = true;
	}
	if (!span.failures.empty()) {
		each["failures"] = failures_json(span, start);
	}
	if (!span.stack.empty()) {
		each["stack"] = stack_json(span);
	}
	return each;
}

void add_statements(json &spans, const Transaction &transaction) {
	Statements statements = statements_of(transaction);
	auto add = [&](const Execution &execution) {
		json &span = spans[static_cast<size_t>(execution.span)];
		const Database &database = statements.databases[execution.database];
		span["statement"] = statements.texts[execution.text];
		set(span, "database_server", database.server);
		set(span, "database_name", database.name);
	};
	for (const Execution &execution : statements.executions) {
		add(execution);
	}
	for (const Execution &execution : statements.unused) {
		add(execution);
	}
}

json findings_json(const Transaction &transaction, Serving serving) {
	FindingOptions options;
	options.serving = serving;
	json list = json::array();
	for (const Finding &finding : findings_of(transaction, options)) {
		list.push_back({{"kind", finding_name(finding.kind)},
						{"sentence", finding.sentence},
						{"gain_ms", finding.gain},
						{"count", finding.count},
						{"spans", finding.spans}});
	}
	return list;
}

json layers_json(const Transaction &transaction) {
	LayerTimes times = layer_times(transaction);
	json layers = json::object();
	for (size_t i = 0; i < kLayers; i++) {
		layers[std::string(layer_name(static_cast<Layer>(i)))] = times[i];
	}
	return layers;
}

} // namespace

std::optional<Transaction> read_document(Store &store, const std::string &id) {
	std::optional<std::string> document = store.document(id);
	if (!document) {
		return std::nullopt;
	}
	auto transaction = PayloadReader().read_json(std::move(*document));
	return transaction ? std::optional(std::move(*transaction)) : std::nullopt;
}

json spans_json(const Transaction &transaction) {
	json spans = json::array();
	std::vector<int64_t> own = self_times(transaction);
	std::vector<int32_t> shapes = shapes_of(transaction);
	for (size_t i = 0; i < transaction.spans.size(); i++) {
		json span = span_json(transaction.spans[i], transaction.spans.front().start);
		span["self_ms"] = own[i];
		span["shape"] = shapes[i];
		spans.push_back(std::move(span));
	}
	for (const Fold &fold : folds_of(transaction)) {
		for (int32_t span : fold.spans) {
			spans[static_cast<size_t>(span)]["fold"] =
				fold.kind == FoldKind::kPolls ? "polls" : "options";
		}
	}
	add_statements(spans, transaction);
	return spans;
}

json details_json(const Transaction &transaction, Serving serving) {
	json details = {{"findings", findings_json(transaction, serving)},
					{"layers", layers_json(transaction)}};
	set(details, "query_string", transaction.query_string);
	set(details, "application_group", transaction.application_group);
	set(details, "session", transaction.session_id);
	set(details, "bytes_in", transaction.bytes_in);
	set(details, "bytes_out", transaction.bytes_out);
	set(details, "request_headers", transaction.request_headers);
	set(details, "parameters", transaction.parameters);
	set(details, "response_headers", transaction.response_headers);
	set(details, "custom_parameters", transaction.custom_parameters);
	if (!transaction.sums.empty()) {
		details["sums"] = measures_json(transaction.sums);
	}
	if (!transaction.averages.empty()) {
		details["averages"] = measures_json(transaction.averages);
	}
	return details;
}

} // namespace kaq
