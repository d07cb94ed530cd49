/* Numbers of payment cards in texts. No state; any thread. */
#pragma once

#include <cstddef>
#include <string_view>

namespace kaq {

constexpr size_t kShortestCard = 13;
constexpr size_t kLongestCard = 19;

/*
 * The end of a card's number that begins at `at`; `at` itself if there is none. It has 13 to 19
 * digits with a valid check digit, also in groups with a blank or a few signs between them. What
 * follows it in another group, as the date of its expiry does, is no part of it. Looks at few
 * characters. REQUIRES: a digit stands at `at`, and none before it.
 */
size_t card_number_end(std::string_view text, size_t at);

} // namespace kaq
