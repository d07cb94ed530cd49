/* What the questions about figures have in common: a range of time, an application, a transaction.
 * No state; any thread. */
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include <nlohmann/json_fwd.hpp>

#include "query/service.h"
#include "store/filter.h"

namespace kaq {

constexpr int64_t kMinuteMs = 60 * 1000;

class FigureQuestion {
public:
	/*
	 * Reads "from", "to", "app" and "txn"; the last hour where they are left out. With "q" or
	 * "host" figures of transactions are summed over the stored requests that are meant, as no
	 * others tell that; questions about anything else do not take them. Throws ServiceMistake.
	 */
	FigureQuestion(ServiceContext &context, const Question &question);

	/* Of all applications, and of all transactions. */
	std::vector<FigureRow> all_rows(FigureKind kind) const;
	/* Those that are asked for. */
	std::vector<FigureRow> rows(FigureKind kind) const;
	/* Of those that are asked for, each key by itself. */
	std::vector<FigureStep> steps(FigureKind kind, int64_t step) const;
	/* What has the sums of all transactions that are asked for in the fewest rows. */
	FigureKind sums_kind() const;
	/* Nothing where the requests that are stored are summed up. */
	std::vector<AskedCount> asked() const;
	/* Over all keys; the application and the transaction are whole names. */
	std::vector<FigurePoint> points(FigureKind kind, const std::string &text, int64_t step) const;
	/* Whether only the requests that are stored can tell what is asked for. */
	bool is_of_stored() const {
		return filter_.has_value();
	}
	/* Whether not all requests were looked at. */
	bool is_partial() const {
		return is_partial_;
	}

	/* The stored requests that are asked for. */
	Filter stored() const;

	/* Those of them of which there is something to say, the newest. */
	Search with_verdict(size_t most) const;

	bool is_application(const std::string &application) const;
	bool is_transaction(const std::string &transaction) const;

	/*
	 * How long it was that the rows tell of. It begins with the first of them where nothing is
	 * known of the day before the range: the collector was not there yet.
	 */
	double minutes(const std::vector<FigureRow> &rows) const;

	const TimeRange &range() const {
		return range_;
	}
	/* {"from_ms":..., "to_ms":...}, as the figures have it: by the minute, and not beyond now. */
	nlohmann::json range_json() const;

private:
	std::vector<FigureStep> all_steps(FigureKind kind, int64_t step) const;

	ServiceContext &context_;
	TimeRange range_;
	std::optional<Filter> filter_; /* of stored requests */
	mutable bool is_partial_ = false;
	int64_t now_;
	std::string application_;
	std::string transaction_;
};

/* For JSON: a share or a rate without digits that mean nothing. */
double rounded(double value);

/* In milliseconds, and no more than the longest; null if nothing is known. */
nlohmann::json percentile_json(const Figures &figures, double share);

/* p50_ms, p95_ms, p99_ms, mean_ms and longest_ms; each null without a duration. */
void add_durations(nlohmann::json &target, const Figures &figures);

} // namespace kaq
