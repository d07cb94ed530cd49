/* Requests in the order in which they arrived: file by file, row by row. */
#include <sqlite3.h>

#include <algorithm>

#include "store/request_reading.h"
#include "store/schema.h"
#include "store/sqlite_store.h"

namespace kaq {
namespace {

/* What cannot be read now, and later perhaps can. */
bool may_pass(const SQLite::Exception &error) {
	switch (error.getErrorCode()) {
	case SQLITE_CORRUPT:
	case SQLITE_MISMATCH:
	case SQLITE_NOTADB:
		return false;
	default:
		return true;
	}
}

/* Goes on where it has ended, in the file and in the next. */
class ArrivalReader {
public:
	explicit ArrivalReader(const ArrivalSearch &search) : search_(search) {
		found_.next = search.after;
	}

	/* The file is the one that the place is in, or a later one. */
	void enter(int64_t file) {
		if (file != found_.next.file) {
			found_.next = {file, 0};
		}
	}

	/* False if a bound was reached. Throws SQLite::Exception. */
	bool read(SQLite::Database &database) {
		RequestReader reader(database);
		/* Others may have been forgotten, and their numbers be given again. */
		found_.next.row = std::min(found_.next.row, last_row_of(database));
		for (int64_t row : rows_after(database, found_.next.row, search_.most_rows - rows_)) {
			if (!take(database, reader, row)) {
				found_.has_more = true;
				return false;
			}
		}
		return true;
	}

	Arrivals &found() {
		return found_;
	}

private:
	bool take(SQLite::Database &database, RequestReader &reader, int64_t row) {
		std::optional<RequestRow> request = reader.read(row);
		std::optional<std::string> document;
		if (request && request->has_document && search_.wants(*request)) {
			document = read_document(database, row);
		}
		rows_++;
		found_.next.row = row;
		if (document) {
			bytes_ += document->size();
			found_.requests.push_back({std::move(*request), std::move(*document), found_.next});
		}
		return bytes_ < search_.most_bytes && rows_ < search_.most_rows;
	}

	const ArrivalSearch &search_;
	Arrivals found_;
	size_t rows_ = 0;
	size_t bytes_ = 0;
};

} // namespace

/* Oldest first. A file that has a later one is not written to any more: whoever reads it after this
 * reads all of it. */
std::vector<SqliteStore::File> SqliteStore::files_from(int64_t begun) {
	std::vector<File> files;
	for (File &file : files_.files()) {
		if (!file.is_pinned && file.begun >= begun) {
			files.push_back(std::move(file));
		}
	}
	std::reverse(files.begin(), files.end());
	return files;
}

Arrivals SqliteStore::arrivals(const ArrivalSearch &search) {
	ArrivalReader reader(search);
	std::vector<File> files = files_from(search.after.file);
	reader.found().has_gap =
		search.after.file != 0 && !files.empty() && files.front().begun != search.after.file;
	for (const File &file : files) {
		reader.enter(file.begun);
		try {
			DatabasePool::Lease lease = pool_.lease(file.path);
			try {
				if (!reader.read(*lease)) {
					break;
				}
			} catch (const SQLite::Exception &) {
				lease.discard();
				throw;
			}
		} catch (const SQLite::Exception &error) {
			if (is_damage(error)) {
				files_.put_aside(file, error.what());
			} else if (may_pass(error) && files_.has(file)) {
				break;
			}
		}
	}
	return std::move(reader.found());
}

StorePlace SqliteStore::last_place() {
	StorePlace place;
	std::vector<File> files = files_from(0);
	if (!files.empty()) {
		place.file = files.back().begun;
		visit_file(files.back(), [&place](SQLite::Database &database, const File &) {
			place.row = last_row_of(database);
			return true;
		});
	}
	return place;
}

int64_t SqliteStore::requests_after(const StorePlace &place) {
	int64_t requests = 0;
	for (const File &file : files_from(place.file)) {
		if (file.begun != place.file) {
			requests += counts_of(file).value_or(RowCounts()).requests;
			continue;
		}
		visit_file(file, [&](SQLite::Database &database, const File &) {
			requests += std::max<int64_t>(last_row_of(database) - place.row, 0);
			return true;
		});
	}
	return requests;
}

} // namespace kaq
