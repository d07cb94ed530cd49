#include <cstdio>

#include "cli/configuration.h"
#include "cli/verbs.h"

namespace kaq {
namespace {

ConfigurationOrMistakes load_or_say(const std::string &file) {
	ConfigurationOrMistakes configuration = load_configuration(file);
	if (!configuration) {
		fputs(mistakes_text(configuration_file(file), configuration.error()).c_str(), stderr);
	}
	return configuration;
}

} // namespace

int config_check(const std::string &file) {
	if (!load_or_say(file)) {
		return 1;
	}
	std::string read = configuration_file(file);
	printf("%s\n", read.empty() ? "no configuration file: the defaults hold"
								: (read + ": no mistake").c_str());
	return 0;
}

int config_show(const std::string &file) {
	ConfigurationOrMistakes configuration = load_or_say(file);
	if (!configuration) {
		return 1;
	}
	fputs(to_toml(*configuration).c_str(), stdout);
	return 0;
}

} // namespace kaq
