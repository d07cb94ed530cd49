/*
 * Lowers the share of requests that are recorded while the collector cannot keep up, so that what
 * is recorded is whole rather than dropped, and raises it again when it can.
 */
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>

#include "ingest/monitor_rule.h"

namespace kaq {

class OverloadControl {
public:
	using Clock = std::chrono::steady_clock;
	enum class Change { kNone, kLowered, kRaised };

	/* Of what the rules want recorded, in millionths. Any thread. */
	uint32_t share() const {
		return share_.load(std::memory_order_relaxed);
	}
	/* How many times it was lowered. Any thread. */
	uint64_t times_lowered() const {
		return times_lowered_.load(std::memory_order_relaxed);
	}

	/*
	 * Told several times a second how full the queues are, from 0 to 1. Above a half the share is
	 * halved, and again while that lasts; after some seconds below a tenth it is doubled. Where it
	 * may not be lowered it is whole. One thread.
	 */
	Change look(double fill, bool may_lower, Clock::time_point now);

private:
	Change set(uint32_t share, Clock::time_point now);

	std::atomic<uint32_t> share_{kWholeShare};
	std::atomic<uint64_t> times_lowered_{0};
	Clock::time_point changed_{};
	Clock::time_point calm_since_{};
	bool is_calm_ = false;
};

} // namespace kaq
