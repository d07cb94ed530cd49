/* Where values end that stand in a text, and other parts of looking for secrets. No state; any
 * thread; places are indexes, and the text's size stands for its end. */
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace kaq {

/* The quote that ends a text which began before `place` with one that had as many backslashes
 * before it; the first of these backslashes. */
size_t quoted_end(std::string_view text, size_t place, char quote, size_t slashes);

/* Behind the bracket that closes the one that stands at `place`. */
size_t balanced_end(std::string_view text, size_t place);

/* The number that stands there with `behind` right behind it, and where that ends; 0 and 0 if there
 * is none. */
size_t length_at(std::string_view text, size_t place, std::string_view behind, size_t &end);

/* Whether it looks like no word, so that it may be a token: not as "authentication" does. */
bool is_like_token(std::string_view text);

/* Percent-encoded, so that it stays one part of the text around it; marks stay readable. */
std::string encoded_again(std::string_view plain);

} // namespace kaq
