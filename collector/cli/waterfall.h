/* Calls as lines with bars on an axis of time, as wide as the terminal. No state; any thread. */
#pragma once

#include <string>
#include <vector>

#include "cli/call_tree.h"
#include "cli/terminal.h"

namespace kaq {

/* Of at most `most_rows` rows, and how many more there are. */
std::string waterfall(const std::vector<CallNode> &trees, const Terminal &terminal,
					  size_t most_rows);

/* Of what the services call a layer. */
Colour colour_of_layer(const std::string &layer);

/* A statement in at most that many columns, of which its list of columns goes first. */
std::string shortened_statement(const std::string &statement, size_t columns);

} // namespace kaq
