/* The crash handler's calls of the system, which the linker lets a test stand in for. What becomes
 * of a real process is seen from outside. */
#pragma once

#include "engine.h"

#include <map>
#include <signal.h>

struct installation {
	int number;
	struct sigaction action;
};

/* Everything is real while this is off. */
extern bool is_standing_in;
extern int refused_signal;
extern std::vector<installation> installed;
/* What the signals have, unless it is the default. */
extern std::map<int, struct sigaction> in_place;
extern std::vector<int> reset;
extern std::vector<int> raised;
extern std::string opened_path;
extern int opened_flags;
extern std::string command_line;
extern int command_status;
/* Where the log goes, even for a process that has nothing left but its signal stack. */
extern char log_path[64];

static const std::vector<int> in_order = {SIGFPE, SIGSEGV, SIGILL, SIGABRT, SIGSYS};

class CrashHandler : public ::testing::Test {
protected:
	void SetUp() override;
	void TearDown() override;

	static std::string log();

	/* The handler's work for a signal; what it prints is returned. */
	static std::string catches(int number, int code, void *address = nullptr,
							   uint64_t instruction = 0);
};
