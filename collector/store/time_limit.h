/* How long a question to a file of requests may take. One thread. */
#pragma once

#include <sqlite3.h>

#include <SQLiteCpp/Database.h>

#include "store/request_reading.h"

namespace kaq {

/* Ends what runs on a connection when the time is up. */
class TimeLimit {
public:
	TimeLimit(SQLite::Database &database, Deadline deadline)
		: database_(database), deadline_(deadline) {
		sqlite3_progress_handler(database.getHandle(), kStepsBetweenLooks, is_up, this);
	}
	~TimeLimit() {
		sqlite3_progress_handler(database_.getHandle(), 0, nullptr, nullptr);
	}
	TimeLimit(const TimeLimit &) = delete;
	TimeLimit &operator=(const TimeLimit &) = delete;

private:
	/* Steps of SQLite's machine between two looks at the clock. */
	static constexpr int kStepsBetweenLooks = 20000;

	static int is_up(void *limit) {
		return std::chrono::steady_clock::now() > static_cast<TimeLimit *>(limit)->deadline_;
	}

	SQLite::Database &database_;
	const Deadline deadline_;
};

} // namespace kaq
