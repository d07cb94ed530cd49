/* A request's summary as JSON and as a line for a terminal. */
#pragma once

#include <string>

#include <nlohmann/json_fwd.hpp>

#include "analysis/summary.h"

namespace kaq {

nlohmann::json to_json(const Summary &summary);
/* A member that is missing keeps its default. */
Summary summary_from_json(const nlohmann::json &json);

/* Without control characters, whatever the names hold; with colours if wanted. */
std::string to_line(const Summary &summary, bool has_colours);
/* What stands above the first line. */
std::string line_titles();

} // namespace kaq
