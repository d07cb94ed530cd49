#include "export/otlp_attributes.h"

#include <algorithm>

#include "util/version.h"

namespace kaq {
namespace {

OtlpValue text(std::string_view value) {
	return value.empty() ? OtlpValue() : OtlpValue(value);
}

OtlpValue number(int64_t value) {
	return value == 0 ? OtlpValue() : OtlpValue(value);
}

OtlpValue yes(bool is_so) {
	return is_so ? OtlpValue(true) : OtlpValue();
}

bool is_user_agent(std::string_view name) {
	static constexpr std::string_view kName = "user-agent";
	return name.size() == kName.size() &&
		   std::equal(name.begin(), name.end(), kName.begin(), [](char one, char other) {
			   return (one >= 'A' && one <= 'Z' ? one | 0x20 : one) == other;
		   });
}

OtlpValue user_agent(const SpanFacts &facts) {
	for (const Field &header : facts.transaction.request_headers) {
		if (is_user_agent(header.name)) {
			return text(header.value);
		}
	}
	return {};
}

OtlpValue path(const SpanFacts &facts) {
	std::string_view name = facts.transaction.name;
	return name.substr(0, 1) == "/" ? text(name) : OtlpValue();
}

/* The call that was made, with the line that made it where the stack tells it. */
const StackFrame *caller(const SpanFacts &facts) {
	const std::vector<StackFrame> &stack = facts.span.stack;
	auto frame = std::find_if(stack.begin(), stack.end(),
							  [](const StackFrame &each) { return !each.file.empty(); });
	return frame == stack.end() ? nullptr : &*frame;
}

constexpr unsigned kServed = kServerSpan | kHttpSpan | kDatabaseSpan | kCacheSpan | kOtherSpan;
constexpr unsigned kStores = kDatabaseSpan | kCacheSpan;

} // namespace

EventFacts::EventFacts(const Failure &one) : failure(one) {
	if (!failure.file.empty()) {
		place = "#0 " + std::string(failure.file) + "(" + std::to_string(failure.line) + ")";
	}
}

/* table; docs/export.md has the same in words. */
const std::vector<OtlpAttribute> &otlp_attributes() {
	using Facts = const SpanFacts &;
	static const std::vector<OtlpAttribute> kTable = {
		{"http.request.method", kServerSpan, [](Facts facts) { return text(facts.method); }},
		{"http.request.method_original", kServerSpan,
		 [](Facts facts) {
			 bool is_same = facts.method == facts.transaction.method;
			 return is_same ? OtlpValue() : text(facts.transaction.method);
		 }},
		{"url.path", kServerSpan, path},
		{"url.query", kServerSpan,
		 [](Facts facts) { return text(facts.transaction.query_string); }},
		{"user_agent.original", kServerSpan, user_agent},
		{"http.response.status_code", kServerSpan,
		 [](Facts facts) { return number(facts.transaction.status); }},
		{"http.request.body.size", kServerSpan,
		 [](Facts facts) { return number(std::max<int64_t>(facts.transaction.bytes_in, 0)); }},
		{"http.response.body.size", kServerSpan,
		 [](Facts facts) { return number(std::max<int64_t>(facts.transaction.bytes_out, 0)); }},
		{"url.full", kHttpSpan, [](Facts facts) { return text(facts.span.host); }},
		{"http.response.status_code", kHttpSpan,
		 [](Facts facts) { return number(facts.span.status); }},
		{"server.address", kServed, [](Facts facts) { return text(facts.server); }},
		{"server.port", kServed, [](Facts facts) { return number(facts.port); }},
		{"db.system.name", kStores, [](Facts facts) { return text(facts.system); }},
		{"db.namespace", kDatabaseSpan, [](Facts facts) { return text(facts.name_space); }},
		{"db.query.text", kDatabaseSpan, [](Facts facts) { return text(facts.statement); }},
		{"db.query.summary", kDatabaseSpan, [](Facts facts) { return text(facts.summary); }},
		{"db.operation.name", kStores, [](Facts facts) { return text(facts.operation); }},
		{"code.function.name", kAllSpans & ~kRootSpans,
		 [](Facts facts) { return text(facts.span.name); }},
		{"code.file.path", kAllSpans,
		 [](Facts facts) { return caller(facts) ? text(caller(facts)->file) : OtlpValue(); }},
		{"code.line.number", kAllSpans,
		 [](Facts facts) { return caller(facts) ? number(caller(facts)->line) : OtlpValue(); }},
		{"code.stacktrace", kAllSpans, [](Facts facts) { return text(facts.stack); }},
		{"error.type", kAllSpans, [](Facts facts) { return text(facts.error_type); }},
		{"thread.id", kRootSpans, [](Facts facts) { return number(facts.transaction.thread); }},
		{"kaq.transaction", kRootSpans,
		 [](Facts facts) { return text(facts.transaction.normalised_name); }},
		{"kaq.cpu_ms", kRootSpans, [](Facts facts) { return OtlpValue(facts.transaction.cpu); }},
		{"kaq.memory_bytes", kRootSpans,
		 [](Facts facts) { return OtlpValue(facts.transaction.memory); }},
		{"kaq.component", kAllSpans & ~(kRootSpans | kCodeSpan),
		 [](Facts facts) { return text(facts.span.component); }},
		{"kaq.async", kAllSpans,
		 [](Facts facts) {
			 bool is_root = (facts.span_class & kRootSpans) != 0;
			 return yes(is_root ? facts.transaction.is_async : facts.span.is_async);
		 }},
		{"kaq.trace_id", kRootSpans,
		 [](Facts facts) {
			 std::string_view id = facts.transaction.trace_id;
			 return valid_trace_id(id) ? OtlpValue() : text(id);
		 }},
		{"kaq.span_id", kAllSpans,
		 [](Facts facts) {
			 return valid_span_id(facts.span.id) ? OtlpValue() : text(facts.span.id);
		 }},
		{"kaq.parent_span_id", kRootSpans, [](Facts facts) { return text(facts.parent); }},
	};
	return kTable;
}

const std::vector<OtlpResourceAttribute> &otlp_resource_attributes() {
	using Facts = const ResourceFacts &;
	static const std::vector<OtlpResourceAttribute> kTable = {
		{"service.name",
		 [](Facts facts) {
			 std::string_view name = facts.transaction.application;
			 return OtlpValue(name.empty() ? std::string_view("unknown_service:php") : name);
		 }},
		{"service.namespace",
		 [](Facts facts) { return text(facts.transaction.application_group); }},
		{"service.instance.id", [](Facts facts) { return text(facts.transaction.instance_id); }},
		{"host.name", [](Facts facts) { return text(facts.host); }},
		{"telemetry.sdk.name", [](Facts) { return OtlpValue(std::string_view("kaq")); }},
		{"telemetry.sdk.language", [](Facts) { return OtlpValue(std::string_view("php")); }},
		{"telemetry.sdk.version", [](Facts) { return OtlpValue(std::string_view(kVersion)); }},
	};
	return kTable;
}

const std::vector<OtlpEventAttribute> &otlp_event_attributes() {
	using Facts = const EventFacts &;
	static const std::vector<OtlpEventAttribute> kTable = {
		{"exception.type",
		 [](Facts facts) {
			 bool is_engine = facts.failure.type == "ERROR" && !facts.failure.level.empty();
			 return text(is_engine ? facts.failure.level : facts.failure.type);
		 }},
		{"exception.message", [](Facts facts) { return text(facts.failure.message); }},
		{"exception.stacktrace", [](Facts facts) { return text(facts.place); }},
	};
	return kTable;
}

const std::vector<OtlpEventAttribute> &otlp_log_attributes() {
	using Facts = const EventFacts &;
	static const std::vector<OtlpEventAttribute> kTable = {
		{"code.file.path", [](Facts facts) { return text(facts.failure.file); }},
		{"code.line.number", [](Facts facts) { return number(facts.failure.line); }},
	};
	return kTable;
}

MetricFacts::MetricFacts(const RequestKey &one) : key(one) {
	if (key.is_failed) {
		error_type = key.status >= 500 ? std::to_string(key.status) : "_OTHER";
	}
}

const std::vector<OtlpPointAttribute> &otlp_point_attributes() {
	using Facts = const MetricFacts &;
	static const std::vector<OtlpPointAttribute> kTable = {
		{"http.request.method", [](Facts facts) { return text(facts.key.method); }},
		{"http.route",
		 [](Facts facts) { return facts.key.is_web ? text(facts.key.transaction) : OtlpValue(); }},
		{"http.response.status_code", [](Facts facts) { return number(facts.key.status); }},
		{"error.type", [](Facts facts) { return text(facts.error_type); }},
		{"kaq.transaction",
		 [](Facts facts) { return facts.key.is_web ? OtlpValue() : text(facts.key.transaction); }},
	};
	return kTable;
}

} // namespace kaq
