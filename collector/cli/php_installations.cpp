/* Finds what runs PHP on the host, and asks it about itself. */
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <set>
#include <sstream>

#include <fmt/format.h>

#include "cli/doctor_private.h"
#include "util/run_program.h"

namespace kaq {
namespace {

constexpr size_t kMostInstallations = 32;
constexpr size_t kLongestValue = 1024;

std::string without_tags(std::string_view cell) {
	std::string text;
	while (!cell.empty()) {
		size_t begin = cell.find('<');
		size_t end = cell.find('>', begin);
		if (begin == cell.npos || end == cell.npos) {
			break;
		}
		text.append(cell.substr(0, begin));
		cell.remove_prefix(end + 1);
	}
	return text.append(cell);
}

/* php, php-fpm or php-cgi, which a version may follow. */
bool is_php_name(std::string_view name) {
	for (std::string_view prefix : {"php-fpm", "php-cgi", "php"}) {
		if (name.substr(0, prefix.size()) == prefix) {
			return name.find_first_not_of("0123456789.", prefix.size()) == name.npos;
		}
	}
	return false;
}

/* Without what may be tags and entities of a page. */
std::string plain(const std::string &cell) {
	std::string text = without_tags(cell);
	for (const auto &[entity, character] :
		 {std::pair("&lt;", "<"), std::pair("&gt;", ">"), std::pair("&quot;", "\""),
		  std::pair("&#039;", "'"), std::pair("&amp;", "&")}) {
		for (size_t at; (at = text.find(entity)) != std::string::npos;) {
			text.replace(at, strlen(entity), character);
		}
	}
	size_t begin = text.find_first_not_of(' ');
	size_t end = text.find_last_not_of(" \r");
	return begin == std::string::npos ? "" : text.substr(begin, end + 1 - begin);
}

/* The cells of a line, of either form. */
std::vector<std::string> cells_of(const std::string &line) {
	std::vector<std::string> cells;
	bool is_page = line.compare(0, 4, "<tr>") == 0;
	const std::string separator = is_page ? "</td>" : " => ";
	size_t begin = 0;
	for (size_t end; (end = line.find(separator, begin)) != std::string::npos;) {
		cells.push_back(plain(line.substr(begin, end - begin)));
		begin = end + separator.size();
	}
	if (!is_page) {
		cells.push_back(plain(line.substr(begin)));
	}
	return cells;
}

std::vector<std::string> directories(const std::string &root) {
	std::vector<std::string> all;
	const char *path = root.empty() ? std::getenv("PATH") : nullptr;
	std::istringstream parts(path ? path : "");
	for (std::string part; std::getline(parts, part, ':');) {
		if (!part.empty() && part.front() == '/') {
			all.push_back(part);
		}
	}
	for (const char *each : {"/usr/local/bin", "/usr/bin", "/usr/local/sbin", "/usr/sbin"}) {
		all.push_back(root + each);
	}
	for (const char *pattern : {"/opt/*/bin", "/opt/*/sbin", "/opt/*/*/bin", "/opt/*/*/sbin",
								"/opt/*/*/*/usr/bin", "/opt/*/*/*/usr/sbin"}) {
		std::vector<std::string> found = matching_files(root, pattern);
		all.insert(all.end(), found.begin(), found.end());
	}
	return all;
}

/* The superuser runs nothing that somebody else could have put there. */
std::string mistrust(const std::string &file, bool is_superuser) {
	struct stat facts;
	if (stat(file.c_str(), &facts) != 0 || !S_ISREG(facts.st_mode)) {
		return "is no program";
	}
	bool is_foreign = facts.st_uid != 0 || (facts.st_mode & (S_IWGRP | S_IWOTH)) != 0;
	return is_superuser && is_foreign ? "is not run as root, since others may change it" : "";
}

PhpInstallation ask(const std::string &name, const std::vector<std::string> &command,
					const std::vector<std::string> &variables) {
	PhpInstallation installation;
	installation.name = name;
	ProgramRun run = run_program(command, variables);
	if (!run.mistake.empty()) {
		installation.mistake = "cannot be run: " + run.mistake;
	} else if (run.is_late) {
		installation.mistake = "did not end within 15 seconds";
	} else {
		installation.values = read_phpinfo(run.output);
		if (installation.values.count("PHP Version") == 0) {
			installation.mistake =
				"says nothing about itself (status " + std::to_string(run.status) + ")";
		}
	}
	return installation;
}

/* Apache runs PHP in its own process: the same version's program is asked with Apache's files. */
void ask_for_apache(const std::string &root, std::vector<PhpInstallation> &installations) {
	for (const std::string &directory : matching_files(root, "/etc/php/*/apache2")) {
		std::string version = std::filesystem::path(directory).parent_path().filename().string();
		std::string program = fmt::format("{}/usr/bin/php{}", root, version);
		if (access(program.c_str(), X_OK) == 0 &&
			access((directory + "/php.ini").c_str(), R_OK) == 0) {
			installations.push_back(ask(fmt::format("{} (as {} reads it)", directory, program),
										{program, "-c", directory + "/php.ini", "-i"},
										{"PHP_INI_SCAN_DIR=" + directory + "/conf.d"}));
		}
	}
}

} // namespace

std::string PhpInstallation::value(const std::string &name) const {
	auto found = values.find(name);
	return found == values.end() || found->second == "no value" ? "" : found->second;
}

std::map<std::string, std::string> read_phpinfo(std::string_view text) {
	std::map<std::string, std::string> values;
	std::istringstream lines{std::string(text)};
	for (std::string line; std::getline(lines, line);) {
		/* Whole pages of credits and logos are on one line. */
		if (line.size() > 64 * kLongestValue) {
			continue;
		}
		std::vector<std::string> cells = cells_of(line);
		if (cells.size() >= 2 && !cells[0].empty()) {
			values.try_emplace(cells[0], cells[1].substr(0, kLongestValue));
		}
	}
	return values;
}

std::vector<PhpInstallation> find_php(const std::string &root, bool is_superuser) {
	std::vector<PhpInstallation> installations;
	std::set<std::string> seen;
	for (const std::string &directory : directories(root)) {
		std::error_code error;
		std::vector<std::string> names;
		for (std::filesystem::directory_iterator entry(directory, error), end;
			 !error && entry != end; entry.increment(error)) {
			std::string name = entry->path().filename().string();
			if (is_php_name(name)) {
				names.push_back(name);
			}
		}
		std::sort(names.begin(), names.end());
		for (const std::string &name : names) {
			std::string file = fmt::format("{}/{}", directory, name);
			std::string target = std::filesystem::canonical(file, error).string();
			if (error || access(target.c_str(), X_OK) != 0 || !seen.insert(target).second ||
				installations.size() >= kMostInstallations) {
				continue;
			}
			std::string reason = mistrust(target, is_superuser);
			installations.push_back(reason.empty() ? ask(target, {target, "-i"}, {})
												   : PhpInstallation{target, reason, {}});
		}
	}
	ask_for_apache(root, installations);
	return installations;
}

} // namespace kaq
