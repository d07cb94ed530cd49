/* Where the collector keeps things unless it is told otherwise. */
#pragma once

#include <string>

namespace kaq {

/* Of the service if it runs as such (it may write there), else of the user; created if it is
 * missing, for the owner alone. Throws std::system_error. */
std::string default_store();

/* Of the option, else of the configuration file (the usual one if its path is empty), else the
 * default. A file with mistakes names none. */
std::string store_directory(const std::string &option, const std::string &configuration_file);

/* The Unix socket of the collector that has this store. */
std::string socket_of(const std::string &store);

/* The token of the store's collector, made the first time. Throws std::system_error. */
std::string token_of(const std::string &store);

} // namespace kaq
