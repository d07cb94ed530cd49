#include "query/top.h"

#include <algorithm>
#include <cmath>
#include <map>

namespace kaq {
namespace {

/* What the handshakes told of one path, and the rows it was recorded under. */
struct Path {
	int64_t asked = 0;
	int64_t monitored = 0;
	int64_t recorded = 0;
	std::vector<size_t> rows;

	void add(const AskedCount &count) {
		asked += count.asked;
		monitored += count.monitored;
	}
	/* REQUIRES: some were asked for. */
	double monitored_share() const {
		return std::min(1.0, static_cast<double>(monitored) / static_cast<double>(asked));
	}
};

using PathKey = std::pair<std::string, std::string>; /* application, path */

/* A handshake does not know the query, which the name of a transaction may have. */
std::string path_of(const std::string &transaction) {
	return transaction.substr(0, transaction.find('?'));
}

void share_out(const Path &path, bool is_exact, std::vector<TopRow> &rows) {
	if (path.asked == 0) {
		return;
	}
	double each =
		static_cast<double>(path.asked) / static_cast<double>(std::max<int64_t>(path.recorded, 1));
	for (size_t i : path.rows) {
		TopRow &row = rows[i];
		auto estimate = std::llround(each * static_cast<double>(row.figures.count));
		/* A request is recorded at its end and was counted at its begin, which may be in another
		 * range. */
		row.requests = std::max<int64_t>(path.rows.size() == 1 && is_exact ? path.asked : estimate,
										 row.figures.count);
		row.is_exact = is_exact && path.rows.size() == 1;
		row.monitored_share = path.monitored_share();
	}
}

/* Those that were not recorded took as long as the others. */
double time_of(const TopRow &row) {
	const Figures &figures = row.figures;
	return figures.count == 0
			   ? 0
			   : static_cast<double>(figures.total) * static_cast<double>(row.requests) /
					 static_cast<double>(figures.count);
}

TopRow unrecorded(const PathKey &key, const Path &path) {
	TopRow row;
	row.application = key.first;
	row.transaction = key.second;
	row.requests = path.asked;
	row.is_exact = true;
	row.monitored_share = path.monitored_share();
	return row;
}

} // namespace

std::vector<TopRow> top_rows(std::vector<FigureRow> figures, const std::vector<AskedCount> &asked) {
	std::map<PathKey, Path> paths;
	for (const AskedCount &count : asked) {
		paths[{count.application, count.name}].add(count);
	}
	/* Of each application what has no path among those asked for. */
	std::map<std::string, Path> others;
	std::vector<TopRow> rows;
	for (FigureRow &row : figures) {
		auto found = paths.find({row.key.application, path_of(row.key.transaction)});
		Path &path = found == paths.end() ? others[row.key.application] : found->second;
		path.rows.push_back(rows.size());
		path.recorded += row.figures.count;
		TopRow top;
		top.application = std::move(row.key.application);
		top.transaction = std::move(row.key.transaction);
		top.requests = row.figures.count;
		top.figures = std::move(row.figures);
		rows.push_back(std::move(top));
	}
	for (auto &[key, path] : paths) {
		auto other = others.find(key.first);
		if (!path.rows.empty()) {
			share_out(path, true, rows);
		} else if (path.monitored > 0 && other != others.end()) {
			other->second.asked += path.asked;
			other->second.monitored += path.monitored;
		} else if (path.asked > 0) {
			rows.push_back(unrecorded(key, path));
		}
	}
	for (const auto &[application, path] : others) {
		share_out(path, false, rows);
	}
	for (TopRow &row : rows) {
		row.time = time_of(row);
	}
	return rows;
}

TopRow sum_of(const std::vector<TopRow> &rows) {
	TopRow sum;
	sum.is_exact = true;
	double monitored = 0;
	int64_t told = 0;
	for (const TopRow &row : rows) {
		sum.requests += row.requests;
		sum.time += row.time;
		sum.is_exact = sum.is_exact && row.is_exact;
		if (row.monitored_share) {
			monitored += *row.monitored_share * static_cast<double>(row.requests);
			told += row.requests;
		}
		if (row.figures.count > 0) {
			sum.figures.add(row.figures);
		}
	}
	if (told > 0) {
		sum.monitored_share = monitored / static_cast<double>(told);
	}
	return sum;
}

double apdex_of(const Histogram &durations, int64_t threshold) {
	auto satisfied = static_cast<double>(durations.count_to(threshold));
	auto patient = static_cast<double>(durations.count_to(4 * threshold));
	return (satisfied + (patient - satisfied) / 2) / static_cast<double>(durations.count());
}

} // namespace kaq
