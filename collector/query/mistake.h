/* What is wrong with a query, for whoever wrote it. No state; any thread. */
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace kaq {

struct Mistake {
	size_t column = 1; /* of the character where it begins, from 1 */
	std::string text;  /* "unknown field 'tnx'" */
	std::string hint;  /* "did you mean txn:?"; may be empty */
};

/* The column of the character that begins at this byte. */
size_t column_at(std::string_view text, size_t at);

/* What was written, in quotes and not too long. */
std::string quoted(std::string_view text);

/* Each mistake with what stands around it and a mark under its place, for a terminal. */
std::string explain(std::string_view text, const std::vector<Mistake> &mistakes);

} // namespace kaq
