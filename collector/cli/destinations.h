/* Places that requests are sent to, as the configuration names them and as they are shown. No
 * state.
 */
#pragma once

#include <vector>

#include <nlohmann/json.hpp>

#include "cli/configuration.h"
#include "export/destination.h"

namespace kaq {

/* With this host's name, where only its own processes can reach the collector. */
std::vector<DestinationSettings> destinations_of(const Configuration &configuration);

/* A list of objects; docs/openapi.yaml describes them. */
nlohmann::json to_json(const std::vector<DestinationStatus> &statuses);

} // namespace kaq
