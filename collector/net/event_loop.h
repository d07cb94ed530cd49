/*
 * Readiness of descriptors on one thread. Everything but stop() is called on the thread that runs
 * the loop, or before it runs. Level-triggered.
 */
#pragma once

#include <sys/epoll.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <unordered_map>

#include "util/unique_fd.h"

namespace kaq {

class ReadyHandler {
public:
	virtual ~ReadyHandler() = default;
	virtual void on_ready(int fd, uint32_t events) = 0;
};

class EventLoop : private ReadyHandler {
public:
	/* Throws std::system_error if the kernel has no descriptors left. */
	EventLoop();

	/* Calls the handler whenever one of the events (EPOLLIN, EPOLLOUT) is there, until forget(). */
	void watch(int fd, uint32_t events, ReadyHandler *handler);
	void change(int fd, uint32_t events);
	/* To be called before the descriptor is closed; also from within its own callback. */
	void forget(int fd);

	/* Called about that often, and soon after each wake(). */
	void every(std::chrono::milliseconds period, std::function<void()> tick);

	/* Returns after stop(). */
	void run();
	/* Any thread. */
	void stop();
	/* Has the tick called before long. Any thread. */
	void wake();

private:
	void on_ready(int fd, uint32_t events) override;
	void wait(int milliseconds);

	UniqueFd epoll_;
	UniqueFd wake_;
	std::atomic<bool> stopped_{false};
	bool is_woken_ = false;
	std::unordered_map<int, ReadyHandler *> watched_;
	std::chrono::milliseconds period_{1000};
	std::function<void()> tick_;
};

} // namespace kaq
