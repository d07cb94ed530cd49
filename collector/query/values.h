/* Values of the query language: numbers with units, and times. No state; any thread. */
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include <tl/expected.hpp>

#include "query/fields.h"
#include "store/filter.h"

namespace kaq {

/* What is wrong with a value, and what to write instead. */
struct BadValue {
	std::string text;
	std::string hint;
};

/* No larger number can be written. */
constexpr int64_t kNumberLimit = 1000000000000000;

/* No earlier time can be written: 1973-03-03. */
constexpr int64_t kEarliestTime = 100000000000;

/* ">300ms", "<=2s", "100ms..2s", "5xx" for the status. */
tl::expected<NumberIs, BadValue> read_number(std::string_view text, NumberField field, Unit unit);

/* "1h" (ago), "now", "today", "2026-11-22", "2026-11-22T08:30:00.5+01:00", milliseconds. */
tl::expected<int64_t, BadValue> read_time(std::string_view text, int64_t now);

/* The number as read_number() reads it: ">300ms". */
std::string number_text(const NumberIs &number, Unit unit);

} // namespace kaq
