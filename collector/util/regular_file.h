/* Reads files that somebody else may have put there. No state; any thread. */
#pragma once

#include <cstddef>
#include <optional>
#include <string>

namespace kaq {

/* The first `most` bytes; nothing where there is no regular file that may be read. What is none,
 * such as a pipe, is not waited for. */
std::optional<std::string> beginning_of(const std::string &path, size_t most = 64 * 1024);

} // namespace kaq
