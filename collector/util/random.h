/* What nobody can guess. Any thread. */
#pragma once

#include <cstddef>
#include <string>

namespace kaq {

/* That many bytes in hex digits. Throws std::system_error if the system has none. */
std::string random_hex(size_t bytes);

} // namespace kaq
