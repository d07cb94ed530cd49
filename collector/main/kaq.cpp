/* The program. */
#include <cstdio>
#include <exception>

#include "cli/command_line.h"

int main(int count, char **arguments) {
	try {
		return kaq::run_command_line(count, arguments);
	} catch (const std::exception &error) {
		std::fprintf(stderr, "kaq: %s\n", error.what());
		return kaq::kFailed;
	}
}
