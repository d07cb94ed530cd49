#include "http/login_codes.h"

#include <gtest/gtest.h>

namespace {

using kaq::LoginCodes;
using Clock = LoginCodes::Clock;

TEST(LoginCodes, AreTakenOnce) {
	LoginCodes codes;
	std::string code = codes.issue();
	EXPECT_EQ(code.size(), 48u);
	EXPECT_NE(code, codes.issue());
	EXPECT_TRUE(codes.take(code));
	EXPECT_FALSE(codes.take(code));
}

TEST(LoginCodes, EndAfterTheirTime) {
	LoginCodes codes;
	Clock::time_point begin = Clock::now();
	std::string early = codes.issue(begin);
	std::string late = codes.issue(begin + std::chrono::seconds(1));
	EXPECT_FALSE(codes.take(early, begin + LoginCodes::kLifetime));
	EXPECT_TRUE(codes.take(late, begin + LoginCodes::kLifetime));
}

TEST(LoginCodes, AreNothingThatWasNotIssued) {
	LoginCodes codes;
	EXPECT_FALSE(codes.take(""));
	std::string code = codes.issue();
	EXPECT_FALSE(codes.take(""));
	EXPECT_FALSE(codes.take(code.substr(1)));
	EXPECT_FALSE(codes.take(code + "0"));
}

TEST(LoginCodes, AreNotKeptWithoutEnd) {
	LoginCodes codes;
	std::string first = codes.issue();
	for (size_t i = 0; i < LoginCodes::kMost; i++) {
		codes.issue();
	}
	EXPECT_FALSE(codes.take(first));
}

} // namespace
