/* Mistakes as an answer of the HTTP interface. */
#pragma once

#include <vector>

#include <nlohmann/json_fwd.hpp>

#include "query/mistake.h"

namespace kaq {

/* {"mistakes":[{"column":5,"text":"unknown field 'tnx'","hint":"did you mean txn:?"}]} */
nlohmann::json to_json(const std::vector<Mistake> &mistakes);

} // namespace kaq
