/* Messages of databases, which quote statements and values. No state; any thread; time in
 * proportion to the length. */
#pragma once

#include <string>
#include <string_view>

namespace kaq {

/*
 * A message with '?' for the literals of the statement that it quotes, and for what databases and
 * usual libraries tell of values: "near '?' at line 1", "Duplicate entry '?' for key", "with params
 * ?". False, and `cleaned` untouched, if it has neither.
 */
bool without_quoted_values(std::string_view message, std::string &cleaned);

} // namespace kaq
