/* HTTP methods, and HTTP calls of a request. No state; any thread. */
#pragma once

#include <string>
#include <string_view>

#include "model/transaction.h"

namespace kaq {

/* Whether a span is an HTTP call, not one that prepares or drives one. */
bool is_http_call(const Span &span);

/* Whether an HTTP call came to nothing: no status (refused, timed out), or one of 500 and above. */
bool is_failed_call(const Span &span);

/* "api.example" or, where the port is not the scheme's, "api.example:8443"; in lower case, without
 * the user's part, at most 256 bytes long. */
std::string host_of(std::string_view url);

/* Host and path, with '*' for each segment that varies; at most 512 bytes long. */
std::string endpoint_of(std::string_view url);

/* A method that is not among the known ones as "_OTHER"; none as none. */
std::string_view known_method(std::string_view method);

} // namespace kaq
