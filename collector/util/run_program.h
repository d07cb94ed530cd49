/* Runs another program to its end and keeps what it printed. Any thread. */
#pragma once

#include <chrono>
#include <string>
#include <vector>

namespace kaq {

struct ProgramLimits {
	std::chrono::milliseconds time{15000};
	size_t bytes = 4 * 1024 * 1024; /* of what it prints */
};

struct ProgramRun {
	int status = -1; /* that it ended with; 128 and the signal's number if that ended it */
	bool is_late = false;
	std::string output;  /* standard output and standard error */
	std::string mistake; /* why it could not be run; empty if it was */
};

/*
 * The first of the arguments is the program's path. It has nothing to read, and of its environment
 * `variables` ("NAME=value") replace what is ours. It leads a process group, which is killed when
 * the time or the room is used up.
 */
ProgramRun run_program(const std::vector<std::string> &arguments,
					   const std::vector<std::string> &variables = {},
					   const ProgramLimits &limits = ProgramLimits());

} // namespace kaq
