/*
 * Adds up the figures of requests by the minute, in memory, until they are taken to be written. Any
 * thread.
 *
 * However many names, statements, hosts and failures there are, each application has a bounded
 * number of rows: what is too much is summed up as "(other)".
 */
#pragma once

#include <cstdint>
#include <map>
#include <mutex>
#include <string>
#include <unordered_map>
#include <vector>

#include "store/figures.h"
#include "store/name_cap.h"
#include "store/record.h"

namespace kaq {

struct FigureCaps {
	size_t applications = 200;
	size_t names = 2000; /* of each application: transactions; statements, hosts, failures and
							findings of all its transactions ten times as many */
};

/* What was added in one minute, or in one hour. */
struct FigurePeriod {
	int64_t time = 0;                                /* its begin, milliseconds */
	std::vector<std::pair<int64_t, FigureRow>> rows; /* with their keys' hashes */
};

class FigureSums {
public:
	static constexpr size_t kMostMinutes = 60;
	/* Of all minutes; some 100 MiB. Beyond them what has no row yet counts as "other". */
	static constexpr size_t kMostRows = 200000;

	explicit FigureSums(FigureCaps caps) : caps_(caps), applications_(caps.applications) {
	}

	/*
	 * Renames the record's application and transaction if they are too many, and adds it up. `now`
	 * stands for starts that cannot be.
	 */
	void add(Record &record, int64_t now);
	/* All that was added since the last call. */
	std::vector<FigurePeriod> take();
	/* What was taken and could not be written. Of more than kMostMinutes the oldest go. */
	void put_back(const std::vector<FigurePeriod> &periods);
	/* Requests that were renamed. */
	int64_t renamed() const;

private:
	struct Application {
		explicit Application(size_t names)
			: transactions(names), details(kFigureKinds, NameCap(10 * names)) {
		}
		NameCap transactions;
		std::vector<NameCap> details; /* by kind; none of applications and transactions */
	};
	using Rows = std::unordered_map<int64_t, FigureRow>;

	void rename(Summary &summary, int64_t now);
	Figures &figures_at(FigureKey key, int64_t hash, Rows &rows);
	void add_facts(const Record &record, int64_t now, Rows &rows);
	void add_row(FigureKey key, const Figures &figures, int64_t now, Rows &rows);
	bool is_full() const {
		return rows_ >= kMostRows;
	}

	const FigureCaps caps_;
	mutable std::mutex mutex_;
	NameCap applications_;
	std::unordered_map<std::string, Application> by_application_;
	std::map<int64_t, Rows> minutes_;
	size_t rows_ = 0; /* in all of them */
	int64_t renamed_ = 0;
};

} // namespace kaq
