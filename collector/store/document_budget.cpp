#include "store/document_budget.h"

#include <xxhash.h>

#include <algorithm>

namespace kaq {
namespace {

/* Of all room, what may be used at once: enough for a peak. */
constexpr double kBurst = 1.0 / 8;
/* While more than that is left, everything is kept. */
constexpr double kPlenty = 0.5;
/* The last of it is for what is failed or slow. */
constexpr double kReserve = 0.1;
/* Slower than that share of its kind. */
constexpr double kSlowShare = 0.95;
constexpr uint64_t kEnoughToTell = 20;
constexpr int64_t kForgetAfter = 3600 * 1000;
constexpr size_t kMostNames = 5000;

} // namespace

DocumentBudget::DocumentBudget(const DocumentSettings &settings) {
	use(settings);
	left_ = most_;
}

void DocumentBudget::use(const DocumentSettings &settings) {
	double most = static_cast<double>(settings.bytes) * kBurst;
	left_ *= most_ > 0 ? most / most_ : 0;
	most_ = most;
	settings_ = settings;
}

bool DocumentBudget::is_slow(const Summary &summary, int64_t now) {
	if (now - begun_ > kForgetAfter || now < begun_ || durations_.size() > kMostNames) {
		durations_.clear();
		begun_ = now;
	}
	Histogram &known = durations_[summary.application + '\n' + summary.name];
	bool is_slow = known.count() >= kEnoughToTell ? summary.duration > known.percentile(kSlowShare)
												  : summary.duration > kSlowDuration;
	known.add(summary.duration);
	return is_slow;
}

bool DocumentBudget::wants(const Summary &summary, int64_t now) {
	if (settings_.keeps_all) {
		return true;
	}
	if (filled_ == 0 || now < filled_) {
		filled_ = now;
	}
	double rate = static_cast<double>(settings_.bytes) / static_cast<double>(settings_.time);
	left_ = std::min(most_, left_ + rate * static_cast<double>(now - filled_));
	filled_ = now;
	bool is_slow_one = is_slow(summary, now);
	if (is_slow_one || summary.is_failed) {
		return left_ > 0;
	}
	/* The same decision for all requests of a trace, wherever the shares are alike. */
	uint64_t hash = XXH3_64bits(summary.trace_id.data(), summary.trace_id.size());
	return static_cast<double>(hash >> 11) * 0x1p-53 < share();
}

void DocumentBudget::spend(int64_t bytes) {
	left_ -= static_cast<double>(bytes);
}

double DocumentBudget::share() const {
	return std::clamp((left_ / most_ - kReserve) / (kPlenty - kReserve), 0.0, 1.0);
}

} // namespace kaq
