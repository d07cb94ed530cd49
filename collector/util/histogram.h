/*
 * How often which value came, in buckets that grow with the value, so that any percentile can be
 * told to within 1 % (and half a unit) and two histograms can be added without losing that. A few
 * hundred buckets hold everything from 0 to 2^63. One thread at a time.
 */
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace kaq {

class Histogram {
public:
	struct Bucket {
		uint16_t index;
		uint64_t count;
	};

	/* What is below 0 counts as 0. */
	void add(int64_t value, uint64_t count = 1);
	void add(const Histogram &other);

	uint64_t count() const {
		return count_;
	}
	/* The value that the share (0 to 1) of all values does not exceed; 0 of an empty histogram. */
	int64_t percentile(double share) const;
	/* How many values are at most that one. */
	uint64_t count_to(int64_t value) const;

	/* In order of their values. */
	const std::vector<Bucket> &buckets() const {
		return buckets_;
	}
	/* The values in a bucket are above low() and at most high(). */
	static int64_t low(uint16_t index);
	static int64_t high(uint16_t index);

	/* As bytes that are kept, about 2 to 3 for each bucket. */
	std::string to_bytes() const;
	/* Empty if the bytes are damaged. */
	static Histogram from_bytes(std::string_view bytes);

private:
	std::vector<Bucket> buckets_;
	uint64_t count_ = 0;
};

} // namespace kaq
