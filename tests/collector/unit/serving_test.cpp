#include "ingest/serving.h"

#include <gtest/gtest.h>

#include <fstream>

#include "records.h"

namespace {

using kaq::Serving;
using kaq::ServingLookup;

class ServingTest : public testing::Test {
protected:
	void process(int64_t thread, const std::string &name, int64_t process, int threads) {
		std::string directory = directory_.path() + "/" + std::to_string(thread);
		std::filesystem::create_directories(directory);
		std::ofstream(directory + "/status")
			<< "Name:\t" << name << "\nUmask:\t0022\nTgid:\t" << process << "\nPid:\t" << thread
			<< "\nThreads:\t" << threads << "\n";
	}

	kaq_test::Directory directory_;
	ServingLookup lookup_{directory_.path()};
};

TEST_F(ServingTest, AProcessOfOneThreadServesOneAtATime) {
	process(10, "php-fpm7.0", 10, 1);
	EXPECT_EQ(lookup_.of(10, 0), Serving::kOneAtATime);
}

TEST_F(ServingTest, AThreadOfAProcessDoesNot) {
	process(11, "php-cgi", 10, 25);
	process(12, "php-cgi", 12, 25);
	EXPECT_EQ(lookup_.of(11, 0), Serving::kThreads);
	EXPECT_EQ(lookup_.of(12, 0), Serving::kThreads);
}

TEST_F(ServingTest, WhatIsNotThereOrNoPhpIsUnknown) {
	process(13, "kworker/0:1", 13, 1);
	EXPECT_EQ(lookup_.of(13, 0), Serving::kUnknown);
	EXPECT_EQ(lookup_.of(14, 0), Serving::kUnknown);
	EXPECT_EQ(lookup_.of(0, 0), Serving::kUnknown);
	EXPECT_EQ(lookup_.of(-1, 0), Serving::kUnknown);
}

TEST_F(ServingTest, LooksAgainAfterAMinute) {
	process(15, "php-fpm", 15, 1);
	EXPECT_EQ(lookup_.of(15, 1000), Serving::kOneAtATime);
	process(15, "other", 15, 1);
	EXPECT_EQ(lookup_.of(15, 60999), Serving::kOneAtATime);
	EXPECT_EQ(lookup_.of(15, 61000), Serving::kUnknown);
}

TEST_F(ServingTest, TheProcessOfAThreadIsKnownWhateverItIs) {
	process(17, "apache2", 12, 9);
	EXPECT_EQ(lookup_.process_of(17, 0), 12);
	EXPECT_EQ(lookup_.of(17, 0), Serving::kUnknown);
	EXPECT_EQ(lookup_.process_of(18, 0), 0);
}

} // namespace
