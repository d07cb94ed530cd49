#include "query/values.h"

#include <algorithm>
#include <ctime>
#include <optional>

#include "query/mistake.h"

namespace kaq {
namespace {

using Number = tl::expected<int64_t, BadValue>;

constexpr size_t kMostFractionDigits = 6;

bool is_digit(char character) {
	return character >= '0' && character <= '9';
}

std::string_view take_digits(std::string_view &text) {
	size_t count = 0;
	while (count < text.size() && is_digit(text[count])) {
		count++;
	}
	std::string_view digits = text.substr(0, count);
	text.remove_prefix(count);
	return digits;
}

bool take(std::string_view &text, std::string_view prefix) {
	if (text.substr(0, prefix.size()) != prefix) {
		return false;
	}
	text.remove_prefix(prefix.size());
	return true;
}

/* REQUIRES: at most 18 digits. */
int64_t number_of(std::string_view digits) {
	int64_t number = 0;
	for (char digit : digits) {
		number = number * 10 + (digit - '0');
	}
	return number;
}

BadValue no_number(std::string_view text, Unit unit) {
	switch (unit) {
	case Unit::kTime:
		return {quoted(text) + " is no time", "write it like 300ms, 1.5s, 2m or 1h"};
	case Unit::kBytes:
		return {quoted(text) + " is no size", "write it like 512KB, 64MB or 1.5GB"};
	case Unit::kCount:
		break;
	}
	return {quoted(text) + " is no number", ""};
}

/* A number that may lie between two whole ones. */
struct Amount {
	int64_t floor = 0;
	bool is_whole = true;

	int64_t ceiling() const {
		return is_whole ? floor : floor + 1;
	}
};

std::optional<int64_t> factor_of(std::string_view name, Unit unit) {
	const std::vector<NamedUnit> &units = units_of(unit);
	if (name.empty()) {
		return units.back().factor;
	}
	/* "64M" and "64MiB" are "64MB". */
	std::string same(name);
	if (unit == Unit::kBytes && (name.size() == 1 || is_same_name(name.substr(1), "ib"))) {
		same = std::string(name.substr(0, 1)) + (is_same_name(name, "B") ? "" : "B");
	}
	for (const NamedUnit &each : units) {
		if (is_same_name(same, each.name)) {
			return each.factor;
		}
	}
	return std::nullopt;
}

tl::expected<Amount, BadValue> read_amount(std::string_view text, Unit unit) {
	std::string_view rest = text;
	std::string_view whole = take_digits(rest);
	std::string_view fraction;
	bool has_point = take(rest, ".");
	if (has_point) {
		fraction = take_digits(rest);
	}
	std::optional<int64_t> factor = factor_of(rest, unit);
	if (whole.empty() || (has_point && fraction.empty()) || !factor) {
		return tl::unexpected(no_number(text, unit));
	}
	if (fraction.size() > kMostFractionDigits) {
		return tl::unexpected(BadValue{quoted(text) + " is too exact", "at most six digits"});
	}
	BadValue too_large{quoted(text) + " is too large", ""};
	if (whole.size() > 16 || number_of(whole) > kNumberLimit / *factor) {
		return tl::unexpected(too_large);
	}
	int64_t parts = number_of(fraction) * *factor;
	int64_t scale = 1;
	for (size_t i = 0; i < fraction.size(); i++) {
		scale *= 10;
	}
	Amount amount{number_of(whole) * *factor + parts / scale, parts % scale == 0};
	if (amount.floor > kNumberLimit) {
		return tl::unexpected(too_large);
	}
	return amount;
}

tl::expected<NumberIs, BadValue> read_range(std::string_view low, std::string_view high,
											NumberIs number, Unit unit) {
	if (low.empty() && high.empty()) {
		return tl::unexpected(BadValue{"a range of nothing", "write it like 1..9"});
	}
	if (!low.empty()) {
		auto least = read_amount(low, unit);
		if (!least) {
			return tl::unexpected(least.error());
		}
		number.least = least->ceiling();
	}
	if (!high.empty()) {
		auto most = read_amount(high, unit);
		if (!most) {
			return tl::unexpected(most.error());
		}
		number.most = most->floor;
	}
	if (number.least > number.most) {
		return tl::unexpected(BadValue{"a range in which nothing lies", "the lesser one is first"});
	}
	return number;
}

bool is_status_class(std::string_view text) {
	return text.size() == 3 && text[0] >= '1' && text[0] <= '5' &&
		   is_same_name(text.substr(1), "xx");
}

int significant_digits(int64_t number) {
	int count = 0;
	for (; number != 0; number /= 10) {
		count += count > 0 || number % 10 != 0 ? 1 : 0;
	}
	return count;
}

struct Written {
	std::string text;
	int significant;
};

/* In the largest unit in which it is whole. */
Written write(int64_t number, Unit unit) {
	for (const NamedUnit &each : units_of(unit)) {
		if (number % each.factor == 0 && (number != 0 || each.factor == 1)) {
			int64_t count = number / each.factor;
			return {std::to_string(count) + std::string(each.name), significant_digits(count)};
		}
	}
	return {std::to_string(number), significant_digits(number)};
}

struct Clock {
	tm time{};
	int64_t milliseconds = 0;
};

bool take_number(std::string_view &text, size_t digits, int &number) {
	std::string_view written = text.substr(0, digits);
	std::string_view rest = written;
	if (take_digits(rest).size() != digits) {
		return false;
	}
	number = static_cast<int>(number_of(written));
	text.remove_prefix(digits);
	return true;
}

/* ":30", ":30.25" or nothing. */
bool take_seconds(std::string_view &text, Clock &clock) {
	if (!take(text, ":")) {
		return true;
	}
	if (!take_number(text, 2, clock.time.tm_sec)) {
		return false;
	}
	if (take(text, ".")) {
		std::string_view fraction = take_digits(text);
		if (fraction.empty() || fraction.size() > kMostFractionDigits) {
			return false;
		}
		std::string three = std::string(fraction.substr(0, 3)) + "00";
		clock.milliseconds = number_of(three.substr(0, 3));
	}
	return true;
}

/* "Z", "+01:00", "-0230"; false if there is none. Minutes east of Greenwich. */
bool take_zone(std::string_view &text, int &minutes) {
	if (take(text, "Z") || take(text, "z")) {
		minutes = 0;
		return true;
	}
	int sign = take(text, "+") ? 1 : (take(text, "-") ? -1 : 0);
	int hours = 0;
	if (sign == 0 || !take_number(text, 2, hours)) {
		return false;
	}
	take(text, ":");
	if (!take_number(text, 2, minutes) || hours > 14 || minutes > 59) {
		return false;
	}
	minutes = sign * (hours * 60 + minutes);
	return true;
}

/* Fields that stand for another time than they say, such as the 30th of February, are refused. */
bool is_calendar_time(const tm &time) {
	tm same = time;
	timegm(&same);
	return same.tm_mday == time.tm_mday && same.tm_mon == time.tm_mon &&
		   same.tm_hour == time.tm_hour && same.tm_min == time.tm_min && same.tm_sec == time.tm_sec;
}

std::optional<int64_t> read_date(std::string_view text) {
	Clock clock;
	tm &time = clock.time;
	if (!take_number(text, 4, time.tm_year) || !take(text, "-") ||
		!take_number(text, 2, time.tm_mon) || !take(text, "-") ||
		!take_number(text, 2, time.tm_mday)) {
		return std::nullopt;
	}
	time.tm_year -= 1900;
	time.tm_mon -= 1;
	if (take(text, "T") || take(text, "t") || take(text, " ")) {
		if (!take_number(text, 2, time.tm_hour) || !take(text, ":") ||
			!take_number(text, 2, time.tm_min) || !take_seconds(text, clock)) {
			return std::nullopt;
		}
	}
	if (!is_calendar_time(time)) {
		return std::nullopt;
	}
	int zone = 0;
	bool has_zone = !text.empty();
	if (has_zone && (!take_zone(text, zone) || !text.empty())) {
		return std::nullopt;
	}
	time.tm_isdst = -1;
	int64_t seconds = has_zone ? timegm(&time) - zone * 60 : mktime(&time);
	return seconds * 1000 + clock.milliseconds;
}

int64_t midnight_before(int64_t now) {
	time_t seconds = now / 1000;
	tm local{};
	localtime_r(&seconds, &local);
	local.tm_hour = local.tm_min = local.tm_sec = 0;
	local.tm_isdst = -1;
	return static_cast<int64_t>(mktime(&local)) * 1000;
}

Number read_plain_number(std::string_view digits) {
	constexpr size_t kFewestDigits = 12;
	if (digits.size() < kFewestDigits) {
		return tl::unexpected(BadValue{quoted(digits) + " has no unit",
									   "write " + std::string(digits) +
										   "m, h or d for a time ago; since 1970 it is counted "
										   "in milliseconds"});
	}
	if (digits.size() > 15) {
		return tl::unexpected(BadValue{quoted(digits) + " is too large", ""});
	}
	return number_of(digits);
}

Number read_any_time(std::string_view text, int64_t now) {
	if (is_same_name(text, "now")) {
		return now;
	}
	if (is_same_name(text, "today")) {
		return midnight_before(now);
	}
	std::string_view rest = text;
	if (!take_digits(rest).empty() && rest.empty()) {
		return read_plain_number(text);
	}
	if (std::optional<int64_t> date = read_date(text)) {
		return *date;
	}
	if (auto ago = read_amount(text, Unit::kTime)) {
		return now - ago->floor;
	}
	return tl::unexpected(BadValue{quoted(text) + " is no time",
								   "write it like 1h, 2d, today, 2026-11-22 or "
								   "2026-11-22T08:30"});
}

} // namespace

tl::expected<NumberIs, BadValue> read_number(std::string_view text, NumberField field, Unit unit) {
	NumberIs number;
	number.field = field;
	if (field == NumberField::kStatus && is_status_class(text)) {
		number.least = (text[0] - '0') * 100;
		number.most = number.least + 99;
		return number;
	}
	size_t dots = text.find("..");
	if (dots != std::string_view::npos) {
		return read_range(text.substr(0, dots), text.substr(dots + 2), number, unit);
	}
	bool is_more = take(text, ">");
	bool is_less = !is_more && take(text, "<");
	bool is_same = take(text, "=");
	auto amount = read_amount(text, unit);
	if (!amount) {
		return tl::unexpected(amount.error());
	}
	if (is_more) {
		number.least = is_same ? amount->ceiling() : amount->floor + 1;
	} else if (is_less) {
		number.most = is_same ? amount->floor : amount->ceiling() - 1;
	} else if (amount->is_whole) {
		number.least = number.most = amount->floor;
	} else {
		return tl::unexpected(
			BadValue{quoted(text) + " equals nothing: only whole numbers are compared",
					 "compare with < or >"});
	}
	return number;
}

tl::expected<int64_t, BadValue> read_time(std::string_view text, int64_t now) {
	Number time = read_any_time(text, now);
	if (time && *time < kEarliestTime) {
		return tl::unexpected(BadValue{quoted(text) + " is too long ago", ""});
	}
	if (time && *time >= kNumberLimit) {
		return tl::unexpected(BadValue{quoted(text) + " is too far ahead", ""});
	}
	return time;
}

std::string number_text(const NumberIs &number, Unit unit) {
	if (number.field == NumberField::kStatus && number.least % 100 == 0 && number.least >= 100 &&
		number.least <= 500 && number.most == number.least + 99) {
		return std::to_string(number.least / 100) + "xx";
	}
	if (number.least == number.most) {
		return write(number.least, unit).text;
	}
	if (number.most == NumberIs::kNoMost) {
		Written least = write(number.least, unit);
		Written below = write(number.least - 1, unit);
		return number.least > 0 && below.significant < least.significant ? ">" + below.text
																		 : ">=" + least.text;
	}
	if (number.least == NumberIs::kNoLeast) {
		Written most = write(number.most, unit);
		Written above = write(number.most + 1, unit);
		return number.most < 0 || above.significant < most.significant ? "<" + above.text
																	   : "<=" + most.text;
	}
	return write(number.least, unit).text + ".." + write(number.most, unit).text;
}

} // namespace kaq
