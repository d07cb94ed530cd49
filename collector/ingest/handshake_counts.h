/*
 * How often each transaction was asked for and recorded, counted where every request is known: at
 * its handshake. The handshake thread counts and never waits; another thread takes the counts away.
 * The number of names is bounded: what comes after that is "other".
 */
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "ingest/monitor_rule.h"

namespace kaq {

/* Since the counts were taken last. */
struct HandshakeCount {
	std::string application;
	std::string name;
	std::string instance;
	uint64_t asked = 0;
	uint64_t monitored = 0;
	uint64_t shed = 0; /* not recorded for the collector's load alone */
};

/*
 * Counts a share out of a number of events, evenly: of a share of 1/10 it is every tenth, exactly.
 */
class ShareCounter {
public:
	explicit ShareCounter(uint32_t begin = 0) : owed_(begin) {
	}

	/* Whether this event belongs to the share. REQUIRES: share <= kWholeShare. */
	bool next(uint32_t share) {
		owed_ += share;
		bool is_due = owed_ >= kWholeShare;
		owed_ -= is_due ? kWholeShare : 0;
		return is_due;
	}
	uint32_t owed() const {
		return owed_;
	}

private:
	uint32_t owed_; /* below kWholeShare */
};

/* What is known of a name between its requests. */
struct HandshakeTally {
	ShareCounter wanted; /* by the rules */
	ShareCounter kept;   /* of these under load */
	uint64_t batch = 0;  /* in which it has a place; none is 0 */
	size_t place = 0;
};

class HandshakeCounter {
public:
	using Clock = std::chrono::steady_clock;

	HandshakeCounter();
	~HandshakeCounter();
	HandshakeCounter(const HandshakeCounter &) = delete;
	HandshakeCounter &operator=(const HandshakeCounter &) = delete;

	/* Counts a request. `begin` is where a name that is new begins to count out its share, and is
	 * moved on for the next one. The handshake thread alone. */
	bool is_monitored(const HandshakeCount &request, size_t most_names, uint32_t share,
					  uint32_t load_share, ShareCounter &begin);
	/* Lets take() have what was counted; names that nobody asks for are forgotten in time. The
	 * handshake thread alone. */
	void publish(Clock::time_point now);

	/* What was published since the last call. Any one thread at a time. */
	std::vector<HandshakeCount> take();
	/* Also what was not published. REQUIRES: the handshake thread has ended. */
	std::vector<HandshakeCount> take_rest();

private:
	struct Application {
		std::unordered_set<std::string> names;
		std::unordered_set<std::string> instances;
		std::unordered_map<std::string, HandshakeTally> tallies;
	};
	struct Table {
		std::unordered_map<std::string, Application> applications;
		size_t tallies = 0;
	};
	struct Batch;

	HandshakeTally &tally_of(HandshakeCount &request, size_t most_names, uint32_t share,
							 ShareCounter &begin);
	const HandshakeTally *earlier_tally(const std::string &application,
										const std::string &key) const;
	HandshakeCount &count_of(HandshakeTally &tally, const HandshakeCount &request);

	Table current_;
	Table earlier_; /* of the hour before */
	Clock::time_point turned_ = Clock::now();
	std::unique_ptr<Batch> batch_;
	uint64_t batch_number_ = 1;
	std::atomic<Batch *> published_{nullptr};
};

} // namespace kaq
