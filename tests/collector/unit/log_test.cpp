#include "util/log.h"

#include <gtest/gtest.h>

using kaq::LogLimiter;

TEST(LogLimiter, TenOfAKindAreSaidInAMinute) {
	LogLimiter limiter;
	LogLimiter::Clock::time_point now = LogLimiter::Clock::now();
	for (int i = 0; i < 10; i++) {
		EXPECT_EQ(0u, limiter.allow("a", now)) << i;
	}
	for (int i = 0; i < 5; i++) {
		EXPECT_EQ(std::nullopt, limiter.allow("a", now + std::chrono::seconds(59)));
	}
	EXPECT_EQ(0u, limiter.allow("b", now));
	EXPECT_EQ(5u, limiter.allow("a", now + std::chrono::seconds(60)));
	EXPECT_EQ(0u, limiter.allow("a", now + std::chrono::seconds(60)));
}

TEST(Log, ControlCharactersAreReplaced) {
	testing::internal::CaptureStderr();
	kaq::log_line(kaq::LogLevel::kWarning, "a\nb\x1b[31m");
	std::string said = testing::internal::GetCapturedStderr();
	EXPECT_NE(std::string::npos, said.find(" kaq: warning: a?b?[31m\n")) << said;
}
