/* Values as people read them, and texts as terminals may show them. No state; any thread. */
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace kaq {

/* "620 ms", "1.25 s", "3 m 05 s", "2 h 05 m" */
std::string duration_text(int64_t milliseconds);

/* "12 340" */
std::string count_text(int64_t count);

/* "1 call", "61 calls" */
std::string count_of(int64_t count, std::string_view singular, std::string_view plural);

/* "512 B", "31.2 KiB", "1.5 MiB" */
std::string bytes_text(int64_t bytes);

/* "77 %", "<1 %"; of nothing "-". */
std::string share_text(double part, double whole);

/* "08:30:15.250" of this day, with the date before it where it is another one; in the process's
 * zone. */
std::string time_text(int64_t milliseconds, int64_t now);

/* "2026-11-22 08:30:15.250 +0100" */
std::string full_time_text(int64_t milliseconds);

/* Without what a terminal might obey: control characters, marks that change the direction of text,
 * and what is no UTF-8 become '?'; line feeds and tabs become blanks. */
std::string printable(std::string_view text);

/* Columns that a printable text takes: 2 for wide characters, 0 for those that combine. */
size_t width_of(std::string_view text);

/* The text in at most that many columns, with "…" where something was left out at its end or in
 * its middle. */
std::string shortened_to(std::string_view text, size_t columns);
std::string shortened_within(std::string_view text, size_t columns);

/* Lines of at most that many columns, broken at blanks, but for longer words; those after the first
 * begin with two blanks. */
std::string wrapped(std::string_view text, size_t columns);

/* The text with blanks behind or before it up to so many columns. */
std::string padded(const std::string &text, size_t columns);
std::string right_aligned(const std::string &text, size_t columns);

} // namespace kaq
