/*
 * Statements without what varies from one execution to the next, for grouping and for privacy. No
 * state; any thread; time in proportion to the length.
 */
#pragma once

#include <string>
#include <string_view>

namespace kaq {

/*
 * The statement with '?' for each literal: texts in single or double quotes, numbers, and the
 * values of a list, which become one. Comments and needless blanks are left out. A text that does
 * not end is a literal to the end of the statement. Double quotes hold a name, and stay, where
 * `has_quoted_names` (PostgreSQL, Oracle, SQLite's standard form). What is a literal in any usual
 * dialect is one here: $$texts$$, q'[texts]', and both readings of a backslash before a quote where
 * either makes sense.
 */
std::string without_literals(std::string_view statement, bool has_quoted_names);

/* Whether a statement has places for values that it does not tell: ?, $1, :name, @name. What is in
 * its literals counts for none. */
bool has_places(std::string_view statement);

/* The table that the statement is about first, as it is spelled; empty if none is found. */
std::string first_table(std::string_view statement);

} // namespace kaq
