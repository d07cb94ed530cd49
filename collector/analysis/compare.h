/*
 * What differs between two requests, or between a request and the typical one of its transaction.
 * Calls are aligned by what they are (function; statement without its literals; address of an HTTP
 * call) and by the calls around them, however often each ran. Times are milliseconds. No state; any
 * thread.
 */
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "analysis/layers.h"
#include "model/transaction.h"

namespace kaq {

constexpr size_t kMostProfileRows = 10000;

/* All calls of one kind at one place. */
struct ProfileRow {
	std::string name;   /* "Cart::items", "PDO::query" */
	std::string detail; /* the statement, the address of an HTTP call; else empty */
	Layer layer = Layer::kCode;
	int32_t parent = -1; /* index of the row of the calls around them; -1 for the root */
	int64_t count = 0;
	int64_t total = 0; /* with what they call */
	int64_t own = 0;   /* without it */
};

/* Parents before their children, the root first. Of more rows than kMostProfileRows the calls count
 * as their callers' own time. */
struct Profile {
	int64_t duration = 0;
	std::vector<ProfileRow> rows;
};

/* Of a transaction with at least one span. */
Profile profile_of(const Transaction &transaction);

/*
 * Of several transactions, at least one: per row and figure the median, where a row that a
 * transaction does not have counts as 0 there. Rows that fewer than half of them have are left out.
 */
Profile typical_profile(const std::vector<const Transaction *> &transactions);

/* Profiles of several transactions added up, row by row. */
class ProfileSum {
public:
	ProfileSum();
	~ProfileSum();
	ProfileSum(const ProfileSum &) = delete;
	ProfileSum &operator=(const ProfileSum &) = delete;

	void add(const Profile &profile);
	/* Of all that were added, with the sum of their durations. */
	Profile take();

private:
	struct State;
	std::unique_ptr<State> state_;
};

/* Why a row takes longer or shorter: kCount if it is more by how often it ran, kDuration if by how
 * long each call took. */
enum class Change { kAdded, kRemoved, kCount, kDuration };

/* "added", "removed", "count", "duration" */
std::string_view change_name(Change change);

struct Difference {
	std::string name;
	std::string detail;
	std::string path; /* callers, outermost first: "main > Cart::show"; at most 1024 bytes, of
						 longer ones the end */
	Change change = Change::kDuration;
	int64_t growth = 0; /* of own time: what it adds to the request; negative where it shrank */
	int64_t count_before = 0;
	int64_t count_after = 0;
	int64_t own_before = 0;
	int64_t own_after = 0;
	int64_t total_before = 0;
	int64_t total_after = 0;
};

constexpr size_t kMostDifferences = 1000;

/* Rows whose own time or count differs, at most kMostDifferences; what changed most comes first. */
std::vector<Difference> compare(const Profile &before, const Profile &after);

} // namespace kaq
