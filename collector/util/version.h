/* The version, which is the extension's too. */
#pragma once

namespace kaq {

constexpr const char *kVersion = "4.9";

} // namespace kaq
