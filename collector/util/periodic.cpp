#include "util/periodic.h"

#include <pthread.h>

namespace kaq {

Periodic::Periodic(std::string name, std::chrono::milliseconds period,
				   std::function<void()> function)
	: name_(std::move(name)), period_(period), function_(std::move(function)),
	  thread_([this] { run(); }) {
}

Periodic::~Periodic() {
	{
		std::lock_guard lock(mutex_);
		is_to_end_ = true;
	}
	ending_.notify_all();
	thread_.join();
}

void Periodic::run() {
	pthread_setname_np(pthread_self(), name_.c_str());
	std::unique_lock lock(mutex_);
	while (!is_to_end_) {
		lock.unlock();
		function_();
		lock.lock();
		ending_.wait_for(lock, period_, [this] { return is_to_end_; });
	}
}

} // namespace kaq
