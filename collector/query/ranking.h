/* Lists that are sorted by what the question wants and cut to its limit. No state; any thread. */
#pragma once

#include <algorithm>
#include <functional>
#include <string>
#include <vector>

#include "query/fields.h"
#include "query/parameters.h"

namespace kaq {

template <typename Row, typename Test> void keep_if(std::vector<Row> &rows, Test is_wanted) {
	rows.erase(
		std::remove_if(rows.begin(), rows.end(), [&](const Row &row) { return !is_wanted(row); }),
		rows.end());
}

/* The largest first. */
template <typename Row> struct Ranking {
	const char *name;
	std::function<double(const Row &)> rank;
};

/* The one that "sort" names; the first one if it is left out. */
template <typename Row>
Ranking<Row> ranking_of(const Question &question, const std::vector<Ranking<Row>> &rankings) {
	const std::string &wanted = text_of(question, "sort");
	std::vector<std::string_view> names;
	std::string all;
	for (const Ranking<Row> &each : rankings) {
		if (wanted == each.name || wanted.empty()) {
			return each;
		}
		names.emplace_back(each.name);
		all += (all.empty() ? "" : ", ") + std::string(each.name);
	}
	std::string_view near = nearest(wanted, names);
	throw ServiceMistake(
		400, "cannot sort by " + kaq::quoted(wanted),
		near.empty() ? "sort by one of " + all : "did you mean " + std::string(near) + "?", "sort");
}

/*
 * The first rows in that order; rows of the same rank in the order of `is_before`, so that two
 * answers in a row look the same. Returns whether there were more.
 */
template <typename Row, typename Before>
bool keep_first(std::vector<Row> &rows, const Ranking<Row> &ranking, size_t limit,
				Before is_before) {
	std::vector<std::pair<double, size_t>> ranks;
	ranks.reserve(rows.size());
	for (size_t i = 0; i < rows.size(); i++) {
		ranks.emplace_back(ranking.rank(rows[i]), i);
	}
	size_t kept = std::min(limit, rows.size());
	std::partial_sort(ranks.begin(), ranks.begin() + static_cast<std::ptrdiff_t>(kept), ranks.end(),
					  [&](const auto &one, const auto &other) {
						  return one.first != other.first
									 ? one.first > other.first
									 : is_before(rows[one.second], rows[other.second]);
					  });
	std::vector<Row> first;
	first.reserve(kept);
	for (size_t i = 0; i < kept; i++) {
		first.push_back(std::move(rows[ranks[i].second]));
	}
	bool has_more = rows.size() > kept;
	rows = std::move(first);
	return has_more;
}

} // namespace kaq
