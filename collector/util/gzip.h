/* Texts as HTTP compresses them. Any thread. */
#pragma once

#include <string>
#include <string_view>

namespace kaq {

/* Throws std::bad_alloc. */
std::string gzip(std::string_view bytes);

} // namespace kaq
