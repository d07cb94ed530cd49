#include "query/summary_json.h"

#include <nlohmann/json.hpp>

namespace kaq {
namespace {

/* Each member once; both directions go through it. */
template <typename Text, typename Number, typename Truth, typename S>
void each_member(S &summary, Text text, Number number, Truth truth) {
	text("id", summary.id);
	text("trace_id", summary.trace_id);
	text("application", summary.application);
	text("name", summary.name);
	text("path", summary.path);
	text("method", summary.method);
	number("start_ms", summary.start);
	number("duration_ms", summary.duration);
	number("cpu_ms", summary.cpu);
	number("memory_bytes", summary.memory);
	number("status", summary.status);
	number("spans", summary.spans);
	number("queries", summary.queries);
	number("calls", summary.calls);
	number("failures", summary.failures);
	number("query_ms", summary.query_time);
	number("external_ms", summary.external_time);
	truth("web", summary.is_web);
	truth("failed", summary.is_failed);
}

} // namespace

nlohmann::json to_json(const Summary &summary) {
	nlohmann::json json;
	auto set = [&json](const char *name, const auto &value) { json[name] = value; };
	each_member(summary, set, set, set);
	return json;
}

Summary summary_from_json(const nlohmann::json &json) {
	Summary summary;
	auto get = [&json](const char *name, auto &value) { value = json.value(name, value); };
	each_member(summary, get, get, get);
	return summary;
}

nlohmann::json to_json(const RequestRow &row) {
	nlohmann::json json = to_json(row.summary);
	json["host"] = row.host;
	json["instance"] = row.instance;
	json["verdict"] = row.verdict.sentence;
	json["gain_ms"] = row.verdict.gain;
	json["findings"] = row.verdict.kinds;
	json["kept"] = row.has_document;
	json["pinned"] = row.is_pinned;
	return json;
}

} // namespace kaq
