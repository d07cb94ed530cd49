/*
 * Measures what a handshake costs a PHP request, by making one every few seconds, on a thread of
 * its own.
 */
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <mutex>
#include <optional>
#include <string>
#include <thread>

namespace kaq {

/* From connecting to the end of the answer; nothing without an answer, or after a second, which is
 * as long as the extension waits. REQUIRES: an IP address. */
std::optional<std::chrono::microseconds> measure_handshake(const std::string &address,
														   uint16_t port);

/* Of the last measurements; zero if there is none. */
struct HandshakeLatency {
	std::chrono::microseconds p50{0};
	std::chrono::microseconds p99{0};
	uint64_t measured = 0; /* since the start */
	uint64_t failed = 0;   /* of these */
};

class HandshakeProbe {
public:
	HandshakeProbe(std::string address, uint16_t port, std::chrono::milliseconds period);
	~HandshakeProbe();
	HandshakeProbe(const HandshakeProbe &) = delete;
	HandshakeProbe &operator=(const HandshakeProbe &) = delete;

	/* Any thread. */
	HandshakeLatency latency() const;

private:
	void run();
	void note(std::optional<std::chrono::microseconds> time);

	const std::string address_;
	const uint16_t port_;
	const std::chrono::milliseconds period_;
	mutable std::mutex mutex_;
	std::condition_variable ending_;
	bool is_to_end_ = false;
	std::deque<std::chrono::microseconds> times_;
	uint64_t measured_ = 0;
	uint64_t failed_ = 0;
	std::thread thread_;
};

} // namespace kaq
