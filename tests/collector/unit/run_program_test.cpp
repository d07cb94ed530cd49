/* Other programs, bounded in time and in what they print. */
#include "util/run_program.h"

#include <gtest/gtest.h>

namespace {

using kaq::ProgramRun;
using kaq::run_program;

ProgramRun shell(const std::string &script, kaq::ProgramLimits limits = {}) {
	return run_program({"/bin/sh", "-c", script}, {"KAQ_TEST=set"}, limits);
}

TEST(RunProgram, WhatItPrintsAndHowItEndsIsKept) {
	ProgramRun run = shell("echo out; echo err >&2; echo $KAQ_TEST; cat; exit 3");
	EXPECT_EQ(run.output, "out\nerr\nset\n");
	EXPECT_EQ(run.status, 3);
	EXPECT_FALSE(run.is_late);
	EXPECT_EQ(run.mistake, "");
	EXPECT_EQ(shell("kill -9 $$").status, 137);
}

TEST(RunProgram, WhatCannotBeRunIsAMistake) {
	EXPECT_NE(run_program({"/nowhere/program"}).mistake, "");
}

TEST(RunProgram, ItEndsWhenItsTimeIsUp) {
	kaq::ProgramLimits limits;
	limits.time = std::chrono::milliseconds(200);
	ProgramRun run = shell("echo begun; sleep 1000", limits);
	EXPECT_TRUE(run.is_late);
	EXPECT_EQ(run.output, "begun\n");
	EXPECT_EQ(run.status, 137);
}

TEST(RunProgram, ItEndsWhenItHasClosedItsOutputToo) {
	EXPECT_TRUE(shell("exec >&- 2>&-; sleep 1000").is_late);
}

TEST(RunProgram, ItEndsWhenItPrintsTooMuch) {
	kaq::ProgramLimits limits;
	limits.bytes = 100000;
	ProgramRun run = shell("yes", limits);
	EXPECT_TRUE(run.is_late);
	EXPECT_LT(run.output.size(), 200000u);
}

} // namespace
