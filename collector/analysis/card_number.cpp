#include "analysis/card_number.h"

#include <algorithm>

namespace kaq {
namespace {

constexpr size_t kLongestGap = 3;

bool is_digit(char character) {
	return character >= '0' && character <= '9';
}

bool is_luhn(std::string_view digits) {
	int sum = 0;
	bool is_doubled = false;
	for (size_t i = digits.size(); i-- > 0;) {
		int value = digits[i] - '0';
		if (is_doubled) {
			value = value > 4 ? 2 * value - 9 : 2 * value;
		}
		sum += value;
		is_doubled = !is_doubled;
	}
	return sum % 10 == 0;
}

/* Of short numbers only those that begin as cards do: the others are times, as in milliseconds
 * since 1970, of which one in ten has a valid check digit. Zeros alone are valid everywhere. */
bool is_card(std::string_view digits) {
	if (digits.size() < kShortestCard || digits.size() > kLongestCard || digits[0] == '0') {
		return false;
	}
	bool is_time = (digits.size() == 13 && digits[0] != '4') ||
				   (digits.size() == 14 && (digits[0] < '3' || digits[0] > '6'));
	return !is_time && is_luhn(digits);
}

/* Of a length and with a beginning that are in use: where numbers that are no cards stand side by
 * side, one in ten of their beginnings would have a valid check digit. */
bool is_usual_card(std::string_view digits) {
	bool is_usual_length = digits.size() == 19 || (digits.size() >= 14 && digits.size() <= 16);
	return is_usual_length && digits[0] >= '2' && digits[0] <= '6' && is_card(digits);
}

/* How long what separates two groups of digits is; 0 if it does not. */
size_t gap_at(std::string_view text, size_t at) {
	size_t end = at;
	while (end < text.size() && end - at < kLongestGap && !is_digit(text[end])) {
		constexpr std::string_view kNoBreakSpace = "\xC2\xA0", kNarrow = "\xE2\x80\xAF",
								   kDash = "\xE2\x80\x93";
		if (std::string_view(" -+./_").find(text[end]) != std::string_view::npos) {
			end++;
			continue;
		}
		size_t before = end;
		for (std::string_view each : {kNoBreakSpace, kNarrow, kDash}) {
			end += text.substr(before, each.size()) == each ? each.size() : 0;
		}
		if (end == before) {
			break;
		}
	}
	return end < text.size() && is_digit(text[end]) ? end - at : 0;
}

} // namespace

size_t card_number_end(std::string_view text, size_t at) {
	char digits[kLongestCard];
	size_t count = 0;
	size_t found = at;
	bool has_usual_gaps = true;
	size_t shortest_group = kLongestCard;
	for (size_t i = at; count <= kLongestCard;) {
		size_t begin = i;
		while (i < text.size() && is_digit(text[i]) && count <= kLongestCard) {
			if (count < kLongestCard) {
				digits[count] = text[i];
			}
			count++;
			i++;
		}
		if (count > kLongestCard) {
			break;
		}
		size_t gap = gap_at(text, i);
		std::string_view all(digits, count);
		shortest_group = std::min(shortest_group, i - begin);
		bool is_whole = gap == 0 && has_usual_gaps && shortest_group >= 2;
		if (is_whole ? is_card(all) : shortest_group >= 3 && is_usual_card(all)) {
			found = i;
		}
		if (gap == 0) {
			break;
		}
		has_usual_gaps = has_usual_gaps && gap == 1 && (text[i] == ' ' || text[i] == '-');
		i += gap;
	}
	return found;
}

} // namespace kaq
