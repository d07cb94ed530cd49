/* Does something again and again, on a thread of its own, until it is destroyed. */
#pragma once

#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <string>
#include <thread>

namespace kaq {

class Periodic {
public:
	/* The first time at once. `name` has at most 15 characters. The function throws nothing; the
	 * destructor waits for it. */
	Periodic(std::string name, std::chrono::milliseconds period, std::function<void()> function);
	~Periodic();
	Periodic(const Periodic &) = delete;
	Periodic &operator=(const Periodic &) = delete;

private:
	void run();

	const std::string name_;
	const std::chrono::milliseconds period_;
	const std::function<void()> function_;
	std::mutex mutex_;
	std::condition_variable ending_;
	bool is_to_end_ = false;
	std::thread thread_;
};

} // namespace kaq
