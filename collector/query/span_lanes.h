/*
 * A request's spans as a viewer of stacks can draw them: within a lane each one lies wholly within
 * another or beside it. What ran beside its sibling (calls that overlap) is in a lane of its own
 * with all that is below it; a child that is out of its parent's time is brought into it. No state;
 * any thread.
 */
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "model/transaction.h"

namespace kaq {

struct PlacedSpan {
	size_t index = 0; /* in the transaction's list */
	size_t depth = 0; /* within its lane, from 0 */
	int64_t start = 0;
	int64_t end = 0; /* never before its start */
};

/* The first lane is the root's. Each one has its spans by start, parents before their children. */
std::vector<std::vector<PlacedSpan>> lanes_of(const Transaction &transaction);

/* What a span is called where there is room for one line: its name with what it called. */
std::string span_label(const Span &span);

/* "Shop GET /cart": application, method and name. */
std::string request_label(const Transaction &transaction);

} // namespace kaq
