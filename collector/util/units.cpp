#include "util/units.h"

#include <charconv>
#include <cmath>
#include <iterator>

namespace kaq {
namespace {

struct Unit {
	std::string_view name;
	uint64_t value;
};

/* Smallest first; those that texts are written in come last. */
constexpr Unit kSizes[] = {
	{"kB", 1000},        {"MB", 1000000},     {"GB", 1000000000},  {"TB", 1000000000000}, {"B", 1},
	{"KiB", 1ull << 10}, {"MiB", 1ull << 20}, {"GiB", 1ull << 30}, {"TiB", 1ull << 40},
};
constexpr size_t kFirstBinarySize = 4;

constexpr Unit kDurations[] = {
	{"ms", 1}, {"s", 1000}, {"m", 60000}, {"h", 3600000}, {"d", 86400000},
};

/* What is larger would not fit into 64 bits with any unit's remainder. */
constexpr double kLargest = 9e15;

struct Quantity {
	double number;
	std::string_view unit;
};

std::optional<Quantity> parse_quantity(std::string_view text) {
	double number = 0;
	auto [end, error] =
		std::from_chars(text.data(), text.data() + text.size(), number, std::chars_format::fixed);
	if (error != std::errc() || !std::isfinite(number) || number < 0) {
		return std::nullopt;
	}
	std::string_view unit = text.substr(static_cast<size_t>(end - text.data()));
	if (!unit.empty() && unit[0] == ' ') {
		unit.remove_prefix(1);
	}
	return Quantity{number, unit};
}

template <size_t count>
std::optional<uint64_t> parse_with(const Unit (&units)[count], std::string_view text) {
	std::optional<Quantity> quantity = parse_quantity(text);
	if (!quantity) {
		return std::nullopt;
	}
	for (const Unit &unit : units) {
		double value = quantity->number * static_cast<double>(unit.value);
		if (unit.name == quantity->unit && value <= kLargest) {
			return static_cast<uint64_t>(std::llround(value));
		}
	}
	return std::nullopt;
}

std::string text_with(const Unit *smallest, const Unit *end, uint64_t value) {
	const Unit *unit = smallest;
	for (const Unit *each = smallest; each != end && value > 0; each++) {
		if (value % each->value == 0) {
			unit = each;
		}
	}
	return std::to_string(value / unit->value) + std::string(unit->name);
}

} // namespace

std::optional<uint64_t> parse_size(std::string_view text) {
	return parse_with(kSizes, text);
}

std::optional<std::chrono::milliseconds> parse_duration(std::string_view text) {
	std::optional<uint64_t> value = parse_with(kDurations, text);
	return value ? std::optional(std::chrono::milliseconds(*value)) : std::nullopt;
}

std::optional<double> parse_percentage(std::string_view text) {
	std::optional<Quantity> quantity = parse_quantity(text);
	if (!quantity || quantity->unit != "%" || quantity->number > 100) {
		return std::nullopt;
	}
	return quantity->number / 100;
}

std::string size_text(uint64_t bytes) {
	return text_with(kSizes + kFirstBinarySize, std::end(kSizes), bytes);
}

std::string duration_text(std::chrono::milliseconds duration) {
	return text_with(std::begin(kDurations), std::end(kDurations),
					 static_cast<uint64_t>(duration.count()));
}

} // namespace kaq
