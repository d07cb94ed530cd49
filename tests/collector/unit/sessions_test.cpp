#include "http/sessions.h"

#include <gtest/gtest.h>

#include <fstream>

#include "sqlite_store_fixture.h"

namespace {

using kaq::Sessions;

constexpr int64_t kNow = 1000000;
constexpr int64_t kLifetime = std::chrono::milliseconds(Sessions::kLifetime).count();

TEST(Sessions, LastForTheirTime) {
	Sessions sessions("", kNow);
	std::string session = sessions.begin(kNow);
	EXPECT_EQ(session.size(), 48u);
	EXPECT_NE(session, sessions.begin(kNow));
	EXPECT_TRUE(sessions.has(session, kNow));
	EXPECT_TRUE(sessions.has(session, kNow + kLifetime - 1));
	EXPECT_FALSE(sessions.has(session, kNow + kLifetime));
}

TEST(Sessions, AreNothingThatWasNotBegun) {
	Sessions sessions("", kNow);
	EXPECT_FALSE(sessions.has("", kNow));
	std::string session = sessions.begin(kNow);
	EXPECT_FALSE(sessions.has("", kNow));
	EXPECT_FALSE(sessions.has(session.substr(1), kNow));
	EXPECT_FALSE(sessions.has(session + "0", kNow));
}

TEST(Sessions, AreNotKeptWithoutEnd) {
	Sessions sessions("", kNow);
	std::string first = sessions.begin(kNow);
	std::string second = sessions.begin(kNow);
	for (size_t i = 1; i < Sessions::kMost; i++) {
		sessions.begin(kNow);
	}
	EXPECT_FALSE(sessions.has(first, kNow));
	EXPECT_TRUE(sessions.has(second, kNow));
}

TEST(Sessions, GoOnFromTheirFileWhereverTheyHaveNotEnded) {
	kaq_test::Directory directory;
	std::string file = directory.path() + "/sessions";
	std::string early, late;
	{
		Sessions sessions(file, kNow);
		early = sessions.begin(kNow);
		late = sessions.begin(kNow + 10);
	}
	Sessions again(file, kNow + kLifetime);
	EXPECT_FALSE(again.has(early, kNow));
	EXPECT_TRUE(again.has(late, kNow + kLifetime));
}

TEST(Sessions, TakeNothingFromAFileThatIsNoneOfTheirs) {
	kaq_test::Directory directory;
	std::string file = directory.path() + "/sessions";
	std::ofstream(file) << "\n\t99999999999999\nshort\t99999999999999\n"
						<< std::string(48, 'a') << "\n"
						<< std::string(48, 'b') << "\tsoon\n";
	Sessions sessions(file, kNow);
	for (const std::string &each :
		 {std::string(), std::string("short"), std::string(48, 'a'), std::string(48, 'b')}) {
		EXPECT_FALSE(sessions.has(each, kNow)) << each;
	}
}

} // namespace
