/* A request's summary as a line for a terminal. */
#pragma once

#include <string>

#include "analysis/summary.h"
#include "query/summary_json.h"

namespace kaq {

/* Without control characters, whatever the names hold; with colours if wanted. */
std::string to_line(const Summary &summary, bool has_colours);
/* What stands above the first line. */
std::string line_titles();

} // namespace kaq
