#include "cli/format.h"

#include <locale.h>
#include <wchar.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <ctime>

#include <fmt/format.h>

#include "util/utf8.h"

namespace kaq {
namespace {

constexpr int64_t kSecond = 1000;
constexpr int64_t kMinute = 60 * kSecond;
constexpr int64_t kHour = 60 * kMinute;
constexpr std::string_view kEllipsis = "\u2026";

struct Character {
	char32_t code = 0;
	size_t bytes = 1;
};

/* The first one of a text that is valid UTF-8 and not empty. */
Character first_of(std::string_view text) {
	auto byte = [&text](size_t at) {
		return at < text.size() ? static_cast<unsigned char>(text[at]) : 0u;
	};
	unsigned lead = byte(0);
	if (lead < 0x80) {
		return {lead, 1};
	}
	if (lead < 0xe0) {
		return {(lead & 0x1f) << 6 | (byte(1) & 0x3f), std::min<size_t>(2, text.size())};
	}
	if (lead < 0xf0) {
		return {(lead & 0x0f) << 12 | (byte(1) & 0x3f) << 6 | (byte(2) & 0x3f),
				std::min<size_t>(3, text.size())};
	}
	return {(lead & 0x07) << 18 | (byte(1) & 0x3f) << 12 | (byte(2) & 0x3f) << 6 | (byte(3) & 0x3f),
			std::min<size_t>(4, text.size())};
}

bool is_obeyed(char32_t code) {
	return code < 0x20 || (code >= 0x7f && code < 0xa0) || code == 0x061c ||
		   (code >= 0x200b && code <= 0x200f) || (code >= 0x2028 && code <= 0x202e) ||
		   (code >= 0x2060 && code <= 0x206f) || code == 0xfeff ||
		   (code >= 0xe0000 && code < 0xe1000);
}

/* Of what it is in a locale of UTF-8, whichever the process has. */
size_t columns_of(char32_t code) {
	static const locale_t kUtf8 = newlocale(LC_CTYPE_MASK, "C.UTF-8", nullptr);
	if (code < 0x80 || !kUtf8) {
		return 1;
	}
	locale_t before = uselocale(kUtf8);
	int columns = wcwidth(static_cast<wchar_t>(code));
	uselocale(before);
	return columns < 0 ? 1 : static_cast<size_t>(columns);
}

/* The bytes of the longest beginning that takes no more columns. */
size_t bytes_within(std::string_view text, size_t columns) {
	size_t at = 0;
	for (size_t used = 0; at < text.size();) {
		Character character = first_of(text.substr(at));
		used += columns_of(character.code);
		if (used > columns) {
			break;
		}
		at += character.bytes;
	}
	return at;
}

tm local_time(int64_t milliseconds) {
	time_t seconds = milliseconds / kSecond;
	tm local{};
	localtime_r(&seconds, &local);
	return local;
}

std::string date_of(const tm &local) {
	return fmt::format("{:04}-{:02}-{:02}", local.tm_year + 1900, local.tm_mon + 1, local.tm_mday);
}

std::string clock_of(const tm &local, int64_t milliseconds) {
	return fmt::format("{:02}:{:02}:{:02}.{:03}", local.tm_hour, local.tm_min, local.tm_sec,
					   milliseconds % kSecond);
}

} // namespace

std::string duration_text(int64_t milliseconds) {
	if (milliseconds < kSecond) {
		return fmt::format("{} ms", milliseconds);
	}
	/* Cut, not rounded: nothing becomes "60.00 s". */
	if (milliseconds < kMinute) {
		return fmt::format("{}.{:02} s", milliseconds / kSecond, milliseconds % kSecond / 10);
	}
	if (milliseconds < kHour) {
		return fmt::format("{} m {:02} s", milliseconds / kMinute,
						   milliseconds % kMinute / kSecond);
	}
	return fmt::format("{} h {:02} m", milliseconds / kHour, milliseconds % kHour / kMinute);
}

std::string count_text(int64_t count) {
	std::string digits = std::to_string(count);
	size_t begin = count < 0 ? 1 : 0;
	for (size_t at = digits.size(); at > begin + 3;) {
		at -= 3;
		digits.insert(at, " ");
	}
	return digits;
}

std::string count_of(int64_t count, std::string_view singular, std::string_view plural) {
	return count_text(count) + " " + std::string(count == 1 ? singular : plural);
}

std::string bytes_text(int64_t bytes) {
	constexpr std::array<const char *, 5> units = {"B", "KiB", "MiB", "GiB", "TiB"};
	auto value = static_cast<double>(bytes);
	size_t unit = 0;
	for (; std::abs(value) >= 1024 && unit + 1 < units.size(); unit++) {
		value /= 1024;
	}
	return unit == 0 ? fmt::format("{} B", bytes) : fmt::format("{:.1f} {}", value, units[unit]);
}

std::string share_text(double part, double whole) {
	if (whole <= 0) {
		return "-";
	}
	double share = 100 * part / whole;
	return share > 0 && share < 1 ? "<1 %" : fmt::format("{:.0f} %", share);
}

std::string time_text(int64_t milliseconds, int64_t now) {
	milliseconds = std::max<int64_t>(milliseconds, 0);
	tm local = local_time(milliseconds);
	std::string date = date_of(local);
	std::string clock = clock_of(local, milliseconds);
	return date == date_of(local_time(now)) ? clock : date + " " + clock;
}

std::string full_time_text(int64_t milliseconds) {
	milliseconds = std::max<int64_t>(milliseconds, 0);
	tm local = local_time(milliseconds);
	long minutes = local.tm_gmtoff / 60;
	return fmt::format("{} {} {}{:02}{:02}", date_of(local), clock_of(local, milliseconds),
					   minutes < 0 ? '-' : '+', std::abs(minutes) / 60, std::abs(minutes) % 60);
}

std::string printable(std::string_view text) {
	std::string valid = replace_invalid_utf8(text);
	std::string shown;
	for (std::string_view rest = valid; !rest.empty();) {
		Character character = first_of(rest);
		if (character.code == '\n' || character.code == '\t') {
			shown += ' ';
		} else if (is_obeyed(character.code)) {
			shown += '?';
		} else {
			shown.append(rest.substr(0, character.bytes));
		}
		rest.remove_prefix(character.bytes);
	}
	return shown;
}

size_t width_of(std::string_view text) {
	size_t columns = 0;
	while (!text.empty()) {
		Character character = first_of(text);
		columns += columns_of(character.code);
		text.remove_prefix(character.bytes);
	}
	return columns;
}

std::string shortened_to(std::string_view text, size_t columns) {
	if (width_of(text) <= columns) {
		return std::string(text);
	}
	if (columns == 0) {
		return "";
	}
	return std::string(text.substr(0, bytes_within(text, columns - 1))) + std::string(kEllipsis);
}

std::string shortened_within(std::string_view text, size_t columns) {
	size_t width = width_of(text);
	if (width <= columns || columns < 3) {
		return shortened_to(text, columns);
	}
	size_t behind = (columns - 1) / 2;
	std::string_view tail = text.substr(bytes_within(text, width - behind));
	return std::string(text.substr(0, bytes_within(text, columns - 1 - width_of(tail)))) +
		   std::string(kEllipsis) + std::string(tail);
}

std::string wrapped(std::string_view text, size_t columns) {
	std::string lines;
	size_t used = 0;
	while (!text.empty()) {
		std::string_view word = text.substr(0, text.find(' '));
		text.remove_prefix(std::min(text.size(), word.size() + 1));
		size_t width = width_of(word);
		if (used > 0 && used + 1 + width > columns) {
			lines += "\n  ";
			used = 2;
		} else if (used > 0) {
			lines += ' ';
			used++;
		}
		lines += word;
		used += width;
	}
	return lines;
}

std::string padded(const std::string &text, size_t columns) {
	size_t width = width_of(text);
	return width < columns ? text + std::string(columns - width, ' ') : text;
}

std::string right_aligned(const std::string &text, size_t columns) {
	size_t width = width_of(text);
	return width < columns ? std::string(columns - width, ' ') + text : text;
}

} // namespace kaq
