#include <cstdio>

#include <nlohmann/json.hpp>

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

int check_as_json(const std::string &file) {
	ConfigurationOrMistakes configuration = load_configuration(file);
	nlohmann::json mistakes = nlohmann::json::array();
	if (!configuration) {
		for (const ConfigurationMistake &each : configuration.error()) {
			mistakes.push_back({{"line", each.line > 0 ? nlohmann::json(each.line) : nullptr},
								{"text", each.text}});
		}
	}
	std::string read = configuration_file(file);
	nlohmann::json answer = {{"file", read.empty() ? nlohmann::json() : nlohmann::json(read)},
							 {"mistakes", std::move(mistakes)}};
	puts(answer.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace).c_str());
	return configuration ? 0 : 1;
}

} // namespace

int config_check(const std::string &file, bool is_json) {
	if (is_json) {
		return check_as_json(file);
	}
	if (!load_or_say(file)) {
		return 1;
	}
	std::string read = configuration_file(file);
	printf("%s\n", read.empty() ? "no configuration file: the defaults hold"
								: (read + ": no mistake").c_str());
	return 0;
}

int config_show(const std::string &file, bool is_json) {
	ConfigurationOrMistakes configuration = load_or_say(file);
	if (!configuration) {
		return 1;
	}
	fputs((is_json ? to_json_text(*configuration) : to_toml(*configuration)).c_str(), stdout);
	return 0;
}

} // namespace kaq
