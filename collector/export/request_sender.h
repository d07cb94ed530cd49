/*
 * Sends stored requests to one place, as OTLP, in the order in which they arrived. One thread, but
 * for what is said to be for any.
 */
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <random>
#include <string>
#include <vector>

#include "export/destination_settings.h"
#include "model/payload_reader.h"
#include "store/store.h"

namespace kaq {

class RequestSender {
public:
	/* All up to there is done with; `is_sent` if it was sent, not only looked at. */
	using OnMove = std::function<void(const StorePlace &place, bool is_sent)>;

	/* Traces or logs, from that place on. The store and the settings outlive it. */
	RequestSender(Store &store, const DestinationSettings &settings, OtlpSignal signal,
				  const StorePlace &begin, OnMove on_move);
	RequestSender(const RequestSender &) = delete;
	RequestSender &operator=(const RequestSender &) = delete;

	/* Sends what is there; false if there is nothing more, it is to end, or the patience has ended.
	 * Throws StoreError. */
	bool look();
	/* False if it is to end. */
	bool wait(std::chrono::milliseconds time);

	/* Breaks off what is under way. Any thread. */
	void end();
	/* Any thread. */
	DestinationStatus status();

private:
	/* A request until all of it is sent. */
	struct Request {
		Request(Transaction &&one, OtlpSignal signal, const OtlpTraceSettings &settings)
			: transaction(std::move(one)), writer(make_otlp_writer(signal, transaction, settings)) {
		}
		const Transaction transaction;
		const std::unique_ptr<const OtlpWriter> writer;
		StorePlace place;
		int64_t end = 0;
	};
	struct Part {
		std::shared_ptr<const Request> request;
		OtlpPart part;

		bool is_last() const {
			return part.to == request->writer->items();
		}
	};
	/* That are sent together. */
	using Batch = std::vector<Part>;
	using Clock = std::chrono::steady_clock;

	bool wants(const RequestRow &row) const;
	/* None if it cannot be read, or has nothing of that signal. */
	std::shared_ptr<Request> read(Arrivals::Request &&arrival);
	/* Adds the request's parts; what is full is delivered. False if it is to end. */
	bool add(const std::shared_ptr<const Request> &request, Batch &batch);
	/* Until all of it is taken or given up; false if it is to end. */
	bool deliver(Batch &batch);
	void note(const OtlpAnswer &answer, int64_t items);
	/* In two; in none where it is a single item. */
	static std::vector<Batch> split(const Batch &batch);
	bool wait_to_try_again(const OtlpAnswer &answer);
	bool keep_rate(int64_t items);
	void move_to(const StorePlace &place, bool is_sent);

	Store &store_;
	const DestinationSettings &settings_;
	const OtlpSignal signal_;
	const OnMove on_move_;
	OtlpSender sender_;

	/* Of the thread. */
	PayloadReader reader_;
	std::minstd_rand random_;
	int failures_ = 0; /* in a row */
	Clock::time_point first_failure_{};
	Clock::time_point next_batch_{};

	std::mutex mutex_; /* of the following */
	std::condition_variable changed_;
	StorePlace place_;
	DestinationStatus status_;
	int64_t waiting_since_ = 0; /* end of the first request that was read and is not sent */
	bool is_to_end_ = false;
};

} // namespace kaq
