/*
 * Counts requests since the collector's start, by application and transaction, for programs that
 * watch it. Counters never go back: a name that has a series keeps it, and what comes when there
 * are too many is counted as "(other)". Any thread.
 */
#pragma once

#include <array>
#include <cstdint>
#include <map>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "analysis/summary.h"
#include "ingest/handshake_counts.h"

namespace kaq {

/* Upper ends, in milliseconds; longer ones are in the total alone. */
constexpr std::array<int64_t, 12> kDurationBuckets = {5,   10,   25,   50,   100,   250,
													  500, 1000, 2500, 5000, 10000, 30000};

struct RequestSeries {
	uint64_t requests = 0;
	uint64_t failed = 0;
	uint64_t milliseconds = 0;
	std::array<uint64_t, kDurationBuckets.size()> buckets{}; /* each without those before it */
};

struct AskedSeries {
	uint64_t asked = 0;
	uint64_t monitored = 0;
	uint64_t shed = 0;
};

class RequestMetrics {
public:
	struct Limits {
		size_t transactions = 500; /* of all applications */
		size_t applications = 100;
	};
	using Name = std::pair<std::string, std::string>; /* application, transaction */

	RequestMetrics() : RequestMetrics(Limits()) {
	}
	explicit RequestMetrics(Limits limits) : limits_(limits) {
	}

	/* One that was recorded. */
	void add(const Summary &summary);
	/* Those that asked whether to be recorded. */
	void add(const std::vector<HandshakeCount> &counts);

	std::map<Name, RequestSeries> requests() const;
	/* By application. */
	std::map<std::string, AskedSeries> asked() const;

private:
	const Limits limits_;
	mutable std::mutex mutex_;
	std::map<Name, RequestSeries> requests_;
	std::map<std::string, AskedSeries> asked_;
};

} // namespace kaq
