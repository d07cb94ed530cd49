/* What a new configuration may change while the collector runs. No state. */
#pragma once

#include <string>
#include <vector>

#include "cli/configuration.h"
#include "cli/verbs.h"

namespace kaq {

/* The file's settings, with the options that win over them. */
ConfigurationOrMistakes load_with_options(const CollectOptions &options);

/* Gives `next` the running values of settings that only a new start can change, and returns the
 * names of those that were to be changed. */
std::vector<std::string> keep_fixed_settings(const Configuration &running, Configuration &next);

} // namespace kaq
