#include "util/histogram.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <limits>

#include "util/varint.h"

namespace kaq {
namespace {

/* Each bucket ends 2 % above the one before; its middle is then within 1 % of all its values. */
constexpr double kGrowth = 1.02;
/* Bucket 0 is the value 0, bucket 1 the value 1; 2^63 is in bucket 2206. */
constexpr uint16_t kLastBucket = 2210;
constexpr double kLargest = 9.2e18;

uint16_t computed_index(int64_t value) {
	if (value <= 0) {
		return 0;
	}
	double place = std::ceil(std::log(static_cast<double>(value)) / std::log(kGrowth) - 1e-9);
	return static_cast<uint16_t>(std::min<double>(1 + place, kLastBucket));
}

/* Most durations are short. */
uint16_t index_of(int64_t value) {
	static const auto table = [] {
		std::array<uint16_t, 4096> indexes{};
		for (size_t i = 0; i < indexes.size(); i++) {
			indexes[i] = computed_index(static_cast<int64_t>(i));
		}
		return indexes;
	}();
	return value >= 0 && value < static_cast<int64_t>(table.size())
			   ? table[static_cast<size_t>(value)]
			   : computed_index(value);
}

double bound(uint16_t index) {
	return index == 0 ? 0 : std::pow(kGrowth, index - 1);
}

} // namespace

int64_t Histogram::high(uint16_t index) {
	double value = bound(index);
	return value >= kLargest ? std::numeric_limits<int64_t>::max()
							 : static_cast<int64_t>(value + 1e-6);
}

int64_t Histogram::low(uint16_t index) {
	return index == 0 ? -1 : high(static_cast<uint16_t>(index - 1));
}

void Histogram::add(int64_t value, uint64_t count) {
	uint16_t index = index_of(value);
	auto place = std::lower_bound(
		buckets_.begin(), buckets_.end(), index,
		[](const Bucket &bucket, uint16_t wanted) { return bucket.index < wanted; });
	if (place != buckets_.end() && place->index == index) {
		place->count += count;
	} else {
		buckets_.insert(place, {index, count});
	}
	count_ += count;
}

void Histogram::add(const Histogram &other) {
	std::vector<Bucket> sum;
	sum.reserve(buckets_.size() + other.buckets_.size());
	auto mine = buckets_.begin();
	for (const Bucket &bucket : other.buckets_) {
		for (; mine != buckets_.end() && mine->index < bucket.index; ++mine) {
			sum.push_back(*mine);
		}
		sum.push_back(bucket);
		if (mine != buckets_.end() && mine->index == bucket.index) {
			sum.back().count += mine->count;
			++mine;
		}
	}
	sum.insert(sum.end(), mine, buckets_.end());
	buckets_ = std::move(sum);
	count_ += other.count_;
}

int64_t Histogram::percentile(double share) const {
	auto rank = static_cast<uint64_t>(std::ceil(share * static_cast<double>(count_)));
	uint64_t passed = 0;
	for (const Bucket &bucket : buckets_) {
		passed += bucket.count;
		if (passed >= rank && passed > 0) {
			double middle = bound(bucket.index) * 2 / (1 + kGrowth);
			int64_t value =
				middle >= kLargest ? std::numeric_limits<int64_t>::max() : std::llround(middle);
			return std::clamp(value, low(bucket.index) + 1,
							  std::max(low(bucket.index) + 1, high(bucket.index)));
		}
	}
	return 0;
}

uint64_t Histogram::count_to(int64_t value) const {
	uint16_t last = index_of(value);
	uint64_t found = 0;
	for (const Bucket &bucket : buckets_) {
		found += value >= 0 && bucket.index <= last ? bucket.count : 0;
	}
	return found;
}

std::string Histogram::to_bytes() const {
	std::string bytes;
	uint16_t last = 0;
	for (const Bucket &bucket : buckets_) {
		append_varint(bytes, static_cast<uint64_t>(bucket.index - last));
		append_varint(bytes, bucket.count);
		last = bucket.index;
	}
	return bytes;
}

Histogram Histogram::from_bytes(std::string_view bytes) {
	Histogram histogram;
	uint64_t index = 0;
	while (!bytes.empty()) {
		uint64_t step;
		uint64_t count;
		if (!take_varint(bytes, step) || !take_varint(bytes, count) || step > kLastBucket ||
			index + step > kLastBucket || (step == 0 && !histogram.buckets_.empty())) {
			return {};
		}
		index += step;
		histogram.buckets_.push_back({static_cast<uint16_t>(index), count});
		histogram.count_ += count;
	}
	return histogram;
}

} // namespace kaq
