/* Writes the manual pages and bash's completion of the program into a directory that is there, for
 * packages: kaq_manual DIRECTORY VERSION DATE. */
#include <CLI/CLI.hpp>

#include <cstdio>
#include <fstream>
#include <memory>
#include <string>

#include "cli/command_line.h"
#include "cli/manual.h"

namespace {

bool write_file(const std::string &path, const std::string &text) {
	std::ofstream file(path, std::ios::binary | std::ios::trunc);
	file << text;
	file.close();
	if (!file) {
		std::fprintf(stderr, "kaq_manual: cannot write %s\n", path.c_str());
	}
	return file.good();
}

} // namespace

int main(int count, char **arguments) {
	if (count != 4) {
		std::fputs("usage: kaq_manual DIRECTORY VERSION DATE\n", stderr);
		return kaq::kMisunderstood;
	}
	const std::string directory = std::string(arguments[1]) + "/";
	int status = kaq::kDone;
	std::unique_ptr<CLI::App> program = kaq::make_command_line(status);
	bool is_done = write_file(directory + "kaq.bash", kaq::bash_completion(*program));
	for (const auto &[name, page] : kaq::man_pages(*program, {arguments[2], arguments[3]})) {
		is_done = write_file(directory + name, page) && is_done;
	}
	return is_done ? kaq::kDone : kaq::kFailed;
}
