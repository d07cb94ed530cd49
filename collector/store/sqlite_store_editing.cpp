/* What changes requests that are stored: pinning and forgetting. */
#include <sqlite3.h>

#include "store/filter_sql.h"
#include "store/request_reading.h"
#include "store/salvage.h"
#include "store/schema.h"
#include "store/sqlite_store.h"
#include "util/log.h"

namespace kaq {
namespace {

/* Everything that no request refers to any more. The index is made anew, since what is deleted from
 * it would stay in its blocks. */
void drop_orphans(SQLite::Database &database) {
	database.exec("DELETE FROM documents WHERE row NOT IN (SELECT row FROM requests)");
	database.exec("DELETE FROM text_sets WHERE id NOT IN (SELECT texts FROM requests)");
	database.exec("DELETE FROM names WHERE id NOT IN (SELECT application FROM requests UNION "
				  "SELECT name FROM requests UNION SELECT host FROM requests UNION "
				  "SELECT method FROM requests UNION SELECT instance FROM requests UNION "
				  "SELECT kinds FROM requests)");
	database.exec("CREATE TEMP TABLE used(id INTEGER PRIMARY KEY)");
	SQLite::Statement sets(database, "SELECT members FROM text_sets");
	SQLite::Statement use(database, "INSERT OR IGNORE INTO used VALUES(?)");
	while (sets.executeStep()) {
		for (int64_t id : text_set_from_bytes(sets.getColumn(0).getString())) {
			use.bind(1, id);
			use.exec();
			use.reset();
		}
	}
	sets.reset();
	database.exec("DELETE FROM texts WHERE id NOT IN (SELECT id FROM used)");
	database.exec("DROP TABLE used");
	database.exec("INSERT INTO texts_index(texts_index) VALUES('rebuild')");
}

/* The identifiers of what was deleted. */
std::vector<std::string> delete_from(const std::string &path, const Filter &filter) {
	auto database = open_to_write(path, kRequestTables);
	SqlCondition condition = to_sql(filter, *database);
	database->exec("BEGIN IMMEDIATE");
	std::vector<std::string> deleted;
	{
		SQLite::Statement remove(*database,
								 "DELETE FROM requests WHERE " + condition.text + " RETURNING id");
		condition.bind(remove, 1);
		while (remove.executeStep()) {
			deleted.push_back(remove.getColumn(0).getString());
		}
	}
	if (!deleted.empty()) {
		drop_orphans(*database);
	}
	database->exec("COMMIT");
	if (!deleted.empty()) {
		database->exec("VACUUM");
		database->exec("PRAGMA wal_checkpoint(TRUNCATE)");
	}
	return deleted;
}

} // namespace

std::vector<std::string> SqliteStore::delete_requests(const std::string &path,
													  const Filter &filter) {
	pool_.forget(path);
	try {
		std::vector<std::string> deleted = delete_from(path, filter);
		counts_.forget(path);
		return deleted;
	} catch (...) {
		counts_.forget(path);
		throw;
	}
}

void SqliteStore::load_pinned() {
	std::lock_guard lock(mutex_);
	pinned_.clear();
	if (bytes_of_database(files_.pinned_path()) == 0) {
		return;
	}
	try {
		DatabasePool::Lease lease = pool_.lease(files_.pinned_path());
		SQLite::Statement ids(*lease, "SELECT id FROM requests");
		while (ids.executeStep()) {
			pinned_.insert(ids.getColumn(0).getString());
		}
	} catch (const SQLite::Exception &error) {
		if (is_damage(error)) {
			files_.put_aside({files_.pinned_path(), 0, true}, error.what());
		} else {
			log_some(LogLevel::kError, "store-pinned",
					 std::string("pinned requests cannot be read: ") + error.what());
		}
	}
}

/* Of a request, or of all requests of a trace. */
std::vector<std::string> SqliteStore::ids_of(const std::string &id) {
	if (std::optional<RequestRow> row = request(id)) {
		return {row->summary.id};
	}
	std::vector<std::string> ids;
	if (std::optional<std::string> whole = trace_id(id)) {
		for (const RequestRow &row : trace(*whole)) {
			ids.push_back(row.summary.id);
		}
	}
	return ids;
}

void SqliteStore::copy_to_pinned(const std::vector<std::string> &ids) {
	RequestFile pinned(files_.pinned_path());
	pinned.begin();
	for (const std::string &id : ids) {
		std::optional<Record> record;
		visit_files([&](SQLite::Database &database, const File &) {
			if (std::optional<int64_t> row = find_request(database, id)) {
				record = read_record(database, *row);
			}
			return !record;
		});
		if (record && complete({record->summary, {}, {}, {}, {}, false, false}).is_pinned) {
			continue;
		}
		if (record) {
			pinned.add(*record);
		}
	}
	pinned.commit();
	counts_.forget(files_.pinned_path());
	std::lock_guard lock(mutex_);
	pinned_.insert(ids.begin(), ids.end());
}

bool SqliteStore::pin(const std::string &id) {
	flush();
	std::vector<std::string> ids = ids_of(id);
	if (!ids.empty()) {
		on_writer([this, &ids] { copy_to_pinned(ids); });
	}
	return !ids.empty();
}

bool SqliteStore::unpin(const std::string &id) {
	std::vector<std::string> ids = ids_of(id);
	bool was_pinned = false;
	on_writer([&] {
		for (const std::string &one : ids) {
			Filter filter;
			filter.condition = {TextIs{TextField::kId, glob_of(one)}};
			was_pinned = !delete_requests(files_.pinned_path(), filter).empty() || was_pinned;
		}
		load_pinned();
	});
	return was_pinned;
}

/* Made where there is none. */
FigureFile &SqliteStore::open_figures() {
	if (!figure_file_) {
		figure_file_ = std::make_unique<FigureFile>(figure_path());
	}
	return *figure_file_;
}

void SqliteStore::add_mark(const Mark &mark) {
	on_writer([this, &mark] { open_figures().add_mark(mark); });
}

void SqliteStore::remove_mark(const Mark &mark) {
	on_writer([this, &mark] { open_figures().remove_mark(mark); });
}

/* A pinned request is in two files, and one all the same. What was put aside cannot be searched. */
int64_t SqliteStore::forget(const Filter &filter) {
	std::unordered_set<std::string> deleted;
	on_writer([&] {
		/* The newest file is written on with what is left in it. */
		file_.reset();
		for (const File &file : files_.files()) {
			for (std::string &id : delete_requests(file.path, filter)) {
				deleted.insert(std::move(id));
			}
		}
		files_.remove_asides();
		load_pinned();
		if (figure_file_ || bytes_of_database(figure_path()) > 0) {
			open_figures().forget_examples(deleted);
		}
	});
	return static_cast<int64_t>(deleted.size());
}

void SqliteStore::salvage_files() {
	while (is_salvaging_) {
		std::optional<RequestDirectory::Aside> aside = files_.next_aside();
		if (!aside) {
			return;
		}
		salvage_file(*aside);
	}
}

/* One that could not be tried to its end is tried again at the next start. */
void SqliteStore::salvage_file(const RequestDirectory::Aside &aside) {
	const std::string fresh = settings_.directory + "/salvage.sqlite";
	try {
		remove_database(fresh);
		RequestDirectory::Salvaged salvaged = salvage(aside.path, fresh, is_salvaging_);
		if (is_salvaging_) {
			on_writer([&] {
				files_.settle(aside, fresh, salvaged);
				load_pinned();
			});
		}
	} catch (const std::exception &error) {
		log_line(LogLevel::kError,
				 "what can be read of " + aside.path + " cannot be saved: " + error.what());
	}
	remove_database(fresh);
}

} // namespace kaq
