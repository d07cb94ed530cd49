#include "query/export_private.h"

#include <algorithm>

#include <nlohmann/json.hpp>

namespace kaq {

ExportedRequests in_order(ExportedRequests trace) {
	std::stable_sort(trace.begin(), trace.end(),
					 [](const Transaction *one, const Transaction *other) {
						 return one->spans.front().start < other->spans.front().start;
					 });
	return trace;
}

int64_t start_of(const ExportedRequests &trace) {
	return in_order(trace).front()->spans.front().start;
}

std::string lane_label(const std::string &request, size_t number) {
	return number == 0 ? request : request + ", in parallel " + std::to_string(number);
}

std::string text_of(const nlohmann::json &json) {
	return json.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
}

} // namespace kaq
