#include "util/watchdog.h"

#include <pthread.h>

namespace kaq {

Watchdog::Watchdog(WatchdogSettings settings, std::function<uint64_t()> beats,
				   std::function<void()> on_alive, std::function<void()> on_stall)
	: settings_(settings), beats_(std::move(beats)), on_alive_(std::move(on_alive)),
	  on_stall_(std::move(on_stall)), thread_([this] { run(); }) {
}

Watchdog::~Watchdog() {
	{
		std::lock_guard lock(mutex_);
		is_to_end_ = true;
	}
	ending_.notify_all();
	thread_.join();
}

void Watchdog::run() {
	pthread_setname_np(pthread_self(), "kaq-watchdog");
	uint64_t last = beats_();
	int silent = 0;
	std::unique_lock lock(mutex_);
	while (!ending_.wait_for(lock, settings_.period, [this] { return is_to_end_; })) {
		uint64_t now = beats_();
		silent = now == last ? silent + 1 : 0;
		if (silent == 0) {
			on_alive_();
		} else if (silent == settings_.most_silent) {
			on_stall_();
		}
		last = now;
	}
}

} // namespace kaq
