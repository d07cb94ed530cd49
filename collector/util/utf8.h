/* Repair of texts that claim to be UTF-8. Any thread. */
#pragma once

#include <string>
#include <string_view>

namespace kaq {

/*
 * The text with every byte that begins no valid sequence replaced by U+FFFD: overlong forms,
 * surrogates and values above U+10FFFF are not valid, and each of their bytes is replaced by
 * itself. Valid text comes back as it was.
 */
std::string replace_invalid_utf8(std::string_view text);

} // namespace kaq
