/* Requests as JSON, in lists and as they end. No state; any thread. */
#pragma once

#include <nlohmann/json_fwd.hpp>

#include "analysis/summary.h"
#include "store/store.h"

namespace kaq {

nlohmann::json to_json(const Summary &summary);
/* A member that is missing, or of another type, keeps its default. */
Summary summary_from_json(const nlohmann::json &json);

/* The summary's members with host, instance, verdict, gain_ms, findings, kept and pinned. */
nlohmann::json to_json(const RequestRow &row);

} // namespace kaq
