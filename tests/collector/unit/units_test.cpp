#include "util/units.h"

#include <gtest/gtest.h>

using kaq::duration_text;
using kaq::parse_duration;
using kaq::parse_percentage;
using kaq::parse_size;
using kaq::size_text;
using std::chrono::milliseconds;

TEST(Units, SizesAreRead) {
	EXPECT_EQ(2ull << 30, parse_size("2GiB"));
	EXPECT_EQ(1536ull << 20, parse_size("1.5 GiB"));
	EXPECT_EQ(250000000ull, parse_size("250MB"));
	EXPECT_EQ(0ull, parse_size("0B"));
	for (const char *text : {"", "2", "GiB", "2gib", "-1B", "1e3B", "2GiB ", "2  GiB", "nanB",
							 "infB", "9999999TiB", "1.2.3B", "0x10B"}) {
		EXPECT_FALSE(parse_size(text)) << text;
	}
}

TEST(Units, DurationsAreRead) {
	EXPECT_EQ(milliseconds(200), parse_duration("200ms"));
	EXPECT_EQ(milliseconds(1500), parse_duration("1.5s"));
	EXPECT_EQ(milliseconds(7ll * 86400000), parse_duration("7 d"));
	for (const char *text : {"", "5", "5 minutes", "-5s", "5S"}) {
		EXPECT_FALSE(parse_duration(text)) << text;
	}
}

TEST(Units, PercentagesAreRead) {
	EXPECT_DOUBLE_EQ(0.1, parse_percentage("10%").value());
	EXPECT_DOUBLE_EQ(1, parse_percentage("100 %").value());
	for (const char *text : {"", "10", "101%", "-1%", "%"}) {
		EXPECT_FALSE(parse_percentage(text)) << text;
	}
}

TEST(Units, TextsReadBackAsTheSame) {
	for (uint64_t bytes : {0ull, 1ull, 1023ull, 1024ull, 1536ull, 3ull << 30, (5ull << 40) + 1}) {
		EXPECT_EQ(bytes, parse_size(size_text(bytes))) << bytes;
	}
	for (int64_t time : {0ll, 1ll, 999ll, 1000ll, 90000ll, 3600000ll, 172800000ll, 172800001ll}) {
		EXPECT_EQ(milliseconds(time), parse_duration(duration_text(milliseconds(time)))) << time;
	}
	EXPECT_EQ("2GiB", size_text(2ull << 30));
	EXPECT_EQ("400d", duration_text(std::chrono::hours(24 * 400)));
	EXPECT_EQ("90m", duration_text(std::chrono::minutes(90)));
}
