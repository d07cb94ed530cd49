/* Logs of crashes, and what is not monitored any more because of them. */
#include "ingest/crash_log.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fstream>

#include "ingest/crash_guard.h"
#include "ingest/suspensions.h"
#include "records.h"

namespace {

using kaq::Crash;
using kaq::CrashGuard;
using kaq::CrashLogs;
using kaq::Suspension;
using kaq::Suspensions;

constexpr int64_t kSecond = 1000;
constexpr int64_t kTenMinutes = 600 * kSecond;
constexpr int64_t kNow = 1700000000 * kSecond;

/* As the document on diagnostics shows one. */
const std::string kOurs = "KAQ CRASH Signal 11 received\n"
						  "KAQ CRASH siginfo address=(nil)\n"
						  "KAQ CRASH siginfo code =1\n"
						  "KAQ CRASH address = 63ffa23e\n"
						  "KAQ CRASH Backtrace messages size: 5\n"
						  "Trace /usr/lib/php/20220829/kaq.so(+0x1e8bb) [0x7f826400d8bb]\n"
						  "Trace /lib/x86_64-linux-gnu/libc.so.6(+0x3c050) [0x7f826425a050]\n"
						  "Trace /usr/lib/php/20220829/kaq.so(+0xb23e) [0x7f8263ffa23e]\n"
						  "Trace php8.2(execute_ex+0x2be6) [0x56285b5734a6]\n"
						  "Trace php8.2(_start+0x21) [0x56285b32fc81]\n";

std::string log_of(const std::string &address, const std::string &frames) {
	return "KAQ CRASH Signal 6 received\nKAQ CRASH address = " + address +
		   "\nTrace /x/kaq.so(+0x1) [0x7f0000000001]\nTrace /x/libc.so.6(+0x2) [0x7f0000000002]\n" +
		   frames;
}

TEST(CrashLog, TheFrameThatWasRunningIsTheOneThatCounts) {
	std::vector<Crash> crashes = kaq::read_crash_log(kOurs);
	ASSERT_EQ(crashes.size(), 1u);
	EXPECT_TRUE(crashes[0].is_ours);
	EXPECT_EQ(crashes[0].signal, 11);
	EXPECT_EQ(crashes[0].place, "kaq.so(+0xb23e)");
}

TEST(CrashLog, OursBelowTheEngineIsTheHookThatIsInEveryStack) {
	Crash crash = kaq::read_crash_log(log_of("10", "Trace php8.2(zif_x+0x1) [0x7f0000000010]\n"
												   "Trace /x/kaq.so(+0x2) [0x7f0000000011]\n"))
					  .at(0);
	EXPECT_FALSE(crash.is_ours);
	EXPECT_EQ(crash.place, "php8.2(zif_x+0x1)");
}

TEST(CrashLog, OfTheSystemsLibrariesTheCallerCounts) {
	std::string libc = "Trace /lib/libc.so.6(abort+0x1) [0x7f0000000010]\n"
					   "Trace [0x7f0000000099]\n";
	EXPECT_TRUE(kaq::read_crash_log(log_of("10", libc + "Trace /x/kaq.so(+0x3) [0x7f0000000011]\n"))
					.at(0)
					.is_ours);
	EXPECT_FALSE(
		kaq::read_crash_log(log_of("10", libc + "Trace php(_start) [0x12]\n")).at(0).is_ours);
}

TEST(CrashLog, TheExtensionIsKnownByItsFile) {
	auto is_ours = [](const std::string &file) {
		std::string frame = "Trace /opt/(x)/" + file + "(+0x1) [0x7f0000000010]\n";
		return kaq::read_crash_log(log_of("10", frame)).at(0).is_ours;
	};
	EXPECT_TRUE(is_ours("kaq.so"));
	EXPECT_TRUE(is_ours("kaq20220829.so"));
	EXPECT_FALSE(is_ours("kaqx.so"));
	EXPECT_FALSE(is_ours("notkaq.so"));
	EXPECT_FALSE(is_ours("kaq.so.1"));
	EXPECT_FALSE(is_ours("kaq"));
}

TEST(CrashLog, WithoutAnAddressItIsTheThirdFrame) {
	EXPECT_TRUE(
		kaq::read_crash_log(log_of("0", "Trace /x/kaq.so(+0x3) [0x7f0000000011]\n")).at(0).is_ours);
	EXPECT_FALSE(kaq::read_crash_log(log_of("0", "")).at(0).is_ours);
}

TEST(CrashLog, WhatIsNoLogTellsOfNothing) {
	EXPECT_TRUE(kaq::read_crash_log("").empty());
	EXPECT_TRUE(kaq::read_crash_log("Trace x(\nTrace ]([\nKAQ CRASH\n").empty());
	EXPECT_EQ(kaq::read_crash_log("KAQ CRASH Signal").size(), 0u);
	EXPECT_EQ(kaq::read_crash_log(kOurs + kOurs).size(), 2u);
}

class CrashLogsTest : public testing::Test {
protected:
	std::string path(int64_t process) const {
		return directory_.path() + "/kaqcrash-" + std::to_string(process) + ".log";
	}

	void append(int64_t process, const std::string &text, int64_t time) {
		std::ofstream(path(process), std::ios::app) << text;
		touch(process, time);
	}

	void touch(int64_t process, int64_t time) {
		timespec times[2] = {{time / kSecond, 0}, {time / kSecond, 0}};
		ASSERT_EQ(utimensat(AT_FDCWD, path(process).c_str(), times, 0), 0);
	}

	kaq_test::Directory directory_;
	CrashLogs logs_{{directory_.path()}};
};

TEST_F(CrashLogsTest, EachCrashIsToldOnce) {
	EXPECT_TRUE(logs_.look(kNow, kTenMinutes).empty());
	append(7, kOurs, kNow);
	std::vector<Crash> crashes = logs_.look(kNow + 5 * kSecond, kTenMinutes);
	ASSERT_EQ(crashes.size(), 1u);
	EXPECT_EQ(crashes[0].process, 7);
	EXPECT_EQ(crashes[0].time, kNow);
	EXPECT_TRUE(logs_.look(kNow + 10 * kSecond, kTenMinutes).empty());
	append(7, kOurs + kOurs, kNow + 12 * kSecond);
	EXPECT_EQ(logs_.look(kNow + 20 * kSecond, kTenMinutes).size(), 2u);
}

TEST_F(CrashLogsTest, AtTheFirstLookOldOnesDoNotCount) {
	append(7, kOurs, kNow - kTenMinutes - kSecond);
	append(8, kOurs + kOurs, kNow - kTenMinutes + kSecond);
	std::vector<Crash> crashes = logs_.look(kNow, kTenMinutes);
	ASSERT_EQ(crashes.size(), 1u);
	EXPECT_EQ(crashes[0].process, 8);
	touch(7, kNow);
	EXPECT_TRUE(logs_.look(kNow + 5 * kSecond, kTenMinutes).empty());
}

TEST_F(CrashLogsTest, ALogThatIsBeingWrittenIsLeftForLater) {
	append(7, kOurs, kNow);
	EXPECT_TRUE(logs_.look(kNow + 100, kTenMinutes).empty());
	EXPECT_EQ(logs_.look(kNow + 5 * kSecond, kTenMinutes).size(), 1u);
}

TEST_F(CrashLogsTest, NothingButRegularFilesOfThatNameIsRead) {
	std::ofstream(directory_.path() + "/target") << kOurs;
	for (const char *name : {"kaqcrash-.log", "kaqcrash-7.txt", "kaqcrash-7x.log", "x.log"}) {
		std::ofstream(directory_.path() + "/" + name) << kOurs;
	}
	ASSERT_EQ(symlink("target", path(1).c_str()), 0);
	ASSERT_EQ(mkfifo(path(2).c_str(), 0600), 0);
	ASSERT_EQ(mkdir(path(3).c_str(), 0700), 0);
	EXPECT_TRUE(logs_.look(kNow * 2, kNow * 2).empty());
}

TEST_F(CrashLogsTest, OfALongLogOnlyTheEndIsRead) {
	logs_.look(kNow, kTenMinutes);
	append(7, kOurs + std::string(1 << 20, 'x') + "\n" + kOurs, kNow);
	EXPECT_EQ(logs_.look(kNow + 5 * kSecond, kTenMinutes).size(), 1u);
}

TEST_F(CrashLogsTest, WhatIsMissingIsNoMistake) {
	CrashLogs logs({directory_.path() + "/none", directory_.path()});
	logs.look(kNow, kTenMinutes);
	ASSERT_EQ(logs.directories().size(), 2u);
	EXPECT_FALSE(logs.directories()[0].is_there);
	EXPECT_EQ(logs.directories()[0].mistake, "");
	EXPECT_TRUE(logs.directories()[1].is_there);
}

class CrashGuardTest : public testing::Test {
protected:
	static kaq::Transaction transaction(int64_t thread, const char *application,
										const char *instance) {
		kaq::Transaction transaction;
		transaction.thread = thread;
		transaction.application = application;
		transaction.instance_id = instance;
		return transaction;
	}

	std::optional<Suspension> crash(int64_t process, int64_t time = kNow, bool is_ours = true) {
		Crash crash;
		crash.process = process;
		crash.time = time;
		crash.is_ours = is_ours;
		crash.place = "kaq.so(+0x1)";
		return guard_.take(crash);
	}

	kaq_test::Directory directory_;
	std::string file_ = directory_.path() + "/suspended";
	Suspensions suspensions_{file_};
	CrashGuard guard_{suspensions_, directory_.path()};
};

TEST_F(CrashGuardTest, ThreeOfAnInstanceWithinTenMinutesSuspendIt) {
	for (int64_t process : {1, 2, 3}) {
		guard_.note(transaction(process, "shop", "i1"));
	}
	guard_.note(transaction(4, "blog", "i2"));
	EXPECT_FALSE(crash(1));
	EXPECT_FALSE(crash(4));
	EXPECT_FALSE(crash(2, kNow + kTenMinutes));
	std::optional<Suspension> suspension = crash(3, kNow + kTenMinutes);
	ASSERT_TRUE(suspension);
	EXPECT_EQ(suspension->application, "shop");
	EXPECT_EQ(suspension->instance, "i1");
	EXPECT_NE(suspension->reason.find("3 crashes"), std::string::npos);
	EXPECT_NE(suspension->reason.find("kaq.so(+0x1)"), std::string::npos);
	EXPECT_EQ(suspensions_.all().size(), 1u);
}

TEST_F(CrashGuardTest, LongerApartTheyDoNot) {
	guard_.note(transaction(1, "shop", "i1"));
	for (int i = 0; i < 20; i++) {
		EXPECT_FALSE(crash(1, kNow + i * (kTenMinutes / 2 + kSecond)));
	}
}

TEST_F(CrashGuardTest, CrashesElsewhereDoNotCount) {
	guard_.note(transaction(1, "shop", "i1"));
	for (int i = 0; i < 20; i++) {
		EXPECT_FALSE(crash(1, kNow, false));
	}
}

TEST_F(CrashGuardTest, WhoIsNotKnownCountsForTheOneThatIs) {
	guard_.note(transaction(1, "shop", "i1"));
	EXPECT_FALSE(crash(1));
	EXPECT_FALSE(crash(90));
	std::optional<Suspension> suspension = crash(91);
	ASSERT_TRUE(suspension);
	EXPECT_EQ(suspension->application, "shop");
}

TEST_F(CrashGuardTest, WhereNobodyIsKnownEverythingIsSuspended) {
	EXPECT_FALSE(crash(90));
	EXPECT_FALSE(crash(91));
	std::optional<Suspension> suspension = crash(92);
	ASSERT_TRUE(suspension);
	EXPECT_EQ(suspension->application, "");
	EXPECT_TRUE(suspension->covers("shop", "i1"));
}

TEST_F(CrashGuardTest, AThreadIsKnownByItsProcess) {
	std::filesystem::create_directories(directory_.path() + "/17");
	std::ofstream(directory_.path() + "/17/status") << "Name:\tapache2\nTgid:\t12\nThreads:\t9\n";
	guard_.note(transaction(17, "shop", "i1"));
	crash(12);
	crash(12);
	std::optional<Suspension> suspension = crash(12);
	ASSERT_TRUE(suspension);
	EXPECT_EQ(suspension->application, "shop");
}

TEST_F(CrashGuardTest, AfterResumingItTakesThreeMore) {
	guard_.note(transaction(1, "shop", "i1"));
	crash(1);
	crash(1);
	ASSERT_TRUE(crash(1));
	EXPECT_EQ(suspensions_.resume("shop").size(), 1u);
	EXPECT_FALSE(crash(1));
	EXPECT_FALSE(crash(1));
	EXPECT_TRUE(crash(1));
}

TEST_F(CrashGuardTest, ARestartForgetsNothing) {
	Suspension odd;
	odd.application = "a\tb\n%41+c";
	odd.instance = "i1";
	odd.since = kNow;
	odd.reason = "why\n";
	EXPECT_TRUE(suspensions_.add(odd));
	EXPECT_FALSE(suspensions_.add(odd));
	EXPECT_GT(suspensions_.changed(), 0);
	Suspensions again(file_);
	EXPECT_NEAR(static_cast<double>(again.changed()), static_cast<double>(suspensions_.changed()),
				60000);
	ASSERT_EQ(again.all().size(), 1u);
	EXPECT_EQ(again.all()[0].application, odd.application);
	EXPECT_EQ(again.all()[0].instance, "i1");
	EXPECT_EQ(again.all()[0].since, kNow);
	EXPECT_EQ(again.all()[0].reason, "why\n");
	again.resume("");
	EXPECT_TRUE(Suspensions(file_).all().empty());
}

TEST_F(CrashGuardTest, OnlyWhatIsNamedIsResumed) {
	suspensions_.add({"shop", "i1", kNow, "x"});
	suspensions_.add({"shop", "i2", kNow, "x"});
	suspensions_.add({"blog", "i1", kNow, "x"});
	uint64_t version = suspensions_.version();
	EXPECT_TRUE(suspensions_.resume("other").empty());
	EXPECT_EQ(suspensions_.version(), version);
	EXPECT_EQ(suspensions_.resume("shop").size(), 2u);
	EXPECT_NE(suspensions_.version(), version);
	EXPECT_EQ(suspensions_.all().size(), 1u);
}

TEST_F(CrashGuardTest, DamagedLinesAreLeftOut) {
	std::ofstream(file_) << "\n1\tshop\n\tshop\ti1\tx\n5\tblog\t\twhy\n1\ta\tb\tc\td\n";
	Suspensions again(file_);
	ASSERT_EQ(again.all().size(), 1u);
	EXPECT_EQ(again.all()[0].application, "blog");
}

} // namespace
