/*
 * The file of figures: sums by the minute and by the hour, how many requests asked, and marks. Kept
 * apart from the requests and longer than they.
 */
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <tuple>
#include <unordered_set>
#include <vector>

#include <SQLiteCpp/Database.h>
#include <SQLiteCpp/Statement.h>

#include "store/figure_sums.h"
#include "store/store.h"

namespace kaq {

struct FigureRetention {
	int64_t minutes = 7LL * 24 * 3600 * 1000; /* milliseconds */
	int64_t hours = 400LL * 24 * 3600 * 1000; /* milliseconds */
	int64_t most_bytes = 512LL * 1024 * 1024;
};

/* A sum by the hour of what was asked stands that far behind the hour's begin, where no minute's
 * does. */
constexpr int64_t kAskedHourMark = 1;

/* By minute, application and name. */
struct AskedSum {
	int64_t asked = 0;
	int64_t monitored = 0;
};
using AskedSums = std::map<std::tuple<int64_t, std::string, std::string>, AskedSum>;

/* Writes. One thread; everything throws SQLite::Exception. */
class FigureFile {
public:
	explicit FigureFile(const std::string &path);
	~FigureFile();

	/* Adds to what is there, in one transaction, all or nothing. */
	void write(const std::vector<FigurePeriod> &minutes, const AskedSums &asked);
	void add_mark(const Mark &mark);
	void remove_mark(const Mark &mark);
	/* These requests are no examples of anything any more. */
	void forget_examples(const std::unordered_set<std::string> &ids);
	/* Deletes what is too old, and the oldest of what is too much; how many asked is summed up by
	 * the hour where the minutes go. Bounded in time: the rest at the next call. */
	void retain(const FigureRetention &retention, int64_t now);

private:
	struct Table;

	void write_key(int64_t hash, const FigureKey &key);
	void add_asked(const AskedSums::value_type &row);
	bool delete_before(const std::string &table, int64_t time);
	int64_t end_of_times(const std::string &table, const std::string &end, int kind);
	std::optional<int64_t> next_asked_minute();
	void sum_up_asked(int64_t time);
	int64_t sum_up_asked_hour(int64_t hour);
	int64_t used_bytes();
	void delete_oldest(const FigureRetention &retention);
	bool delete_oldest_minutes();
	bool delete_oldest_hours();

	std::unique_ptr<SQLite::Database> database_;
	SQLite::Statement add_key_;
	SQLite::Statement add_asked_;
	std::unique_ptr<Table> minutes_;
	std::unique_ptr<Table> hours_;
	std::unordered_set<int64_t> known_keys_;
	int64_t asked_summed_ = -1; /* up to there nothing was asked by the minute */
	const std::string path_;
};

/* Read from a connection, which is used by this thread alone meanwhile. Throw SQLite::Exception. */
std::vector<FigureRow> read_figures(SQLite::Database &database, const FigureSearch &search);
std::vector<FigurePoint> read_curve(SQLite::Database &database, const FigureSearch &search,
									int64_t step);
/* Of each key by itself; a step of 0 has all of its time. */
std::vector<FigureStep> read_figure_steps(SQLite::Database &database, const FigureSearch &search,
										  int64_t step);
std::vector<AskedCount> read_asked(SQLite::Database &database, const TimeRange &range,
								   const std::string &application);
std::vector<Mark> read_marks(SQLite::Database &database, const TimeRange &range);

} // namespace kaq
