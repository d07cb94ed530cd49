/*
 * Looks, on a thread of its own, whether another thread still does its work. Time in which the
 * whole process stood still does not count against that thread.
 */
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <mutex>
#include <thread>

namespace kaq {

struct WatchdogSettings {
	std::chrono::milliseconds period{250}; /* from look to look */
	int most_silent = 8;                   /* looks without a beat */
};

class Watchdog {
public:
	/*
	 * `beats` tells a number that grows while the watched thread works. `on_alive` is called after
	 * each look that saw it grow, `on_stall` once when it did not for too long; both on the
	 * watchdog's thread.
	 */
	Watchdog(WatchdogSettings settings, std::function<uint64_t()> beats,
			 std::function<void()> on_alive, std::function<void()> on_stall);
	~Watchdog();
	Watchdog(const Watchdog &) = delete;
	Watchdog &operator=(const Watchdog &) = delete;

private:
	void run();

	const WatchdogSettings settings_;
	const std::function<uint64_t()> beats_;
	const std::function<void()> on_alive_;
	const std::function<void()> on_stall_;
	std::mutex mutex_;
	std::condition_variable ending_;
	bool is_to_end_ = false;
	std::thread thread_;
};

} // namespace kaq
