/* A section [[export.otlp]] of the configuration. No state. */
#pragma once

#include <vector>

#include "cli/toml_section_private.h"

namespace kaq {

/* Adds one to those that were read before. */
void read_destination(TomlSection &section, std::vector<DestinationSettings> &destinations);

} // namespace kaq
