/* A number of bytes that several threads share out among themselves. Any thread. */
#pragma once

#include <atomic>
#include <cstddef>

namespace kaq {

class MemoryBudget {
public:
	explicit MemoryBudget(size_t bytes) : whole_(bytes), left_(bytes) {
	}

	/* False, and nothing taken, if less is left. */
	bool take(size_t bytes) {
		size_t left = left_.load(std::memory_order_relaxed);
		do {
			if (left < bytes) {
				return false;
			}
		} while (!left_.compare_exchange_weak(left, left - bytes, std::memory_order_relaxed));
		return true;
	}

	void give_back(size_t bytes) {
		left_.fetch_add(bytes, std::memory_order_relaxed);
	}

	size_t left() const {
		return left_.load(std::memory_order_relaxed);
	}

	/* How much of it is taken, from 0 to 1. */
	double fill() const {
		return 1 - static_cast<double>(left()) / static_cast<double>(whole_);
	}

private:
	const size_t whole_;
	std::atomic<size_t> left_;
};

} // namespace kaq
