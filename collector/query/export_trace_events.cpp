#include <optional>
#include <unordered_map>

#include <nlohmann/json.hpp>

#include "query/export.h"
#include "query/export_private.h"
#include "query/span_lanes.h"

namespace kaq {
namespace {

using nlohmann::json;

constexpr int64_t kMicroseconds = 1000; /* in a millisecond */

/* What is shown beside a span that was chosen. */
json arguments_of(const Span &span) {
	json arguments = json::object();
	auto add = [&arguments](const char *name, auto value, bool is_there) {
		if (is_there) {
			arguments[name] = value;
		}
	};
	add("id", span.id, !span.id.empty());
	add("query", span.query, !span.query.empty());
	add("host", span.host, !span.host.empty());
	add("database", span.database, !span.database.empty());
	add("status", span.status, span.status != 0);
	add("failed", true, span.is_failed);
	add("async", true, span.is_async);
	for (const Failure &failure : span.failures) {
		arguments["errors"].push_back(std::string(failure.type) + ": " +
									  std::string(failure.message));
	}
	return arguments;
}

/* Where a span is drawn. */
struct Drawn {
	size_t process;
	size_t thread;
	int64_t time; /* microseconds */
};

class Events {
public:
	explicit Events(int64_t origin) : origin_(origin) {
	}

	void add(const Transaction &transaction) {
		size_t process = ++processes_;
		std::string label = request_label(transaction);
		name(process, 0, "process_name", label);
		size_t thread = 0;
		for (const std::vector<PlacedSpan> &lane : lanes_of(transaction)) {
			name(process, thread + 1, "thread_name", lane_label("request", thread));
			thread++;
			for (const PlacedSpan &placed : lane) {
				add_span(transaction.spans[placed.index], placed, process, thread);
			}
		}
		const Span &root = transaction.spans.front();
		if (!root.parent_id.empty()) {
			called_.push_back({std::string(root.parent_id), drawn_at(process, 1, root.start)});
		}
	}

	/* An arrow from each call to the request that it made, if it is there. */
	void add_arrows() {
		size_t number = 0;
		for (const auto &[caller, callee] : called_) {
			auto found = drawn_.find(caller);
			if (found != drawn_.end()) {
				number++;
				add_arrow("s", number, found->second);
				add_arrow("f", number, callee);
			}
		}
	}

	json take() {
		return std::move(list_);
	}

private:
	Drawn drawn_at(size_t process, size_t thread, int64_t start) const {
		return {process, thread, (start - origin_) * kMicroseconds};
	}

	void name(size_t process, size_t thread, const char *kind, const std::string &text) {
		list_.push_back({{"ph", "M"},
						 {"name", kind},
						 {"pid", process},
						 {"tid", thread},
						 {"args", {{"name", text}}}});
	}

	void add_span(const Span &span, const PlacedSpan &placed, size_t process, size_t thread) {
		Drawn drawn = drawn_at(process, thread, placed.start);
		list_.push_back({{"ph", "X"},
						 {"name", span_label(span)},
						 {"cat", span.component.empty() ? "PHP" : span.component},
						 {"pid", process},
						 {"tid", thread},
						 {"ts", drawn.time},
						 {"dur", (placed.end - placed.start) * kMicroseconds},
						 {"args", arguments_of(span)}});
		drawn_.emplace(span.id, drawn);
	}

	void add_arrow(const char *phase, size_t number, const Drawn &drawn) {
		json arrow = {{"ph", phase},     {"name", "call"},       {"cat", "call"},
					  {"id", number},    {"pid", drawn.process}, {"tid", drawn.thread},
					  {"ts", drawn.time}};
		if (*phase == 'f') {
			/* It ends at the span around its time, not at the next one. */
			arrow["bp"] = "e";
		}
		list_.push_back(std::move(arrow));
	}

	const int64_t origin_;
	json list_ = json::array();
	size_t processes_ = 0;
	std::unordered_map<std::string, Drawn> drawn_; /* by the span's id */
	std::vector<std::pair<std::string, Drawn>> called_;
};

} // namespace

std::string to_trace_events(const ExportedRequests &trace) {
	int64_t origin = start_of(trace);
	Events events(origin);
	for (const Transaction *transaction : in_order(trace)) {
		events.add(*transaction);
	}
	events.add_arrows();
	return text_of({{"displayTimeUnit", "ms"},
					{"otherData", {{"start_ms", origin}, {"exporter", "kaq"}}},
					{"traceEvents", events.take()}});
}

} // namespace kaq
