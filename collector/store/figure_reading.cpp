#include <algorithm>
#include <map>
#include <unordered_map>

#include "store/figure_columns.h"
#include "store/figure_file.h"

namespace kaq {
namespace {

constexpr int64_t kMinute = 60 * 1000;
constexpr int64_t kHour = 60 * kMinute;

int64_t floor_to(int64_t time, int64_t step) {
	int64_t rest = time % step;
	return time - (rest < 0 ? rest + step : rest);
}

int64_t ceil_to(int64_t time, int64_t step) {
	int64_t floor = floor_to(time, step);
	return floor == time ? time : floor + step;
}

/* A part of a range that one table answers. */
struct Part {
	const char *table;
	int64_t from;
	int64_t to;
};

class FigureReader {
public:
	FigureReader(SQLite::Database &database, const FigureSearch &search)
		: database_(database), search_(search) {
		SQLite::Statement newest(database, "SELECT coalesce(max(time), 0) FROM hours WHERE kind=?");
		newest.bind(1, static_cast<int>(search.kind));
		newest.executeStep();
		/* Within bounds that can be calculated with. */
		int64_t end = newest.getColumn(0).getInt64() + kHour;
		from_ = std::max<int64_t>(search.range.from, 0);
		to_ = std::min(search.range.to, end);
	}

	/*
	 * Hours where they are whole, minutes at the ends. The last hour that there is counts as whole
	 * if it is wanted to its end, and where minutes are gone hours stand for them.
	 */
	std::vector<Part> parts(bool has_hours) {
		int64_t from = floor_to(from_, kMinute);
		int64_t to = ceil_to(to_, kMinute);
		int64_t kept = first_kept_minute();
		if (from >= to) {
			return {};
		}
		if (to <= kept) {
			return {{"hours", floor_to(from, kHour), ceil_to(to, kHour)}};
		}
		std::vector<Part> parts;
		if (from < kept) {
			parts.push_back({"hours", floor_to(from, kHour), kept});
			from = kept;
		}
		int64_t first_hour = has_hours ? ceil_to(from, kHour) : to;
		int64_t last_hour = has_hours ? floor_to(to, kHour) : to;
		if (first_hour >= last_hour) {
			parts.push_back({"minutes", from, to});
			return parts;
		}
		parts.push_back({"minutes", from, first_hour});
		parts.push_back({"hours", first_hour, last_hour});
		parts.push_back({"minutes", last_hour, to});
		return parts;
	}

	/* Calls visit(key, time, statement, first column of figures) for each row. */
	template <typename Visit> void visit(const Part &part, Visit visit) {
		std::string text = "SELECT r.key, r.time";
		for (const char *column :
			 {"requests", "count", "failed", "total", "longest", "cpu", "memory", "queries",
			  "query_time", "calls", "external_time", "first", "last", "example", "durations"}) {
			text += std::string(", r.") + column;
		}
		text += std::string(" FROM ") + part.table + " r WHERE r.kind=? AND r.time>=? AND r.time<?";
		text += condition();
		SQLite::Statement rows(database_, text);
		rows.bind(1, static_cast<int>(search_.kind));
		rows.bind(2, part.from);
		rows.bind(3, part.to);
		bind_condition(rows, 4);
		while (rows.executeStep()) {
			visit(rows.getColumn(0).getInt64(), rows.getColumn(1).getInt64(), rows, 2);
		}
	}

	FigureKey key(int64_t id) {
		if (!find_key_) {
			find_key_ = std::make_unique<SQLite::Statement>(
				database_, "SELECT application, name, text, detail1, detail2, detail3, detail4 "
						   "FROM keys WHERE id=?");
		}
		find_key_->bind(1, id);
		FigureKey key;
		key.kind = search_.kind;
		if (find_key_->executeStep()) {
			int column = 0;
			for (std::string *text :
				 {&key.application, &key.transaction, &key.text, &key.details[0], &key.details[1],
				  &key.details[2], &key.details[3]}) {
				*text = find_key_->getColumn(column++).getString();
			}
		}
		find_key_->reset();
		return key;
	}

private:
	int64_t oldest_in(const char *table) {
		SQLite::Statement oldest(database_, std::string("SELECT coalesce(min(time), 0) FROM ") +
												table + " WHERE kind=?");
		oldest.bind(1, static_cast<int>(search_.kind));
		oldest.executeStep();
		return oldest.getColumn(0).getInt64();
	}

	/* The hour from which on all minutes are there; 0 if they always are. */
	int64_t first_kept_minute() {
		int64_t minute = oldest_in("minutes");
		return floor_to(minute, kHour) <= oldest_in("hours") ? 0 : floor_to(minute, kHour);
	}

	std::string condition() const {
		std::string text;
		for (auto [value, column] :
			 {std::pair(&search_.application, "application"),
			  std::pair(&search_.transaction, "name"), std::pair(&search_.text, "text")}) {
			text += value->empty() ? "" : std::string(" AND ") + column + "=?";
		}
		return text.empty() ? text
							: " AND r.key IN (SELECT id FROM keys WHERE kind=r.kind" + text + ")";
	}

	void bind_condition(SQLite::Statement &statement, int column) const {
		for (const std::string *value :
			 {&search_.application, &search_.transaction, &search_.text}) {
			if (!value->empty()) {
				statement.bind(column++, *value);
			}
		}
	}

	SQLite::Database &database_;
	const FigureSearch &search_;
	int64_t from_ = 0;
	int64_t to_ = 0;
	std::unique_ptr<SQLite::Statement> find_key_;
};

} // namespace

std::vector<FigureRow> read_figures(SQLite::Database &database, const FigureSearch &search) {
	FigureReader reader(database, search);
	std::unordered_map<int64_t, Figures> sums;
	for (const Part &part : reader.parts(true)) {
		reader.visit(part, [&sums](int64_t key, int64_t, const SQLite::Statement &row, int column) {
			add_figures(sums[key], row, column);
		});
	}
	std::vector<FigureRow> rows;
	rows.reserve(sums.size());
	for (auto &[key, figures] : sums) {
		rows.push_back({reader.key(key), std::move(figures)});
	}
	return rows;
}

std::vector<FigurePoint> read_curve(SQLite::Database &database, const FigureSearch &search,
									int64_t step) {
	FigureReader reader(database, search);
	std::map<int64_t, Figures> sums;
	for (const Part &part : reader.parts(step % kHour == 0)) {
		reader.visit(
			part, [&sums, step](int64_t, int64_t time, const SQLite::Statement &row, int column) {
				add_figures(sums[floor_to(time, step)], row, column);
			});
	}
	std::vector<FigurePoint> points;
	points.reserve(sums.size());
	for (auto &[time, figures] : sums) {
		points.push_back({time, std::move(figures)});
	}
	return points;
}

std::vector<FigureStep> read_figure_steps(SQLite::Database &database, const FigureSearch &search,
										  int64_t step) {
	FigureReader reader(database, search);
	std::map<std::pair<int64_t, int64_t>, Figures> sums;
	for (const Part &part : reader.parts(step % kHour == 0)) {
		reader.visit(part,
					 [&](int64_t key, int64_t time, const SQLite::Statement &row, int column) {
						 int64_t begin = step == 0 ? 0 : floor_to(time, step);
						 add_figures(sums[{key, begin}], row, column);
					 });
	}
	std::vector<FigureStep> steps;
	steps.reserve(sums.size());
	int64_t steps_key = 0;
	for (auto &[place, figures] : sums) {
		/* In the order of the keys, so that each is looked up once. */
		bool is_known = !steps.empty() && place.first == steps_key;
		steps.push_back({is_known ? steps.back().key : reader.key(place.first), place.second,
						 std::move(figures)});
		steps_key = place.first;
	}
	return steps;
}

std::vector<AskedCount> read_asked(SQLite::Database &database, const TimeRange &range,
								   const std::string &application) {
	SQLite::Statement rows(database, "SELECT application, name, sum(asked), sum(monitored) FROM "
									 "asked WHERE ((time>=?1 AND time<?2) OR time=?3) AND "
									 "(?4='' OR application=?4) GROUP BY application, name");
	int64_t from = std::max<int64_t>(range.from, 0);
	rows.bind(1, floor_to(from, kMinute));
	rows.bind(2, range.to);
	/* The hour that the range begins in, if the minutes are gone. */
	rows.bind(3, floor_to(from, kHour) + kAskedHourMark);
	rows.bind(4, application);
	std::vector<AskedCount> counts;
	while (rows.executeStep()) {
		counts.push_back({rows.getColumn(0).getString(), rows.getColumn(1).getString(),
						  rows.getColumn(2).getInt64(), rows.getColumn(3).getInt64()});
	}
	return counts;
}

std::vector<Mark> read_marks(SQLite::Database &database, const TimeRange &range) {
	SQLite::Statement rows(database, "SELECT time, application, text FROM marks WHERE time>=? AND "
									 "time<? ORDER BY time DESC, rowid DESC LIMIT ?");
	rows.bind(1, range.from);
	rows.bind(2, range.to);
	rows.bind(3, static_cast<int64_t>(kMostMarks));
	std::vector<Mark> marks;
	while (rows.executeStep()) {
		marks.push_back({rows.getColumn(0).getInt64(), rows.getColumn(1).getString(),
						 rows.getColumn(2).getString()});
	}
	std::reverse(marks.begin(), marks.end());
	return marks;
}

} // namespace kaq
