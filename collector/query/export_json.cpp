#include <nlohmann/json.hpp>

#include "analysis/summary.h"
#include "query/export.h"
#include "query/export_private.h"
#include "query/summary_json.h"

namespace kaq {
namespace {

using nlohmann::json;

/* Members that say nothing are left out. */
void add(json &object, const char *name, std::string_view text) {
	if (!text.empty()) {
		object[name] = text;
	}
}

void add(json &object, const char *name, int64_t number) {
	if (number != 0) {
		object[name] = number;
	}
}

void add(json &object, const char *name, bool is_so) {
	if (is_so) {
		object[name] = true;
	}
}

template <typename Item, typename ToJson>
void add_list(json &object, const char *name, const std::vector<Item> &items, ToJson to_item) {
	for (const Item &item : items) {
		object[name].push_back(to_item(item));
	}
}

json field_json(const Field &field) {
	return {{"name", field.name}, {"value", field.value}};
}

json measure_json(const Measure &measure) {
	return {{"name", measure.name}, {"value", measure.value}};
}

json failure_json(const Failure &failure) {
	json object = {{"type", failure.type}, {"message", failure.message}};
	add(object, "level", failure.level);
	add(object, "file", failure.file);
	add(object, "line", failure.line);
	add(object, "time_ms", failure.time);
	return object;
}

json frame_json(const StackFrame &frame) {
	json object = {{"function", frame.function}};
	add(object, "class", frame.type);
	add(object, "file", frame.file);
	add(object, "line", frame.line);
	return object;
}

json span_json(const Span &span) {
	json object = {{"start_ms", span.start}, {"duration_ms", span.duration()}};
	object["parent"] = span.parent < 0 ? json() : json(span.parent);
	add(object, "id", span.id);
	add(object, "parent_id", span.parent_id);
	add(object, "name", span.name);
	add(object, "component", span.component);
	add(object, "query", span.query);
	add(object, "host", span.host);
	add(object, "port", span.port);
	add(object, "database", span.database);
	add(object, "status", span.status);
	add(object, "external", span.is_external);
	add(object, "async", span.is_async);
	add(object, "failed", span.is_failed);
	add_list(object, "sent_headers", span.sent_headers, field_json);
	add_list(object, "received_headers", span.received_headers, field_json);
	add_list(object, "errors", span.failures, failure_json);
	add_list(object, "stack", span.stack, frame_json);
	return object;
}

json transaction_json(const Transaction &transaction) {
	json object = to_json(summarise(transaction));
	add(object, "application_group", transaction.application_group);
	add(object, "instance_id", transaction.instance_id);
	add(object, "host", transaction.host);
	add(object, "query_string", transaction.query_string);
	add(object, "session_id", transaction.session_id);
	add(object, "flow", transaction.flow);
	add(object, "bytes_in", transaction.bytes_in);
	add(object, "bytes_out", transaction.bytes_out);
	add(object, "thread", transaction.thread);
	add(object, "async", transaction.is_async);
	add_list(object, "request_headers", transaction.request_headers, field_json);
	add_list(object, "parameters", transaction.parameters, field_json);
	add_list(object, "response_headers", transaction.response_headers, field_json);
	add_list(object, "custom_parameters", transaction.custom_parameters, field_json);
	add_list(object, "sums", transaction.sums, measure_json);
	add_list(object, "averages", transaction.averages, measure_json);
	/* In the place of their number. */
	object["spans"] = json::array();
	add_list(object, "spans", transaction.spans, span_json);
	return object;
}

} // namespace

std::string to_json_document(const ExportedRequests &trace) {
	json requests = json::array();
	for (const Transaction *transaction : in_order(trace)) {
		requests.push_back(transaction_json(*transaction));
	}
	return text_of({{"requests", std::move(requests)}});
}

} // namespace kaq
