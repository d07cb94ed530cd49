/*
 * Hands values from threads to threads, no more than a fixed number at a time. Whoever puts never
 * waits: a full queue refuses.
 */
#pragma once

#include <condition_variable>
#include <cstddef>
#include <deque>
#include <mutex>
#include <optional>
#include <utility>

namespace kaq {

template <typename T> class BoundedQueue {
public:
	explicit BoundedQueue(size_t most) : most_(most) {
	}

	/* False, and the value untouched, if the queue is full or closed. */
	bool try_put(T &&value) {
		{
			std::lock_guard lock(mutex_);
			if (closed_ || values_.size() >= most_) {
				return false;
			}
			values_.push_back(std::move(value));
		}
		ready_.notify_one();
		return true;
	}

	/* Waits for a value; nothing when the queue is closed and empty. */
	std::optional<T> take() {
		std::unique_lock lock(mutex_);
		ready_.wait(lock, [this] { return closed_ || !values_.empty(); });
		if (values_.empty()) {
			return std::nullopt;
		}
		std::optional<T> value(std::move(values_.front()));
		values_.pop_front();
		return value;
	}

	/* How full it is, from 0 to 1. */
	double fill() const {
		std::lock_guard lock(mutex_);
		return static_cast<double>(values_.size()) / static_cast<double>(most_);
	}

	/* Nothing more can be put; what is there can still be taken. */
	void close() {
		{
			std::lock_guard lock(mutex_);
			closed_ = true;
		}
		ready_.notify_all();
	}

private:
	const size_t most_;
	mutable std::mutex mutex_;
	std::condition_variable ready_;
	std::deque<T> values_;
	bool closed_ = false;
};

} // namespace kaq
