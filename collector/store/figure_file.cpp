#include "store/figure_file.h"

#include <algorithm>

#include "store/figure_columns.h"
#include "store/schema.h"

namespace kaq {
namespace {

constexpr int64_t kMinute = 60 * 1000;
constexpr int64_t kHour = 60 * kMinute;
/* What is remembered of keys that are in the file already. */
constexpr size_t kMostKnownKeys = 200000;
/* Deleted at a time, so that a flush does not wait long. */
constexpr int64_t kRowsAtATime = 20000;
/* Of making room for what is new. */
constexpr int kMostSteps = 20;

std::string columns_of(const std::string &table, const std::string &what) {
	return "SELECT " + what + " FROM " + table;
}

} // namespace

/* One of the two tables, with what is needed to add to a row. */
struct FigureFile::Table {
	Table(SQLite::Database &database, const std::string &name)
		: find(database, columns_of(name, kFigureColumns) + " WHERE kind=? AND time=? AND key=?"),
		  put(database, "REPLACE INTO " + name +
							" VALUES(?1,?2,?3,?4,?5,?6,?7,?8,?9,?10,?11,?12,?13,?14,?15,"
							"?16,?17,?18)") {
	}

	void add(int64_t time, int64_t hash, const FigureRow &row) {
		Figures sum;
		find.bind(1, static_cast<int>(row.key.kind));
		find.bind(2, time);
		find.bind(3, hash);
		if (find.executeStep()) {
			add_figures(sum, find, 0);
		}
		find.reset();
		sum.add(row.figures);
		put.bind(1, time);
		put.bind(2, static_cast<int>(row.key.kind));
		put.bind(3, hash);
		bind_figures(put, 4, sum);
		put.exec();
		put.reset();
	}

	SQLite::Statement find;
	SQLite::Statement put;
};

FigureFile::FigureFile(const std::string &path)
	: database_(open_to_write(path, kFigureTables)),
	  add_key_(*database_, "INSERT OR IGNORE INTO keys VALUES(?,?,?,?,?,?,?,?,?)"),
	  add_asked_(*database_,
				 "INSERT INTO asked VALUES(?,?,?,?,?) ON CONFLICT DO UPDATE SET "
				 "asked = asked + excluded.asked, monitored = monitored + excluded.monitored"),
	  minutes_(std::make_unique<Table>(*database_, "minutes")),
	  hours_(std::make_unique<Table>(*database_, "hours")), path_(path) {
}

FigureFile::~FigureFile() = default;

void FigureFile::write_key(int64_t hash, const FigureKey &key) {
	if (known_keys_.size() >= kMostKnownKeys) {
		known_keys_.clear();
	}
	if (!known_keys_.insert(hash).second) {
		return;
	}
	add_key_.bind(1, hash);
	add_key_.bind(2, static_cast<int>(key.kind));
	int column = 3;
	for (const std::string *text : {&key.application, &key.transaction, &key.text, &key.details[0],
									&key.details[1], &key.details[2], &key.details[3]}) {
		add_key_.bindNoCopy(column++, *text);
	}
	add_key_.exec();
	add_key_.reset();
}

void FigureFile::add_asked(const AskedSums::value_type &row) {
	const auto &[time, application, name] = row.first;
	asked_summed_ = std::min(asked_summed_, time - 1);
	add_asked_.bind(1, time);
	add_asked_.bindNoCopy(2, application);
	add_asked_.bindNoCopy(3, name);
	add_asked_.bind(4, row.second.asked);
	add_asked_.bind(5, row.second.monitored);
	add_asked_.exec();
	add_asked_.reset();
}

void FigureFile::write(const std::vector<FigurePeriod> &minutes, const AskedSums &asked) {
	database_->exec("BEGIN IMMEDIATE");
	try {
		for (const FigurePeriod &minute : minutes) {
			for (const auto &[hash, row] : minute.rows) {
				write_key(hash, row.key);
				minutes_->add(minute.time, hash, row);
				hours_->add(minute.time - minute.time % kHour, hash, row);
			}
		}
		for (const auto &row : asked) {
			add_asked(row);
		}
		database_->exec("COMMIT");
	} catch (const SQLite::Exception &) {
		known_keys_.clear();
		database_->tryExec("ROLLBACK");
		throw;
	}
}

void FigureFile::add_mark(const Mark &mark) {
	SQLite::Statement add(*database_, "INSERT INTO marks VALUES(?,?,?)");
	add.bind(1, mark.time);
	add.bind(2, mark.application);
	add.bind(3, mark.text);
	add.exec();
}

void FigureFile::remove_mark(const Mark &mark) {
	SQLite::Statement remove(*database_,
							 "DELETE FROM marks WHERE time = ? AND application = ? AND text = ?");
	remove.bind(1, mark.time);
	remove.bind(2, mark.application);
	remove.bind(3, mark.text);
	remove.exec();
}

/* Whole hours, so that what is left of the minutes is complete from an hour on. True if there is
 * more of it. */
bool FigureFile::delete_before(const std::string &table, int64_t time) {
	int64_t left = kRowsAtATime;
	SQLite::Statement remove(*database_, "DELETE FROM " + table + " WHERE kind=? AND time<?");
	for (int kind = 0; kind < static_cast<int>(kFigureKinds); kind++) {
		int64_t oldest = end_of_times(table, "min", kind);
		while (oldest > 0 && oldest < time - time % kHour) {
			if (left <= 0) {
				return true;
			}
			remove.bind(1, kind);
			remove.bind(2, oldest - oldest % kHour + kHour);
			left -= remove.exec();
			remove.reset();
			oldest = end_of_times(table, "min", kind);
		}
	}
	return false;
}

/* 0 if the table has none of that kind. */
int64_t FigureFile::end_of_times(const std::string &table, const std::string &end, int kind) {
	return database_
		->execAndGet("SELECT coalesce(" + end + "(time), 0) FROM " + table +
					 " WHERE kind = " + std::to_string(kind))
		.getInt64();
}

/* The oldest that was asked by the minute. Each time is looked at once, and nothing within it. */
std::optional<int64_t> FigureFile::next_asked_minute() {
	SQLite::Statement next(*database_, "SELECT min(time) FROM asked WHERE time > ?");
	for (;;) {
		next.bind(1, asked_summed_);
		next.executeStep();
		SQLite::Column found = next.getColumn(0);
		if (found.isNull()) {
			return std::nullopt;
		}
		int64_t time = found.getInt64();
		next.reset();
		if (time % kMinute != kAskedHourMark) {
			return time;
		}
		asked_summed_ = time;
	}
}

/* Returns how many rows it has summed up. */
int64_t FigureFile::sum_up_asked_hour(int64_t hour) {
	constexpr const char *kOfTheHour = " FROM asked WHERE time >= ?1 AND time < ?2 AND time != ?3";
	SQLite::Statement add(*database_,
						  std::string("INSERT INTO asked SELECT ?3, application, name, sum(asked), "
									  "sum(monitored)") +
							  kOfTheHour +
							  " GROUP BY application, name ON CONFLICT DO UPDATE SET "
							  "asked = asked + excluded.asked, monitored = monitored + "
							  "excluded.monitored");
	SQLite::Statement remove(*database_, std::string("DELETE") + kOfTheHour);
	for (SQLite::Statement *statement : {&add, &remove}) {
		statement->bind(1, hour);
		statement->bind(2, hour + kHour);
		statement->bind(3, hour + kAskedHourMark);
	}
	database_->exec("BEGIN IMMEDIATE");
	add.exec();
	int64_t removed = remove.exec();
	database_->exec("COMMIT");
	return removed;
}

void FigureFile::sum_up_asked(int64_t time) {
	int64_t left = kRowsAtATime;
	std::optional<int64_t> minute = next_asked_minute();
	while (left > 0 && minute && *minute < time - time % kHour) {
		int64_t hour = *minute - *minute % kHour;
		left -= sum_up_asked_hour(hour);
		asked_summed_ = hour + kHour - 1;
		minute = next_asked_minute();
	}
}

/* Without what is free already and waits for being given back. */
int64_t FigureFile::used_bytes() {
	auto number = [this](const char *name) {
		return database_->execAndGet(std::string("PRAGMA ") + name).getInt64();
	};
	return (number("page_count") - number("freelist_count")) * number("page_size");
}

/* A twentieth of the time that is known by the minute; false if none is. */
bool FigureFile::delete_oldest_minutes() {
	int64_t first = end_of_times("minutes", "min", 0);
	int64_t last = end_of_times("minutes", "max", 0);
	if (std::optional<int64_t> asked = next_asked_minute()) {
		first = first == 0 ? *asked : std::min(first, *asked);
		last = std::max(last, database_->execAndGet("SELECT max(time) FROM asked").getInt64());
	}
	if (last == 0) {
		return false;
	}
	int64_t until = first + kHour + (last - first) / 20;
	delete_before("minutes", until);
	sum_up_asked(until);
	return true;
}

/* The same of the hours; the newest stays. */
bool FigureFile::delete_oldest_hours() {
	int64_t first = end_of_times("hours", "min", 0);
	int64_t last = end_of_times("hours", "max", 0);
	int64_t asked = database_->execAndGet("SELECT coalesce(min(time), 0) FROM asked").getInt64();
	int64_t last_asked =
		database_->execAndGet("SELECT coalesce(max(time), 0) FROM asked").getInt64();
	if (asked > 0) {
		first = first == 0 ? asked : std::min(first, asked);
		last = std::max(last, last_asked - last_asked % kHour);
	}
	int64_t until = std::min(first + kHour + (last - first) / 20, last);
	until -= until % kHour;
	if (until <= first) {
		return false;
	}
	delete_before("hours", until);
	SQLite::Statement remove(*database_, "DELETE FROM asked WHERE time < ?");
	remove.bind(1, until);
	remove.exec();
	return true;
}

/* Minutes first, since the hours hold the same in less room. */
void FigureFile::delete_oldest(const FigureRetention &retention) {
	if (bytes_of_database(path_) <= retention.most_bytes) {
		return;
	}
	/* With some room to grow into. */
	int64_t enough = retention.most_bytes / 20 * 19;
	for (int step = 0; step < kMostSteps && used_bytes() > enough; step++) {
		if (!delete_oldest_minutes() && !delete_oldest_hours()) {
			break;
		}
	}
	database_->exec("PRAGMA incremental_vacuum");
	database_->exec("PRAGMA wal_checkpoint(TRUNCATE)");
}

void FigureFile::forget_examples(const std::unordered_set<std::string> &ids) {
	if (ids.empty()) {
		return;
	}
	database_->exec("CREATE TEMP TABLE forgotten(id TEXT PRIMARY KEY)");
	SQLite::Statement add(*database_, "INSERT INTO forgotten VALUES(?)");
	for (const std::string &id : ids) {
		add.bindNoCopy(1, id);
		add.exec();
		add.reset();
	}
	for (const char *table : {"minutes", "hours"}) {
		database_->exec(std::string("UPDATE ") + table +
						" SET example = '' WHERE example IN (SELECT id FROM forgotten)");
	}
	database_->exec("DROP TABLE forgotten");
	database_->exec("PRAGMA wal_checkpoint(TRUNCATE)");
}

void FigureFile::retain(const FigureRetention &retention, int64_t now) {
	bool has_more = delete_before("minutes", now - retention.minutes);
	has_more = delete_before("hours", now - retention.hours) || has_more;
	sum_up_asked(now - retention.minutes);
	int64_t oldest = now - retention.hours;
	for (const char *table : {"asked", "marks"}) {
		SQLite::Statement remove(*database_,
								 "DELETE FROM " + std::string(table) + " WHERE time < ?");
		remove.bind(1, oldest - oldest % kHour);
		remove.exec();
	}
	if (!has_more) {
		SQLite::Statement keys(*database_, "DELETE FROM keys WHERE id NOT IN (SELECT key FROM "
										   "minutes UNION SELECT key FROM hours)");
		if (keys.exec() > 0) {
			known_keys_.clear();
		}
	}
	database_->exec("PRAGMA incremental_vacuum");
	delete_oldest(retention);
}

} // namespace kaq
