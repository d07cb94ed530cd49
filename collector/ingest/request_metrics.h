/*
 * Counts requests since the collector's start, by application, transaction and how they ended, for
 * programs that watch it. Counters never go back: a name that has a series keeps it, and what comes
 * when there are too many is counted as "(other)". Any thread.
 */
#pragma once

#include <array>
#include <cstdint>
#include <map>
#include <mutex>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "analysis/summary.h"
#include "ingest/handshake_counts.h"

namespace kaq {

/* Upper ends, in milliseconds; longer ones are in the total alone. Those that OpenTelemetry's
 * conventions want for HTTP, and one more. */
constexpr std::array<int64_t, 15> kDurationBuckets = {5,   10,   25,   50,   75,   100,   250,  500,
													  750, 1000, 2500, 5000, 7500, 10000, 30000};

/* What requests of one series have in common. */
struct RequestKey {
	std::string application;
	bool is_web = false;
	std::string transaction;
	std::string method; /* "_OTHER" for an unknown one */
	int64_t status = 0;
	bool is_failed = false;
};

bool operator<(const RequestKey &one, const RequestKey &other);

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
		size_t series = 5000; /* beyond, methods and statuses are told apart no more */
	};
	using Name = std::pair<std::string, std::string>; /* application, transaction */

	RequestMetrics() : RequestMetrics(Limits()) {
	}
	explicit RequestMetrics(Limits limits);

	/* One that was recorded. */
	void add(const Summary &summary);
	/* Those that asked whether to be recorded. */
	void add(const std::vector<HandshakeCount> &counts);

	std::map<Name, RequestSeries> requests() const;
	std::map<RequestKey, RequestSeries> series() const;
	/* When it began to count; milliseconds since the Unix epoch. */
	int64_t since() const {
		return since_;
	}
	/* By application. */
	std::map<std::string, AskedSeries> asked() const;

private:
	RequestSeries &series_of(RequestKey key);

	const Limits limits_;
	const int64_t since_;
	mutable std::mutex mutex_;
	std::set<Name> names_;
	std::map<RequestKey, RequestSeries> series_;
	std::map<std::string, AskedSeries> asked_;
};

} // namespace kaq
