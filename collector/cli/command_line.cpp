#include "cli/command_line.h"

#include <CLI/CLI.hpp>

#include <algorithm>
#include <cstdio>

#include "cli/format.h"
#include "util/version.h"

namespace kaq {

const std::vector<AddVerb> &verbs() {
	static const std::vector<AddVerb> kVerbs = {
		add_collect, add_config, add_top,    add_tail,   add_find,         add_show,  add_compare,
		add_queries, add_errors, add_calls,  add_export, add_pin,          add_unpin, add_forget,
		add_mark,    add_open,   add_doctor, add_resume, add_destinations,
	};
	return kVerbs;
}

void add_store_option(CLI::App &verb, std::string &store) {
	verb.add_option("--store", store, "directory of the collector's data")->type_name("DIR");
}

void add_configuration_option(CLI::App &verb, std::string &file) {
	verb.add_option("--config", file, "configuration file")->type_name("FILE");
}

void add_common_options(CLI::App &verb, CommonOptions &options) {
	add_store_option(verb, options.store);
	add_configuration_option(verb, options.configuration);
	verb.add_flag("--json", options.is_json, "the collector's answer as it is");
}

void add_query_option(CLI::App &verb, FilterOptions &options) {
	verb.add_option("query", options.query, "which requests, such as 'app:shop >300ms since:1h'")
		->type_name("QUERY");
}

void add_range_options(CLI::App &verb, FilterOptions &options) {
	verb.add_option("--since", options.from, "only what began then or later: 1h (ago), 2026-11-22")
		->type_name("TIME");
	verb.add_option("--until", options.to, "only what began before that")->type_name("TIME");
	verb.add_option("--app", options.application, "only of this application")->type_name("NAME");
}

namespace {

constexpr const char *kStatuses =
	"Exit status: 0 done; 1 nothing was found, or it could not be done; 2 what was typed is wrong.";

/* Verbs with a footer of their own have it in the place of the program's. */
void add_statuses(CLI::App &verb) {
	if (verb.get_footer() != kStatuses) {
		verb.footer(verb.get_footer() + "\n" + kStatuses);
	}
}

/* A term that must not hold begins as an option does, and has a colon, which no option has. A blank
 * in front of it changes nothing but that. */
std::vector<std::string> with_terms(int count, char **arguments) {
	std::vector<std::string> texts(arguments + 1, arguments + count);
	for (std::string &text : texts) {
		bool is_short = text.size() > 2 && text[0] == '-' && text[1] != '-';
		size_t end = text.find_first_of(":=\" ");
		if (is_short && end != std::string::npos && text[end] == ':') {
			text.insert(0, " ");
		}
	}
	std::reverse(texts.begin(), texts.end());
	return texts;
}

/* What is typed in the place of a verb and is none; null if nothing is. */
const char *unknown_verb(const CLI::App &app, int count, char **arguments) {
	if (count < 2 || arguments[1][0] == '-') {
		return nullptr;
	}
	auto is_it = [arguments](const CLI::App *each) { return each->check_name(arguments[1]); };
	return app.get_subcommands(is_it).empty() ? arguments[1] : nullptr;
}

/* What nobody could be told was not done. */
int written(int status) {
	bool is_written = fflush(stdout) == 0 && ferror(stdout) == 0;
	if (is_written || status != kDone) {
		return status;
	}
	fprintf(stderr, "kaq: the output cannot be written\n");
	return kFailed;
}

std::string failure_text(const CLI::App *app, const CLI::Error &error) {
	std::string command = "kaq";
	for (const CLI::App *verb : app->get_subcommands()) {
		command += " " + verb->get_name();
	}
	return "kaq: " + printable(error.what()) + "\n'" + command + " -h' tells what is expected\n";
}

} // namespace

std::unique_ptr<CLI::App> make_command_line(int &status) {
	auto app =
		std::make_unique<CLI::App>("Collects, keeps and explains what PHP applications do.", "kaq");
	app->require_subcommand(1);
	app->set_version_flag("--version", std::string("kaq ") + kVersion, "show the version");
	app->footer(kStatuses);
	app->failure_message(failure_text);
	for (AddVerb add : verbs()) {
		add(*app, status);
	}
	for (CLI::App *verb : app->get_subcommands({})) {
		add_statuses(*verb);
	}
	return app;
}

int run_command_line(int count, char **arguments) {
	int status = kDone;
	std::unique_ptr<CLI::App> app = make_command_line(status);
	if (const char *unknown = unknown_verb(*app, count, arguments)) {
		fprintf(stderr, "kaq: there is no verb '%s': 'kaq -h' names those there are\n",
				printable(unknown).c_str());
		return kMisunderstood;
	}
	try {
		app->parse(with_terms(count, arguments));
	} catch (const CLI::ParseError &error) {
		return written(app->exit(error) == 0 ? kDone : kMisunderstood);
	}
	return written(status);
}

} // namespace kaq
