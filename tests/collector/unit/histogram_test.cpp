#include "util/histogram.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <limits>
#include <random>

#include "util/compression.h"

namespace {

using kaq::Histogram;

int64_t exact_percentile(const std::vector<int64_t> &sorted, double share) {
	auto rank = static_cast<size_t>(std::ceil(share * static_cast<double>(sorted.size())));
	return sorted[std::max<size_t>(rank, 1) - 1];
}

TEST(Histogram, TellsPercentilesToOnePercent) {
	std::mt19937_64 random(7);
	std::lognormal_distribution<double> durations(5, 2);
	std::vector<int64_t> values;
	Histogram histogram;
	for (int i = 0; i < 20000; i++) {
		values.push_back(static_cast<int64_t>(durations(random)));
		histogram.add(values.back());
	}
	std::sort(values.begin(), values.end());
	for (double share : {0.0, 0.01, 0.25, 0.5, 0.75, 0.9, 0.95, 0.99, 0.999, 1.0}) {
		auto exact = static_cast<double>(exact_percentile(values, share));
		EXPECT_NEAR(static_cast<double>(histogram.percentile(share)), exact, exact * 0.01 + 0.5)
			<< share;
	}
}

TEST(Histogram, EveryValueIsInABucketThatHoldsIt) {
	std::vector<int64_t> values = {0, 1, 2, 3, 10, 49, 50, 51, 4095, 4096, 4097, 1000000};
	for (int64_t value = 1; value > 0 && value < std::numeric_limits<int64_t>::max() / 3;
		 value = value * 3 + 1) {
		values.push_back(value);
	}
	for (int64_t value : values) {
		Histogram histogram;
		histogram.add(value);
		uint16_t index = histogram.buckets().front().index;
		EXPECT_GT(value, Histogram::low(index)) << value;
		EXPECT_LE(value, Histogram::high(index)) << value;
		auto exact = static_cast<double>(value);
		EXPECT_NEAR(static_cast<double>(histogram.percentile(0.5)), exact, exact * 0.01 + 0.5);
	}
}

TEST(Histogram, TakesTheLargestAndTheSmallestNumber) {
	Histogram histogram;
	histogram.add(std::numeric_limits<int64_t>::max());
	histogram.add(std::numeric_limits<int64_t>::min());
	EXPECT_EQ(histogram.percentile(0.5), 0);
	EXPECT_GT(histogram.percentile(1), std::numeric_limits<int64_t>::max() / 100 * 99);
	EXPECT_EQ(Histogram::from_bytes(histogram.to_bytes()).count(), 2u);
}

TEST(Histogram, SumIsTheHistogramOfAllValues) {
	Histogram all;
	Histogram even;
	Histogram odd;
	for (int i = 0; i < 3000; i++) {
		all.add(i * i);
		(i % 2 ? odd : even).add(i * i);
	}
	even.add(odd);
	EXPECT_EQ(even.to_bytes(), all.to_bytes());
	EXPECT_EQ(even.count(), 3000u);
	Histogram copy;
	copy.add(all);
	EXPECT_EQ(copy.to_bytes(), all.to_bytes());
}

TEST(Histogram, CountsUpToAValue) {
	Histogram histogram;
	histogram.add(0);
	histogram.add(5, 3);
	histogram.add(1000);
	EXPECT_EQ(histogram.count_to(-1), 0u);
	EXPECT_EQ(histogram.count_to(0), 1u);
	EXPECT_EQ(histogram.count_to(5), 4u);
	EXPECT_EQ(histogram.count_to(999999), 5u);
}

TEST(Histogram, AnEmptyOneHasNoPercentile) {
	EXPECT_EQ(Histogram().percentile(0.5), 0);
	EXPECT_EQ(Histogram::from_bytes("").count(), 0u);
}

TEST(Histogram, ComesBackFromItsBytes) {
	Histogram histogram;
	for (int64_t value : {0, 1, 7, 7, 300, 70000}) {
		histogram.add(value);
	}
	Histogram copy = Histogram::from_bytes(histogram.to_bytes());
	EXPECT_EQ(copy.count(), 6u);
	EXPECT_EQ(copy.percentile(0.9), histogram.percentile(0.9));
}

TEST(Histogram, DamagedBytesAreAnEmptyHistogram) {
	Histogram histogram;
	histogram.add(123456, 1000);
	std::string bytes = histogram.to_bytes();
	EXPECT_EQ(Histogram::from_bytes(bytes.substr(0, bytes.size() - 1)).count(), 0u);
	EXPECT_EQ(Histogram::from_bytes("\xff\xff\xff\xff\x01").count(), 0u);
	EXPECT_EQ(Histogram::from_bytes(std::string("\1\1\0\1", 4)).count(), 0u);
}

TEST(Compression, GivesBackWhatItTook) {
	kaq::Compressor compressor;
	std::string text;
	for (int i = 0; i < 10000; i++) {
		text += "SELECT " + std::to_string(i % 100);
	}
	std::string bytes = compressor.compress(text);
	EXPECT_LT(bytes.size(), text.size() / 10);
	EXPECT_EQ(kaq::decompress(bytes, text.size()), text);
	EXPECT_EQ(kaq::decompress(compressor.compress(""), 0), "");
}

TEST(Compression, RefusesWhatIsDamagedOrTooLarge) {
	kaq::Compressor compressor;
	std::string bytes = compressor.compress(std::string(100000, 'a'));
	EXPECT_EQ(kaq::decompress(bytes, 99999), std::nullopt);
	EXPECT_EQ(kaq::decompress(bytes.substr(0, bytes.size() / 2), 100000), std::nullopt);
	EXPECT_EQ(kaq::decompress("no frame at all", 100000), std::nullopt);
	EXPECT_EQ(kaq::decompress("", 100000), std::nullopt);
}

} // namespace
