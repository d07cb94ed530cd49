/* The tables of the files that requests and figures are kept in, and how to open them. */
#pragma once

#include <memory>
#include <string>

#include <SQLiteCpp/Database.h>
#include <SQLiteCpp/Exception.h>

namespace kaq {

/* A file of requests: one hour of them, or less. */
extern const char *const kRequestTables;
/* The one file of figures. */
extern const char *const kFigureTables;

/* Raised when the tables change; files of another version are left alone and not read. */
constexpr int kSchemaVersion = 1;

/*
 * Opens a file for writing, and makes the tables if it is new. Throws SQLite::Exception if it
 * cannot be had, is damaged or of another version.
 */
std::unique_ptr<SQLite::Database> open_to_write(const std::string &path, const char *tables);
/* The same for reading. Nothing that is done with it can change the file. The exception has the
 * code SQLITE_EMPTY where another thread is about to make the tables. */
std::unique_ptr<SQLite::Database> open_to_read(const std::string &path);

/* Leaves a file, new or old, to its owner alone; so that nobody else reads what visitors did. The
 * companions that SQLite makes are as the file is. */
void make_private(const std::string &path);

/* The file holds no database, or a broken one. */
bool is_damage(const SQLite::Exception &error);

/* Removes a database with its companions; false if it is still there. */
bool remove_database(const std::string &path);
/* Of the file and its companions; 0 if there is none. */
int64_t bytes_of_database(const std::string &path);

} // namespace kaq
