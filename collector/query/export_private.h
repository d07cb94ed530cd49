/* What the formats of export.h share. */
#pragma once

#include <string>

#include <nlohmann/json_fwd.hpp>

#include "query/export.h"

namespace kaq {

/* By start; of the same start as they were. */
ExportedRequests in_order(ExportedRequests trace);

/* Of its earliest root span. */
int64_t start_of(const ExportedRequests &trace);

/* The request's label for its first lane, with a number for the others. */
std::string lane_label(const std::string &request, size_t number);

std::string text_of(const nlohmann::json &json);

} // namespace kaq
