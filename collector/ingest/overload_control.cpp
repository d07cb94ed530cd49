#include "ingest/overload_control.h"

#include <algorithm>

namespace kaq {
namespace {

constexpr double kFull = 0.5;
constexpr double kCalm = 0.1;
constexpr uint32_t kLeastShare = kWholeShare / 128;
/* What was recorded before a change is still on its way for about as long. */
constexpr std::chrono::milliseconds kBetweenLowerings{1000};
constexpr std::chrono::milliseconds kCalmTime{5000};

} // namespace

OverloadControl::Change OverloadControl::set(uint32_t share, Clock::time_point now) {
	uint32_t before = share_.exchange(share, std::memory_order_relaxed);
	if (share == before) {
		return Change::kNone;
	}
	changed_ = now;
	if (share > before) {
		return Change::kRaised;
	}
	times_lowered_.fetch_add(1, std::memory_order_relaxed);
	return Change::kLowered;
}

OverloadControl::Change OverloadControl::look(double fill, bool may_lower, Clock::time_point now) {
	uint32_t share = share_.load(std::memory_order_relaxed);
	if (!may_lower) {
		return set(kWholeShare, now);
	}
	if (fill > kFull) {
		is_calm_ = false;
		bool is_time = share == kWholeShare || now - changed_ >= kBetweenLowerings;
		return is_time ? set(std::max(share / 2, kLeastShare), now) : Change::kNone;
	}
	if (fill >= kCalm) {
		is_calm_ = false;
		return Change::kNone;
	}
	if (!is_calm_) {
		is_calm_ = true;
		calm_since_ = now;
	}
	if (share == kWholeShare || now - std::max(calm_since_, changed_) < kCalmTime) {
		return Change::kNone;
	}
	return set(share >= kWholeShare / 2 ? kWholeShare : share * 2, now);
}

} // namespace kaq
