/* Conditions on requests as conditions of SQL, for one file of requests. */
#pragma once

#include <cstdint>
#include <string>
#include <variant>
#include <vector>

#include <SQLiteCpp/Database.h>
#include <SQLiteCpp/Statement.h>

#include "store/filter.h"

namespace kaq {

struct SqlCondition {
	std::string text; /* an expression over the columns of `requests` */
	std::vector<std::variant<int64_t, std::string>> values;

	/* Binds the values from that number on. They must outlive the execution. */
	void bind(SQLite::Statement &statement, int first) const;
};

/*
 * For this file alone: which texts have the words is looked up at once. The connection needs the
 * functions of add_sql_functions(). Throws SQLite::Exception.
 */
SqlCondition to_sql(const Filter &filter, SQLite::Database &database);

/* kaq_like, kaq_any_like and kaq_has_words, which mean what filter.h says. */
void add_sql_functions(SQLite::Database &database);

} // namespace kaq
