/* A request's summary as the HTTP interface and `--json` show it. No state; any thread. */
#pragma once

#include <nlohmann/json_fwd.hpp>

#include "analysis/summary.h"

namespace kaq {

nlohmann::json to_json(const Summary &summary);
/* A member that is missing keeps its default. */
Summary summary_from_json(const nlohmann::json &json);

} // namespace kaq
