/*
 * A place that stored requests are sent to, as one of the signals of OTLP, in the order in which
 * they arrived. How far that has come is kept in a file of its own, so that nothing is sent twice
 * after a restart but the batch whose answer was not seen, and nothing is left out but what the
 * store has given up meanwhile. A thread of its own, in the background; any thread may call
 * anything.
 */
#pragma once

#include <chrono>
#include <string>
#include <thread>

#include "export/exporter.h"
#include "export/request_sender.h"

namespace kaq {

class Destination : public Exporter {
public:
	/* Begins where it has ended; a new one with what arrives from now on. The store outlives it. */
	Destination(Store &store, DestinationSettings settings, OtlpSignal signal,
				const std::string &directory);
	/* Breaks off what is under way. */
	~Destination() override;
	Destination(const Destination &) = delete;
	Destination &operator=(const Destination &) = delete;

	DestinationStatus status() override {
		return sender_.status();
	}

private:
	using Clock = std::chrono::steady_clock;

	void run();
	StorePlace first_place();
	void keep();

	Store &store_;
	const DestinationSettings settings_;
	const std::string file_;
	/* Of the thread. */
	StorePlace place_;
	Clock::time_point kept_at_{};

	RequestSender sender_;
	std::thread thread_;
};

} // namespace kaq
