/*
 * The query language of docs/find.md. No state; any thread; time in proportion to the length of the
 * text, which is bounded.
 */
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include <tl/expected.hpp>

#include "query/mistake.h"
#include "store/filter.h"

namespace kaq {

constexpr size_t kLongestQuery = 4096; /* bytes */
constexpr int kDeepestQuery = 32;      /* parentheses and negations within each other */
constexpr int kMostQueryTerms = 200;
constexpr size_t kMostQueryWords = 64; /* in one phrase */

struct ParseSettings {
	int64_t now = 0; /* milliseconds since the Unix epoch, for "since:1h" */
	size_t longest = kLongestQuery;
	/* Of requests as they end: no times. */
	bool is_live = false;
};

/* An empty text means every request. Dates without a zone are in the process's zone. A failure has
 * at least one mistake and at most eight, in the order of the text. */
tl::expected<Filter, std::vector<Mistake>> parse_query(std::string_view text,
													   const ParseSettings &settings);

/*
 * The filter in the language's canonical form, with times as numbers. Parsing it gives the same
 * filter. REQUIRES: what the filter's types demand; words as words_of() makes them; times that the
 * language can say (from 1973 to 9999).
 */
std::string to_text(const Filter &filter);

} // namespace kaq
