/* Writes manual pages and the shell's completion from the definitions of the verbs. No state. */
#pragma once

#include <map>
#include <string>

namespace CLI {
class App;
} // namespace CLI

namespace kaq {

struct ManualEdition {
	std::string version;
	std::string date; /* of the pages: 2026-11-22 */
};

/* The program's page and one for each of its verbs, by the names of their files: "kaq-find.1". */
std::map<std::string, std::string> man_pages(const CLI::App &program, const ManualEdition &edition);

/* A file for bash, which offers verbs and options, and files where an option wants one. */
std::string bash_completion(const CLI::App &program);

} // namespace kaq
