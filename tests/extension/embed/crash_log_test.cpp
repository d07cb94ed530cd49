/* What the crash handler writes, and into what it writes nothing. */
#include "crash_stand_ins.h"

#include <fcntl.h>
#include <fstream>
#include <sstream>
#include <sys/stat.h>
#include <unistd.h>

#include "diagnostics/crash_handler.h"

TEST_F(CrashHandler, LogIsNamedAfterTheProcessAndAppendedTo) {
	catches(SIGSEGV, SEGV_MAPERR);
	EXPECT_EQ("/opt/kaq/logs/crash/kaqcrash-" + std::to_string(getpid()) + ".log", opened_path);
	EXPECT_EQ(O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC,
			  opened_flags & (O_ACCMODE | O_CREAT | O_APPEND | O_CLOEXEC | O_TRUNC));
	std::string once = log();
	catches(SIGSEGV, SEGV_MAPERR);
	EXPECT_EQ(0u, log().find(once));
	EXPECT_LT(once.size(), log().size());
}

#ifdef __x86_64__
TEST_F(CrashHandler, LogBeginsWithWhatTheSignalTells) {
	catches(SIGFPE, FPE_INTDIV, (void *)0xabcdef, 0x1234567890abcdef);
	EXPECT_EQ(0u, log().find("KAQ CRASH Signal 8 received\n"
							 "KAQ CRASH siginfo address=0xabcdef\n"
							 "KAQ CRASH siginfo code =1\n"
							 "KAQ CRASH address = 90abcdef\n"
							 "KAQ CRASH Backtrace messages size: "));
}

TEST_F(CrashHandler, LogOfNullsAndNegativesIsWrittenAsTheyAre) {
	catches(SIGABRT, SI_TKILL, nullptr, 0x1200000000);
	EXPECT_EQ(0u, log().find("KAQ CRASH Signal 6 received\n"
							 "KAQ CRASH siginfo address=(nil)\n"
							 "KAQ CRASH siginfo code =-6\n"
							 "KAQ CRASH address = 0\n"));
}
#endif

TEST_F(CrashHandler, MisspeltLineIsPrintedAndNotLoggedIsMeant) {
	EXPECT_EQ("Program start addres = 0\n", catches(SIGSEGV, SEGV_MAPERR));
	EXPECT_EQ(std::string::npos, log().find("addres ="));
}

TEST_F(CrashHandler, NothingIsPrintedWhereNoLogCanBeOpened) {
	unlink(log_path);
	strcpy(log_path, "/nowhere/at/all");
	EXPECT_EQ("", catches(SIGSEGV, SEGV_MAPERR));
	EXPECT_EQ(in_order, reset);
}

/* What is in the log's place and no file of ours. */

class CrashLogPlace : public CrashHandler {
protected:
	void SetUp() override {
		CrashHandler::SetUp();
		unlink(log_path);
		theirs = std::string(log_path) + "-theirs";
		unlink(theirs.c_str());
	}

	void TearDown() override {
		unlink(theirs.c_str());
		CrashHandler::TearDown();
	}

	void write_theirs() const {
		std::ofstream(theirs) << "theirs";
	}

	std::string read_theirs() const {
		std::ostringstream text;
		text << std::ifstream(theirs).rdbuf();
		return text.str();
	}

	void expect_no_log() {
		EXPECT_EQ("", catches(SIGSEGV, SEGV_MAPERR));
		EXPECT_EQ(in_order, reset);
	}

	std::string theirs;
};

TEST_F(CrashLogPlace, FileIsMade) {
	EXPECT_EQ("Program start addres = 0\n", catches(SIGSEGV, SEGV_MAPERR));
	EXPECT_EQ(0u, log().find("KAQ CRASH Signal 11 received\n"));
}

TEST_F(CrashLogPlace, SymbolicLinkIsNotFollowed) {
	write_theirs();
	ASSERT_EQ(0, symlink(theirs.c_str(), log_path));
	expect_no_log();
	EXPECT_EQ("theirs", read_theirs());
}

TEST_F(CrashLogPlace, SymbolicLinkToNothingMakesNoFile) {
	ASSERT_EQ(0, symlink(theirs.c_str(), log_path));
	expect_no_log();
	EXPECT_NE(0, access(theirs.c_str(), F_OK));
}

TEST_F(CrashLogPlace, FileOfTwoNamesIsLeftAlone) {
	write_theirs();
	ASSERT_EQ(0, link(theirs.c_str(), log_path));
	expect_no_log();
	EXPECT_EQ("theirs", read_theirs());
	ASSERT_EQ(0, unlink(theirs.c_str()));
	catches(SIGSEGV, SEGV_MAPERR);
	EXPECT_EQ(0u, log().find("theirsKAQ CRASH Signal 11 received\n"));
}

TEST_F(CrashLogPlace, PipeThatNobodyReadsDoesNotHoldTheProcess) {
	ASSERT_EQ(0, mkfifo(log_path, 0600));
	auto dies_in_time = [this] {
		alarm(10);
		expect_no_log();
		_exit(HasFailure());
	};
	EXPECT_EXIT(dies_in_time(), ::testing::ExitedWithCode(0), "");
}

TEST_F(CrashLogPlace, PipeThatIsReadGetsNothing) {
	ASSERT_EQ(0, mkfifo(log_path, 0600));
	int reader = open(log_path, O_RDONLY | O_NONBLOCK);
	ASSERT_LE(0, reader);
	expect_no_log();
	char byte;
	EXPECT_EQ(0, read(reader, &byte, 1)) << "something was written, or the writing end is open";
	close(reader);
}
