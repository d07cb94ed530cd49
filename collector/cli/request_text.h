/* Requests in lists, as the services tell them. */
#pragma once

#include <nlohmann/json_fwd.hpp>

#include "cli/table.h"

namespace kaq {

/* For rows of add_request(). */
Table request_table();
void add_request(Table &table, const nlohmann::json &request);

/* Of a request that failed red, of one with errors yellow. */
Colour colour_of_request(const nlohmann::json &request);

} // namespace kaq
