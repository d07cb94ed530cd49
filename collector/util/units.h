/* Sizes, times and shares as people write them. No state; any thread. */
#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace kaq {

/* "2GiB", "1.5 MB": a number and B, kB, MB, GB, TB, KiB, MiB, GiB or TiB. Nothing if it is none. */
std::optional<uint64_t> parse_size(std::string_view text);
/* "200ms", "1.5 h": a number and ms, s, m, h or d. Nothing if it is none. */
std::optional<std::chrono::milliseconds> parse_duration(std::string_view text);
/* "10%" as 0.1; nothing if it is none or not between 0 and 100. */
std::optional<double> parse_percentage(std::string_view text);

/* In the largest unit that needs no fraction, so that reading it gives the same. */
std::string size_text(uint64_t bytes);
std::string duration_text(std::chrono::milliseconds duration);

} // namespace kaq
