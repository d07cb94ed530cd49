/* Figures as columns of the tables of minutes and hours, in one order for writing and reading. */
#pragma once

#include <SQLiteCpp/Column.h>
#include <SQLiteCpp/Statement.h>

#include "store/figures.h"

namespace kaq {

constexpr const char *kFigureColumns =
	"requests, count, failed, total, longest, cpu, memory, queries, query_time, calls, "
	"external_time, first, last, example, durations";

/* Binds the columns from that number on. The figures must outlive the execution. */
inline void bind_figures(SQLite::Statement &statement, int column, const Figures &figures) {
	for (int64_t number :
		 {figures.requests, figures.count, figures.failed, figures.total, figures.longest,
		  figures.cpu, figures.memory, figures.queries, figures.query_time, figures.calls,
		  figures.external_time, figures.first, figures.last}) {
		statement.bind(column++, number);
	}
	statement.bindNoCopy(column++, figures.example);
	std::string bytes = figures.durations.to_bytes();
	statement.bind(column, bytes.data(), static_cast<int>(bytes.size()));
}

/* Adds the columns from that number on. */
inline void add_figures(Figures &sum, const SQLite::Statement &statement, int column) {
	Figures figures;
	for (int64_t *number :
		 {&figures.requests, &figures.count, &figures.failed, &figures.total, &figures.longest,
		  &figures.cpu, &figures.memory, &figures.queries, &figures.query_time, &figures.calls,
		  &figures.external_time, &figures.first, &figures.last}) {
		*number = statement.getColumn(column++).getInt64();
	}
	figures.example = statement.getColumn(column++).getText();
	SQLite::Column bytes = statement.getColumn(column);
	figures.durations = Histogram::from_bytes(
		{static_cast<const char *>(bytes.getBlob()), static_cast<size_t>(bytes.getBytes())});
	sum.add(figures);
}

} // namespace kaq
