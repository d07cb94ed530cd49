/* Base64 as payloads are sent in: the usual alphabet, padded, no line breaks. Any thread. */
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

namespace kaq {

/* Parsers that read in strides can do so without a copy if that much memory follows a text. */
constexpr size_t kRoomBehind = 64;

/* The bytes that the text stands for, with room behind; nothing if it is not Base64. */
std::optional<std::string> decode_base64(std::string_view text);

} // namespace kaq
