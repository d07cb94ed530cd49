#include <sqlite3.h>

#include <algorithm>
#include <chrono>
#include <functional>
#include <map>
#include <set>
#include <unordered_set>

#include "store/request_reading.h"
#include "store/schema.h"
#include "store/sqlite_store.h"

namespace kaq {
namespace {

constexpr size_t kShortestBegin = 4;
/* For sums over requests. */
constexpr std::chrono::seconds kSumTime{5};

/* A file that several requests are read from. */
struct OpenFile {
	explicit OpenFile(DatabasePool::Lease one) : lease(std::move(one)), reader(*lease) {
	}
	DatabasePool::Lease lease;
	RequestReader reader;
};

bool is_identifier(const std::string &text) {
	return text.size() >= kShortestBegin && std::all_of(text.begin(), text.end(), [](char c) {
			   return isalnum(static_cast<unsigned char>(c)) || c == '-';
		   });
}

} // namespace

void SqliteStore::visit_files(const std::function<bool(SQLite::Database &, const File &)> &visit) {
	for (const File &file : files_.files()) {
		if (!visit_file(file, visit)) {
			return;
		}
	}
}

bool SqliteStore::visit_file(const File &file,
							 const std::function<bool(SQLite::Database &, const File &)> &visit) {
	try {
		DatabasePool::Lease lease = pool_.lease(file.path);
		try {
			return visit(*lease, file);
		} catch (const SQLite::Exception &) {
			lease.discard();
			throw;
		}
	} catch (const SQLite::Exception &error) {
		/* It may have been thrown away, or not been made yet: then nothing is lost. */
		if (is_damage(error)) {
			files_.put_aside(file, error.what());
		}
	}
	return true;
}

template <typename Read> auto SqliteStore::read_figure_file(Read read) {
	using Result = decltype(read(std::declval<SQLite::Database &>()));
	try {
		if (bytes_of_database(figure_path()) == 0) {
			return Result{};
		}
		DatabasePool::Lease lease = pool_.lease(figure_path());
		try {
			return read(*lease);
		} catch (const SQLite::Exception &) {
			lease.discard();
			throw;
		}
	} catch (const SQLite::Exception &error) {
		if (error.getErrorCode() == SQLITE_EMPTY) {
			return Result{};
		}
		throw StoreError(std::string("figures cannot be read: ") + error.what());
	}
}

RequestRow SqliteStore::complete(RequestRow row) {
	std::lock_guard lock(mutex_);
	row.is_pinned = pinned_.count(row.summary.id) > 0;
	return row;
}

Found SqliteStore::search(const Search &search) {
	Found found;
	Deadline deadline =
		std::chrono::steady_clock::now() + std::chrono::milliseconds(search.time_limit);
	std::vector<Candidate> best;
	Search wider = search;
	wider.limit = search.limit + 1;
	visit_files([&](SQLite::Database &database, const File &file) {
		TimeRange range = range_of_file(database);
		if (range.to <= search.filter.range.from || range.from >= search.filter.range.to) {
			return true;
		}
		if (search.order == Search::Order::kNewest && best.size() >= wider.limit &&
			range.to <= best[wider.limit - 1].rank) {
			return true;
		}
		FileMatches matches = search_file(database, wider, deadline);
		found.looked_at += matches.looked_at;
		found.is_partial = found.is_partial || matches.is_partial;
		for (const FileMatches::Match &match : matches.matches) {
			best.push_back({match.rank, match.row, file.path});
		}
		std::stable_sort(
			best.begin(), best.end(),
			[](const Candidate &one, const Candidate &other) { return one.rank > other.rank; });
		best.resize(std::min(best.size(), 2 * wider.limit));
		return !found.is_partial;
	});
	read_candidates(best, search.limit, found);
	found.damages = files_.damages(search.filter.range);
	return found;
}

/* One that is pinned may come twice. */
void SqliteStore::read_candidates(const std::vector<Candidate> &best, size_t limit, Found &found) {
	std::map<std::string, OpenFile> open;
	std::set<std::string> seen;
	for (const Candidate &candidate : best) {
		try {
			auto place = open.find(candidate.path);
			if (place == open.end()) {
				place = open.try_emplace(candidate.path, pool_.lease(candidate.path)).first;
			}
			std::optional<RequestRow> row = place->second.reader.read(candidate.row);
			if (!row || !seen.insert(row->summary.id).second) {
				continue;
			}
			if (found.rows.size() == limit) {
				found.has_more = true;
				return;
			}
			found.rows.push_back(complete(std::move(*row)));
		} catch (const SQLite::Exception &) {
			continue; /* thrown away meanwhile */
		}
	}
}

std::optional<RequestRow> SqliteStore::request(const std::string &id) {
	std::optional<RequestRow> found;
	if (is_identifier(id)) {
		visit_files([&](SQLite::Database &database, const File &) {
			if (std::optional<int64_t> row = find_request(database, id)) {
				found = RequestReader(database).read(*row);
			}
			return !found;
		});
	}
	return found ? std::optional(complete(std::move(*found))) : std::nullopt;
}

std::optional<std::string> SqliteStore::trace_id(const std::string &begin) {
	std::optional<std::string> found;
	if (is_identifier(begin)) {
		visit_files([&](SQLite::Database &database, const File &) {
			found = find_trace(database, begin);
			return !found;
		});
	}
	return found;
}

std::vector<RequestRow> SqliteStore::trace(const std::string &trace_id) {
	std::vector<RequestRow> rows;
	std::set<std::string> seen;
	visit_files([&](SQLite::Database &database, const File &) {
		RequestReader reader(database);
		for (int64_t row : rows_of_trace(database, trace_id)) {
			std::optional<RequestRow> request = reader.read(row);
			if (request && seen.insert(request->summary.id).second) {
				rows.push_back(complete(std::move(*request)));
			}
		}
		return true;
	});
	std::stable_sort(rows.begin(), rows.end(), [](const RequestRow &one, const RequestRow &other) {
		return one.summary.start < other.summary.start;
	});
	return rows;
}

std::optional<std::string> SqliteStore::document(const std::string &id) {
	std::optional<std::string> document;
	visit_files([&](SQLite::Database &database, const File &) {
		if (std::optional<int64_t> row = find_request(database, id)) {
			document = read_document(database, *row);
		}
		return !document;
	});
	return document;
}

std::vector<FigureRow> SqliteStore::figures(const FigureSearch &search) {
	return read_figure_file(
		[&search](SQLite::Database &database) { return read_figures(database, search); });
}

std::vector<FigurePoint> SqliteStore::curve(const FigureSearch &search, int64_t step) {
	return read_figure_file(
		[&search, step](SQLite::Database &database) { return read_curve(database, search, step); });
}

std::vector<FigureStep> SqliteStore::figure_steps(const FigureSearch &search, int64_t step) {
	return read_figure_file([&search, step](SQLite::Database &database) {
		return read_figure_steps(database, search, step);
	});
}

RequestSums SqliteStore::request_sums(const Filter &filter, int64_t step) {
	RequestSummer summer(filter, step, std::chrono::steady_clock::now() + kSumTime);
	std::unordered_set<std::string> pinned;
	{
		std::lock_guard lock(mutex_);
		pinned = pinned_;
	}
	/* One that is pinned may come twice. */
	auto is_new = [&pinned,
				   seen = std::unordered_set<std::string>()](const std::string &id) mutable {
		return pinned.count(id) == 0 || seen.insert(id).second;
	};
	RequestSums sums;
	visit_files([&](SQLite::Database &database, const File &) {
		TimeRange range = range_of_file(database);
		bool is_outside = range.to <= filter.range.from || range.from >= filter.range.to;
		sums.is_partial = !is_outside && !summer.add(database, std::ref(is_new));
		return !sums.is_partial;
	});
	sums.steps = summer.take();
	return sums;
}

std::vector<AskedHost> SqliteStore::hosts(const TimeRange &range) {
	HostSums sums;
	visit_files([&](SQLite::Database &database, const File &file) {
		TimeRange all = range_of_file(database);
		if (!file.is_pinned && all.to > range.from && all.from < range.to) {
			add_hosts(database, range, sums);
		}
		return true;
	});
	std::vector<AskedHost> hosts;
	hosts.reserve(sums.size());
	for (auto &[key, requests] : sums) {
		hosts.push_back({key.first, key.second, requests});
	}
	return hosts;
}

std::vector<AskedCount> SqliteStore::asked(const TimeRange &range, const std::string &application) {
	return read_figure_file(
		[&](SQLite::Database &database) { return read_asked(database, range, application); });
}

std::vector<Mark> SqliteStore::marks(const TimeRange &range) {
	return read_figure_file(
		[&range](SQLite::Database &database) { return read_marks(database, range); });
}

/* What another process may write to is counted each time. */
std::optional<RowCounts> SqliteStore::counts_of(const File &file) {
	auto count = [this, &file] {
		std::optional<RowCounts> counts;
		visit_file(file, [&counts](SQLite::Database &database, const File &) {
			counts = count_file(database);
			return true;
		});
		return counts;
	};
	return settings_.is_read_only ? count() : counts_.of(file.path, count);
}

StoreStatus SqliteStore::status() {
	StoreStatus status;
	std::vector<std::string> paths;
	for (const File &file : files_.files()) {
		std::optional<RowCounts> counts = counts_of(file);
		if (!counts) {
			continue;
		}
		int64_t bytes = bytes_of_database(file.path);
		status.parts.push_back({file.begun, bytes, counts->requests, counts->documents});
		status.bytes += bytes;
		paths.push_back(file.path);
	}
	std::reverse(status.parts.begin(), status.parts.end());
	counts_.keep_only(paths);
	status.figure_bytes = bytes_of_database(figure_path());
	{
		std::lock_guard lock(mutex_);
		status.most_bytes = settings_.most_bytes;
		status.most_figure_bytes = settings_.figures.most_bytes;
	}
	status.requests_put = put_;
	status.documents_kept = kept_;
	status.documents_left_out = left_out_;
	status.requests_lost = lost_;
	status.other_names = sums_.renamed();
	status.is_writing = is_writing_;
	status.damages = files_.damages();
	return status;
}

} // namespace kaq
