/* The collector's command line. */
#include <CLI/CLI.hpp>
#include <cstdio>
#include <exception>

#include "cli/verbs.h"

namespace {

void add_store(CLI::App *verb, std::string &store) {
	verb->add_option("--store", store, "directory of the collector's data")->type_name("DIR");
}

void add_configuration(CLI::App *verb, std::string &file) {
	verb->add_option("--config", file, "configuration file")->type_name("FILE");
}

/* "200ms", "1.5s" or a number of milliseconds. */
void add_duration(CLI::App *verb, const std::string &name, int64_t &milliseconds,
				  const std::string &text) {
	const std::map<std::string, double> units = {{"ms", 1}, {"s", 1000}, {"m", 60000}};
	verb->add_option_function<double>(
			name, [&milliseconds](double value) { milliseconds = static_cast<int64_t>(value); },
			text)
		->transform(CLI::AsNumberWithUnit(units, CLI::AsNumberWithUnit::CASE_SENSITIVE, ""))
		->type_name("TIME");
}

int run(int count, char **arguments) {
	CLI::App app("Collects, keeps and explains what PHP applications do.", "kaq");
	app.require_subcommand(1);

	kaq::CollectOptions collect;
	CLI::App *collect_verb = app.add_subcommand("collect", "run the collector");
	collect_verb->add_option("--handshake", collect.handshake_port, "port of the handshakes")
		->type_name("PORT");
	collect_verb->add_option("--data", collect.data_port, "port of the payloads")
		->type_name("PORT");
	collect_verb->add_option("--http", collect.http_port, "port of the web interface")
		->type_name("PORT");
	add_store(collect_verb, collect.store);
	add_configuration(collect_verb, collect.configuration);

	std::string configuration;
	CLI::App *config_verb = app.add_subcommand("config", "look at the configuration");
	config_verb->require_subcommand(1);
	CLI::App *check_verb = config_verb->add_subcommand("check", "say what is wrong in it");
	add_configuration(check_verb, configuration);
	CLI::App *show_verb = config_verb->add_subcommand("show", "print the settings that hold");
	add_configuration(show_verb, configuration);

	kaq::TailOptions tail;
	CLI::App *tail_verb = app.add_subcommand("tail", "show requests as they end");
	tail_verb->add_option("query", tail.query, "which requests, such as 'app:shop >300ms'")
		->type_name("QUERY");
	add_store(tail_verb, tail.store);
	add_configuration(tail_verb, tail.configuration);
	add_duration(tail_verb, "--slower", tail.slower, "only those that took at least this long");
	tail_verb->add_flag("--errors", tail.errors, "only those that failed");
	tail_verb->add_flag("--json", tail.json, "one JSON object a line");
	tail_verb->add_option("-n,--count", tail.count, "end after N requests")->type_name("N");

	CLI11_PARSE(app, count, arguments);
	if (collect_verb->parsed()) {
		return kaq::collect(collect);
	}
	if (check_verb->parsed()) {
		return kaq::config_check(configuration);
	}
	if (show_verb->parsed()) {
		return kaq::config_show(configuration);
	}
	return kaq::tail(tail);
}

} // namespace

int main(int count, char **arguments) {
	try {
		return run(count, arguments);
	} catch (const std::exception &error) {
		std::fprintf(stderr, "kaq: %s\n", error.what());
		return 1;
	}
}
