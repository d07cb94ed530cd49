/* Reads requests from one file of them. Everything throws SQLite::Exception. */
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include <SQLiteCpp/Database.h>
#include <SQLiteCpp/Statement.h>

#include "store/part_counts.h"
#include "store/store.h"

namespace kaq {

using Deadline = std::chrono::steady_clock::time_point;

/* What a file adds to a search. */
struct FileMatches {
	/* Of the best requests, in the order asked for: what they are sorted by, and their rows. */
	struct Match {
		int64_t rank;
		int64_t row;
	};
	std::vector<Match> matches;
	int64_t looked_at = 0;
	bool is_partial = false; /* the time was up */
};

/* The starts of the first and the last request in the file. */
TimeRange range_of_file(SQLite::Database &database);
FileMatches search_file(SQLite::Database &database, const Search &search, Deadline deadline);

/* Transactions summed up by step; a step of 0 has all of their time. */
class RequestSummer {
public:
	/* REQUIRES: what is passed outlives it. */
	RequestSummer(const Filter &filter, int64_t step, Deadline deadline)
		: filter_(filter), step_(step), deadline_(deadline) {
	}

	/* Adds what the file has. `is_new` is asked for each request's identifier; what it refuses is
	 * left out. False if the time was up. */
	bool add(SQLite::Database &database, const std::function<bool(const std::string &)> &is_new);
	std::vector<FigureStep> take();

private:
	const Filter &filter_;
	const int64_t step_;
	const Deadline deadline_;
	/* By application, name and begin. */
	std::map<std::tuple<std::string, std::string, int64_t>, Figures> sums_;
};

/* Which applications were asked under which hosts, and how often; added to the sums. */
using HostSums = std::map<std::pair<std::string, std::string>, int64_t>;
void add_hosts(SQLite::Database &database, const TimeRange &range, HostSums &sums);

class RequestReader {
public:
	explicit RequestReader(SQLite::Database &database);
	std::optional<RequestRow> read(int64_t row);

private:
	SQLite::Statement find_;
};

/* The number of the last request; 0 where there is none. */
int64_t last_row_of(SQLite::Database &database);
/* Numbers of requests behind that one, in their order. */
std::vector<int64_t> rows_after(SQLite::Database &database, int64_t row, size_t most);

std::optional<std::string> read_document(SQLite::Database &database, int64_t row);
/* Everything that is known of a request, to be written elsewhere; no facts. Where `is_damaged`,
 * texts and document are left out if they cannot be read. */
std::optional<Record> read_record(SQLite::Database &database, int64_t row, bool is_damaged = false);

/* The newest row whose identifier, or trace, begins like that. */
std::optional<int64_t> find_request(SQLite::Database &database, const std::string &begin);
std::optional<std::string> find_trace(SQLite::Database &database, const std::string &begin);
std::vector<int64_t> rows_of_trace(SQLite::Database &database, const std::string &trace_id);

/* How many requests and documents there are. */
RowCounts count_file(SQLite::Database &database);

} // namespace kaq
