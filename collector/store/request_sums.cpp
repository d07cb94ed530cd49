/* Sums over the requests of a file. */
#include <sqlite3.h>

#include <unordered_map>

#include "store/filter_sql.h"
#include "store/request_file.h"
#include "store/request_reading.h"
#include "store/time_limit.h"

namespace kaq {
namespace {

/* Texts of the file's names, each read once. */
class Names {
public:
	explicit Names(SQLite::Database &database)
		: find_(database, "SELECT text FROM names WHERE id = ?") {
	}

	const std::string &text(int64_t id) {
		auto [place, is_new] = texts_.try_emplace(id);
		if (is_new) {
			find_.reset();
			find_.bind(1, id);
			place->second = find_.executeStep() ? find_.getColumn(0).getString() : std::string();
		}
		return place->second;
	}

private:
	SQLite::Statement find_;
	std::unordered_map<int64_t, std::string> texts_;
};

Summary summary_of(SQLite::Statement &row, Names &names) {
	Summary summary;
	int column = 0;
	int64_t flags = 0;
	for (int64_t *number :
		 {&summary.start, &summary.duration, &summary.cpu, &summary.memory, &summary.queries,
		  &summary.query_time, &summary.calls, &summary.external_time, &flags}) {
		*number = row.getColumn(column++).getInt64();
	}
	summary.is_failed = (flags & kFlagFailed) != 0;
	summary.application = names.text(row.getColumn(column++).getInt64());
	summary.name = names.text(row.getColumn(column++).getInt64());
	summary.id = row.getColumn(column).getString();
	return summary;
}

int64_t begin_of(int64_t time, int64_t step) {
	return step == 0 ? 0 : time - time % step;
}

} // namespace

bool RequestSummer::add(SQLite::Database &database,
						const std::function<bool(const std::string &)> &is_new) {
	TimeLimit limit(database, deadline_);
	try {
		Names names(database);
		SqlCondition condition = to_sql(filter_, database);
		SQLite::Statement rows(database,
							   "SELECT start, duration, cpu, memory, queries, query_time, calls, "
							   "external_time, flags, application, name, id FROM requests WHERE " +
								   condition.text);
		condition.bind(rows, 1);
		while (rows.executeStep()) {
			Summary summary = summary_of(rows, names);
			if (is_new(summary.id)) {
				sums_[{summary.application, summary.name, begin_of(summary.start, step_)}].add(
					figures_of(summary, summary.start));
			}
		}
		return true;
	} catch (const SQLite::Exception &error) {
		if (error.getErrorCode() != SQLITE_INTERRUPT) {
			throw;
		}
		return false;
	}
}

std::vector<FigureStep> RequestSummer::take() {
	std::vector<FigureStep> steps;
	steps.reserve(sums_.size());
	for (auto &[place, figures] : sums_) {
		FigureStep step;
		step.key.application = std::get<0>(place);
		step.key.transaction = std::get<1>(place);
		step.time = std::get<2>(place);
		step.figures = std::move(figures);
		steps.push_back(std::move(step));
	}
	sums_.clear();
	return steps;
}

void add_hosts(SQLite::Database &database, const TimeRange &range, HostSums &sums) {
	Names names(database);
	SQLite::Statement rows(database, "SELECT application, host, count(*) FROM requests WHERE "
									 "start >= ? AND start < ? GROUP BY 1, 2");
	rows.bind(1, range.from);
	rows.bind(2, range.to);
	while (rows.executeStep()) {
		std::string application = names.text(rows.getColumn(0).getInt64());
		sums[{application, names.text(rows.getColumn(1).getInt64())}] +=
			rows.getColumn(2).getInt64();
	}
}

} // namespace kaq
