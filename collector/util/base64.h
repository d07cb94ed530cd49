/* Base64 as payloads are sent in: the usual alphabet, padded, no line breaks. Any thread. */
#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace kaq {

/* The bytes that the text stands for; nothing if it is not Base64. */
std::optional<std::string> decode_base64(std::string_view text);

} // namespace kaq
