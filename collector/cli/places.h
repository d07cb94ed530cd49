/* Where the collector keeps things unless it is told otherwise. */
#pragma once

#include <string>

namespace kaq {

/* Of the collector that runs as a service. */
constexpr const char *kServiceStore = "/var/lib/kaq";

/* Where a collector keeps things: of the service if it runs as such (it may write there), else of
 * the user; created if it is missing, for the owner alone. Throws std::system_error. */
std::string default_store();

/* Where a verb looks for the collector: of the service where its socket may be used, else of the
 * user. Creates nothing. */
std::string store_to_ask();
/* The same with other places than the usual ones. */
std::string store_to_ask(const std::string &service, const std::string &user);

/* Of the option, else of the configuration file (the usual one if its path is empty), else the one
 * to ask. Throws std::runtime_error with a line for each mistake of the file; the usual one may be
 * unreadable. */
std::string store_directory(const std::string &option, const std::string &configuration_file);

/* The Unix socket of the collector that has this store. */
std::string socket_of(const std::string &store);

/* Whether this user may not use it, or may not see whether there is one. */
bool is_forbidden(const std::string &store);

/* What one collector at a time holds. */
std::string lock_of(const std::string &store);

/* The file of its browsers' sessions. */
std::string sessions_of(const std::string &store);

/* The token of the store's collector, made the first time. Throws std::system_error. */
std::string token_of(const std::string &store);

} // namespace kaq
