/* Bytes that count against a common budget as long as they are held. One thread at a time. */
#pragma once

#include <algorithm>
#include <cstdlib>
#include <memory>
#include <string_view>
#include <utility>

#include "util/memory_budget.h"

namespace kaq {

class BudgetedBuffer {
public:
	/* Empty, without a budget: only to be assigned to. */
	BudgetedBuffer() = default;
	/* REQUIRES: the budget outlives the buffer and those that it is moved to. */
	explicit BudgetedBuffer(MemoryBudget &budget) : budget_(&budget) {
	}
	BudgetedBuffer(BudgetedBuffer &&other) noexcept {
		swap(other);
	}
	BudgetedBuffer &operator=(BudgetedBuffer &&other) noexcept {
		swap(other);
		return *this;
	}
	BudgetedBuffer(const BudgetedBuffer &) = delete;
	BudgetedBuffer &operator=(const BudgetedBuffer &) = delete;
	~BudgetedBuffer() {
		clear();
	}

	std::string_view bytes() const {
		return {data_.get(), size_};
	}

	/* False, and nothing appended, if the budget has too little left. */
	bool append(std::string_view bytes) {
		if (bytes.size() > room_ - size_ && !grow(size_ + bytes.size())) {
			return false;
		}
		std::copy(bytes.begin(), bytes.end(), data_.get() + size_);
		size_ += bytes.size();
		return true;
	}

	/* Gives the memory back. */
	void clear() {
		if (room_ > 0) {
			budget_->give_back(room_);
		}
		data_.reset();
		size_ = room_ = 0;
	}

private:
	/* A usual payload fits. */
	static constexpr size_t kFirstRoom = 16 * 1024;

	struct Free {
		void operator()(char *data) const {
			std::free(data);
		}
	};

	/* What has come twice as far needs twice the room, or as much as there is. */
	bool grow(size_t least) {
		size_t wanted = std::max(least > kFirstRoom ? 2 * least : least, kFirstRoom);
		return resize(wanted) || resize(least);
	}

	/* Large memory is moved by the system, so that it is never held twice. */
	bool resize(size_t room) {
		if (!budget_->take(room - room_)) {
			return false;
		}
		void *data = std::realloc(data_.get(), room);
		if (!data) {
			budget_->give_back(room - room_);
			return false;
		}
		static_cast<void>(data_.release());
		data_.reset(static_cast<char *>(data));
		room_ = room;
		return true;
	}

	void swap(BudgetedBuffer &other) {
		std::swap(budget_, other.budget_);
		std::swap(data_, other.data_);
		std::swap(size_, other.size_);
		std::swap(room_, other.room_);
	}

	MemoryBudget *budget_ = nullptr;
	std::unique_ptr<char, Free> data_;
	size_t size_ = 0;
	size_t room_ = 0;
};

} // namespace kaq
