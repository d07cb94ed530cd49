#include "store/salvage.h"

#include <chrono>
#include <memory>
#include <optional>

#include "store/request_file.h"
#include "store/request_reading.h"
#include "store/schema.h"

namespace kaq {
namespace {

constexpr std::chrono::seconds kLongest{60};
constexpr int64_t kRowsAtATime = 500;
/* Where nothing tells how many there were: so many that cannot be read, one after the other, are
 * the end. */
constexpr int64_t kBlindRows = 2000;

/* Nothing if there is no database at all. */
std::unique_ptr<SQLite::Database> open_damaged(const std::string &path) {
	try {
		auto database = std::make_unique<SQLite::Database>(
			path, SQLite::OPEN_READWRITE | SQLite::OPEN_NOMUTEX, 2000);
		/* Without this, nothing at all is read of a file that has been cut off. */
		database->exec("PRAGMA writable_schema = ON");
		database->exec("PRAGMA query_only = ON");
		bool is_known = database->execAndGet("PRAGMA user_version").getInt() == kSchemaVersion;
		return is_known ? std::move(database) : nullptr;
	} catch (const SQLite::Exception &) {
		return nullptr;
	}
}

std::optional<int64_t> last_row(SQLite::Database &database) {
	for (const char *table : {"requests", "documents"}) {
		try {
			return database.execAndGet(std::string("SELECT coalesce(max(row), 0) FROM ") + table)
				.getInt64();
		} catch (const SQLite::Exception &) {
			continue;
		}
	}
	return std::nullopt;
}

} // namespace

RequestDirectory::Salvaged salvage(const std::string &damaged, const std::string &fresh,
								   const std::atomic<bool> &goes_on) {
	RequestDirectory::Salvaged salvaged;
	std::unique_ptr<SQLite::Database> database = open_damaged(damaged);
	salvaged.is_readable = database != nullptr;
	if (!database) {
		return salvaged;
	}
	Deadline deadline = std::chrono::steady_clock::now() + kLongest;
	std::optional<int64_t> last = last_row(*database);
	salvaged.is_readable = last.has_value();
	int64_t in_vain = 0;
	RequestFile file(fresh);
	file.begin();
	for (int64_t row = 1; goes_on && (last ? row <= *last : in_vain < kBlindRows); row++) {
		std::optional<Record> record;
		std::string reason;
		try {
			record = read_record(*database, row, true);
		} catch (const SQLite::Exception &) {
			salvaged.lost++;
		}
		bool is_saved = record && file.add_if_possible(*record, reason);
		salvaged.saved += is_saved ? 1 : 0;
		in_vain = is_saved ? 0 : in_vain + 1;
		if (row % kRowsAtATime == 0) {
			file.commit();
			file.begin();
			if (std::chrono::steady_clock::now() > deadline) {
				salvaged.is_readable = false;
				break;
			}
		}
	}
	file.commit();
	return salvaged;
}

} // namespace kaq
