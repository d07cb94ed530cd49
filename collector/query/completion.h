/* What may come next in a query, for viewers and shells. No state; any thread. */
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "store/filter.h"

namespace kaq {

struct Candidate {
	std::string text; /* "status:", "failed", "OR" */
	std::string help; /* empty where the text says it */
};

struct Completion {
	/* The bytes of the query that a candidate takes the place of. */
	size_t begin = 0;
	size_t end = 0;
	std::vector<Candidate> candidates;
	/* Of which field a value is being written, for candidates that only a store knows. */
	std::optional<TextField> field;
	std::string written; /* what there is of it */
};

/* What is before the cursor (a byte) counts, and of what is behind it only the rest of the term.
 * Nothing is proposed within quotes, or for a text that is longer than a query may be. */
Completion complete_query(std::string_view text, size_t cursor);

} // namespace kaq
