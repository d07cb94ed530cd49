/*
 * A place that stored requests are sent to, as OTLP, in the order in which they arrived. How far
 * that has come is kept in a file of its own, so that nothing is sent twice after a restart but
 * the batch whose answer was not seen, and nothing is left out but what the store has given up
 * meanwhile. A thread of its own, in the background; any thread may call anything.
 */
#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "export/otlp_sender.h"
#include "export/otlp_traces.h"
#include "model/payload_reader.h"
#include "store/store.h"

namespace kaq {

struct DestinationSettings {
	std::string name; /* letters, digits, '-' and '_' */
	OtlpEndpoint endpoint;
	OtlpTraceSettings traces;

	/* Which requests; all of it has to hold. */
	std::string application = "*"; /* globs */
	std::string transaction = "*";
	std::chrono::milliseconds slower{0}; /* that took at least that long */
	bool is_failed = false;              /* only those that failed */
	double share = 1;                    /* of the traces */

	size_t batch_spans = 5000;
	size_t batch_bytes = 4 * 1024 * 1024;
	int64_t spans_per_second = 50000;
	std::chrono::milliseconds poll_time{1000}; /* how soon new requests are looked for */
	std::chrono::milliseconds first_pause{1000};
	std::chrono::milliseconds longest_pause{60000};
};

bool operator==(const DestinationSettings &one, const DestinationSettings &other);

struct DestinationStatus {
	std::string name;
	std::string url; /* without what lets one post there */
	/* Since the start. */
	uint64_t requests = 0; /* that were sent, and taken or refused */
	uint64_t spans = 0;    /* that were taken */
	uint64_t rejected = 0; /* that it took the rest without */
	uint64_t refused = 0;  /* that it did not want */
	uint64_t batches = 0;  /* that were taken */
	uint64_t retries = 0;
	uint64_t gaps = 0;       /* how often what was to be sent had been removed from the store */
	uint64_t unreadable = 0; /* requests */
	int64_t waiting = 0;     /* requests in the store that were not looked at yet */
	int64_t lag = 0;         /* milliseconds since the end of the first request that waits */
	int64_t last_taken = 0;  /* time of the last answer that took something; 0: none yet */
	int64_t next_try = 0;    /* where it waits for one */
	std::string trouble;     /* why the last batch was not taken, in words; empty: it was */
};

class Destination {
public:
	/* Begins where it has ended; a new one with what arrives from now on. The store outlives it. */
	Destination(Store &store, DestinationSettings settings, const std::string &directory);
	/* Breaks off what is under way. */
	~Destination();
	Destination(const Destination &) = delete;
	Destination &operator=(const Destination &) = delete;

	const DestinationSettings &settings() const {
		return settings_;
	}
	DestinationStatus status();

private:
	/* A request until all of it is sent. */
	struct Request {
		Request(Transaction &&one, const OtlpTraceSettings &settings)
			: transaction(std::move(one)), writer(transaction, settings) {
		}
		const Transaction transaction;
		const OtlpTraceWriter writer;
		StorePlace place;
		int64_t end = 0;
	};
	struct Part {
		std::shared_ptr<const Request> request;
		OtlpPart part;

		bool is_last() const {
			return part.to == request->writer.spans();
		}
	};
	/* That are sent together. */
	using Batch = std::vector<Part>;
	using Clock = std::chrono::steady_clock;

	void run();
	/* Sends what is there; false if there is nothing more, or it is to end. */
	bool look();
	bool wants(const RequestRow &row) const;
	std::shared_ptr<Request> read(Arrivals::Request &&arrival);
	/* Adds the request's parts; what is full is delivered. False if it is to end. */
	bool add(const std::shared_ptr<const Request> &request, Batch &batch);
	/* Until all of it is taken or given up; false if it is to end. */
	bool deliver(Batch &batch);
	void note(const OtlpAnswer &answer, int64_t spans);
	/* In two; in none where it is a single span. */
	std::vector<Batch> split(const Batch &batch) const;
	/* False if it is to end. */
	bool wait(std::chrono::milliseconds time);
	bool wait_to_try_again(const OtlpAnswer &answer);
	bool keep_rate(int64_t spans);
	void move_to(const StorePlace &place, bool is_kept);
	StorePlace first_place();
	void keep(const StorePlace &place);

	Store &store_;
	const DestinationSettings settings_;
	const std::string file_;
	OtlpSender sender_;

	/* Of the thread. */
	PayloadReader reader_;
	std::minstd_rand random_;
	int failures_ = 0; /* in a row */
	Clock::time_point next_batch_{};
	Clock::time_point kept_at_{};

	std::mutex mutex_; /* of the following */
	std::condition_variable changed_;
	StorePlace place_;
	DestinationStatus status_;
	int64_t waiting_since_ = 0; /* end of the first request that was read and is not sent */
	bool is_to_end_ = false;

	std::thread thread_;
};

/* A web address without the user's part, and without what is behind the path. */
std::string without_credentials(const std::string &url);

} // namespace kaq
