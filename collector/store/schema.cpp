#include "store/schema.h"

#include <fcntl.h>
#include <sqlite3.h>
#include <sys/stat.h>
#include <sys/statvfs.h>

#include <cstdio>
#include <filesystem>

#include "store/filter_sql.h"
#include "util/unique_fd.h"

namespace kaq {

const char *const kRequestTables = R"(
CREATE TABLE about(first INTEGER NOT NULL, last INTEGER NOT NULL);
INSERT INTO about VALUES(9223372036854775807, -9223372036854775808);
CREATE TABLE names(id INTEGER PRIMARY KEY, kind INTEGER NOT NULL, text TEXT NOT NULL,
	UNIQUE(kind, text));
CREATE TABLE requests(
	row INTEGER PRIMARY KEY,
	id TEXT NOT NULL COLLATE NOCASE,
	trace TEXT NOT NULL COLLATE NOCASE,
	start INTEGER NOT NULL,
	duration INTEGER NOT NULL,
	cpu INTEGER NOT NULL,
	memory INTEGER NOT NULL,
	status INTEGER NOT NULL,
	spans INTEGER NOT NULL,
	queries INTEGER NOT NULL,
	calls INTEGER NOT NULL,
	failures INTEGER NOT NULL,
	query_time INTEGER NOT NULL,
	external_time INTEGER NOT NULL,
	flags INTEGER NOT NULL,
	application INTEGER NOT NULL,
	name INTEGER NOT NULL,
	host INTEGER NOT NULL,
	method INTEGER NOT NULL,
	instance INTEGER NOT NULL,
	kinds INTEGER NOT NULL,
	gain INTEGER NOT NULL,
	texts INTEGER NOT NULL,
	verdict TEXT NOT NULL,
	path TEXT NOT NULL);
CREATE INDEX requests_by_id ON requests(id);
CREATE INDEX requests_by_trace ON requests(trace);
CREATE TABLE documents(row INTEGER PRIMARY KEY, document BLOB NOT NULL);
CREATE TABLE texts(id INTEGER PRIMARY KEY, kind INTEGER NOT NULL, text TEXT NOT NULL);
CREATE VIRTUAL TABLE texts_index USING fts5(text, content='texts', content_rowid='id',
	tokenize="ascii tokenchars '_'");
CREATE TABLE text_sets(id INTEGER PRIMARY KEY, members BLOB NOT NULL);
)";

const char *const kFigureTables = R"(
CREATE TABLE keys(id INTEGER PRIMARY KEY, kind INTEGER NOT NULL, application TEXT NOT NULL,
	name TEXT NOT NULL, text TEXT NOT NULL, detail1 TEXT NOT NULL, detail2 TEXT NOT NULL,
	detail3 TEXT NOT NULL, detail4 TEXT NOT NULL);
CREATE TABLE minutes(time INTEGER, kind INTEGER, key INTEGER, requests INTEGER, count INTEGER,
	failed INTEGER, total INTEGER, longest INTEGER, cpu INTEGER, memory INTEGER, queries INTEGER,
	query_time INTEGER, calls INTEGER, external_time INTEGER, first INTEGER, last INTEGER,
	example TEXT, durations BLOB, PRIMARY KEY(kind, time, key)) WITHOUT ROWID;
CREATE TABLE hours(time INTEGER, kind INTEGER, key INTEGER, requests INTEGER, count INTEGER,
	failed INTEGER, total INTEGER, longest INTEGER, cpu INTEGER, memory INTEGER, queries INTEGER,
	query_time INTEGER, calls INTEGER, external_time INTEGER, first INTEGER, last INTEGER,
	example TEXT, durations BLOB, PRIMARY KEY(kind, time, key)) WITHOUT ROWID;
CREATE TABLE asked(time INTEGER, application TEXT, name TEXT, asked INTEGER, monitored INTEGER,
	PRIMARY KEY(time, application, name)) WITHOUT ROWID;
CREATE TABLE marks(time INTEGER NOT NULL, application TEXT NOT NULL, text TEXT NOT NULL);
)";

void make_private(const std::string &path) {
	/* A file that is there is not opened: closing it would end SQLite's locks on it. */
	UniqueFd made(open(path.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, 0600));
	for (const char *companion : {"", "-wal", "-shm"}) {
		struct stat facts = {};
		std::string each = path + companion;
		if (lstat(each.c_str(), &facts) == 0 && S_ISREG(facts.st_mode) &&
			(facts.st_mode & (S_IRWXG | S_IRWXO)) != 0) {
			chmod(each.c_str(), 0600);
		}
	}
}

std::unique_ptr<SQLite::Database> open_to_write(const std::string &path, const char *tables) {
	make_private(path);
	auto database = std::make_unique<SQLite::Database>(
		path, SQLite::OPEN_READWRITE | SQLite::OPEN_CREATE | SQLite::OPEN_NOMUTEX, 2000);
	/* What is deleted is to be gone. A commit need not wait for the disk: only a crash of the whole
	 * machine can lose the last ones. */
	database->exec("PRAGMA secure_delete = ON");
	if (database->execAndGet("PRAGMA user_version").getInt() == 0) {
		database->exec("PRAGMA auto_vacuum = INCREMENTAL");
		database->exec("PRAGMA journal_mode = WAL");
		SQLite::Database &made = *database;
		made.exec("BEGIN");
		made.exec(tables);
		made.exec("PRAGMA user_version = " + std::to_string(kSchemaVersion));
		made.exec("COMMIT");
	}
	if (database->execAndGet("PRAGMA user_version").getInt() != kSchemaVersion) {
		throw SQLite::Exception(path + " has another version", SQLITE_MISMATCH);
	}
	database->exec("PRAGMA synchronous = NORMAL");
	database->exec("PRAGMA wal_autocheckpoint = 4000");
	database->exec("PRAGMA cache_size = -8000");
	database->exec("PRAGMA temp_store = MEMORY");
	add_sql_functions(*database);
	return database;
}

namespace {

bool is_on_read_only_medium(const std::string &path) {
	struct statvfs medium;
	return statvfs(path.c_str(), &medium) == 0 && (medium.f_flag & ST_RDONLY) != 0;
}

std::string immutable_uri(const std::string &path) {
	std::string uri = "file:";
	for (char character : path) {
		if (character == '?' || character == '#' || character == '%') {
			char escaped[4];
			snprintf(escaped, sizeof(escaped), "%%%02X", static_cast<unsigned>(character));
			uri += escaped;
		} else {
			uri += character;
		}
	}
	return uri + "?immutable=1";
}

/* A file in WAL mode may need its companions to be made before it can be read, where that can be
 * done. Where nothing can change, it is read without them. */
std::unique_ptr<SQLite::Database> open_anywhere(const std::string &path) {
	std::error_code none;
	auto written_ahead = std::filesystem::file_size(path + "-wal", none);
	if (is_on_read_only_medium(path) && (none || written_ahead == 0)) {
		return std::make_unique<SQLite::Database>(
			immutable_uri(path), SQLite::OPEN_READONLY | SQLite::OPEN_URI | SQLite::OPEN_NOMUTEX,
			2000);
	}
	return std::make_unique<SQLite::Database>(path, SQLite::OPEN_READWRITE | SQLite::OPEN_NOMUTEX,
											  2000);
}

} // namespace

std::unique_ptr<SQLite::Database> open_to_read(const std::string &path) {
	auto database = open_anywhere(path);
	database->exec("PRAGMA query_only = ON");
	database->exec("PRAGMA cache_size = -1000");
	database->exec("PRAGMA temp_store = MEMORY");
	int version = database->execAndGet("PRAGMA user_version").getInt();
	if (version == 0) {
		throw SQLite::Exception(path + " is being made", SQLITE_EMPTY);
	}
	if (version != kSchemaVersion) {
		throw SQLite::Exception(path + " has another version", SQLITE_MISMATCH);
	}
	add_sql_functions(*database);
	return database;
}

bool is_damage(const SQLite::Exception &error) {
	return error.getErrorCode() == SQLITE_CORRUPT || error.getErrorCode() == SQLITE_NOTADB;
}

bool remove_database(const std::string &path) {
	std::error_code error;
	for (const char *companion : {"", "-wal", "-shm"}) {
		std::filesystem::remove(path + companion, error);
	}
	return !std::filesystem::exists(path, error);
}

int64_t bytes_of_database(const std::string &path) {
	int64_t bytes = 0;
	for (const char *companion : {"", "-wal"}) {
		std::error_code error;
		auto size = std::filesystem::file_size(path + companion, error);
		bytes += error ? 0 : static_cast<int64_t>(size);
	}
	return bytes;
}

} // namespace kaq
