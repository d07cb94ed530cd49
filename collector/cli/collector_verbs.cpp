/* Verbs about the collector itself: collect, config, tail. */
#include <CLI/CLI.hpp>

#include <map>
#include <memory>

#include "cli/command_line.h"

namespace kaq {
namespace {

/* "200ms", "1.5s" or a number of milliseconds. */
void add_duration_option(CLI::App &verb, const std::string &name, int64_t &milliseconds,
						 const std::string &text) {
	const std::map<std::string, double> units = {{"ms", 1}, {"s", 1000}, {"m", 60000}};
	CLI::AsNumberWithUnit with_unit(units, CLI::AsNumberWithUnit::CASE_SENSITIVE, "");
	with_unit.description("");
	verb.add_option_function<double>(
			name, [&milliseconds](double value) { milliseconds = static_cast<int64_t>(value); },
			text)
		->transform(with_unit)
		->type_name("TIME");
}

} // namespace

void add_collect(CLI::App &app, int &status) {
	auto options = std::make_shared<CollectOptions>();
	CLI::App &verb = *app.add_subcommand("collect", "run the collector");
	auto add_port = [&verb](const char *name, std::optional<uint16_t> &port, const char *text) {
		verb.add_option(name, port, text)
			->type_name("PORT")
			->check(CLI::Range(0, UINT16_MAX).description(""));
	};
	add_port("--handshake", options->handshake_port, "port of the handshakes; 0 takes a free one");
	add_port("--data", options->data_port, "port of the payloads");
	add_port("--http", options->http_port, "port of the web interface");
	verb.add_flag("--json", options->is_json, "say as a JSON object where it listens");
	add_store_option(verb, options->store);
	add_configuration_option(verb, options->configuration);
	verb.callback([options, &status] { status = collect(*options); });
}

void add_config(CLI::App &app, int &status) {
	struct ConfigOptions {
		std::string file;
		bool is_json = false;
	};
	auto options = std::make_shared<ConfigOptions>();
	CLI::App &verb = *app.add_subcommand("config", "look at the configuration");
	verb.require_subcommand(1);
	CLI::App &check = *verb.add_subcommand("check", "say what is wrong in it");
	add_configuration_option(check, options->file);
	check.add_flag("--json", options->is_json, "the file and its mistakes as a JSON object");
	check.callback([options, &status] { status = config_check(options->file, options->is_json); });
	CLI::App &show = *verb.add_subcommand("show", "print the settings that hold");
	add_configuration_option(show, options->file);
	show.add_flag("--json", options->is_json, "as a JSON object, not as a configuration file");
	show.callback([options, &status] { status = config_show(options->file, options->is_json); });
}

void add_tail(CLI::App &app, int &status) {
	auto options = std::make_shared<TailOptions>();
	CLI::App &verb = *app.add_subcommand("tail", "show requests as they end");
	verb.add_option("query", options->query, "which requests, such as 'app:shop >300ms'")
		->type_name("QUERY");
	add_store_option(verb, options->store);
	add_configuration_option(verb, options->configuration);
	add_duration_option(verb, "--slower", options->slower,
						"only those that took at least this long");
	verb.add_flag("--errors", options->errors, "only those that failed");
	verb.add_flag("--json", options->json, "one JSON object a line");
	verb.add_option("-n,--count", options->count, "end after N requests")
		->type_name("N")
		->check(CLI::Range(int64_t{1}, int64_t{1000000000}));
	verb.callback([options, &status] { status = tail(*options); });
}

} // namespace kaq
