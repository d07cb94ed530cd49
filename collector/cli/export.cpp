/* kaq export: a request or a trace as a file that shows itself, or for other programs. */
#include <CLI/CLI.hpp>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "cli/client.h"
#include "cli/command_line.h"
#include "cli/export_history.h"
#include "cli/format.h"
#include "cli/toml_section_private.h"

namespace kaq {
namespace {

constexpr size_t kEnd = 100;

struct ExportOptions {
	CommonOptions common;
	std::string id;
	std::string format = "json";
	FilterOptions filter;
	HistoryOptions history;
};

/* What is missing in the file. */
void say(const Reply &reply, const char *member, const char *why) {
	/* It stands at the end; what is long is not taken apart for it. */
	std::string end = reply.text.substr(reply.text.size() - std::min(reply.text.size(), kEnd));
	size_t at = end.rfind(std::string("\"") + member + "\":");
	int64_t count = at == std::string::npos ? 0 : atoll(end.c_str() + at + strlen(member) + 3);
	if (count > 0) {
		fprintf(stderr, "kaq: %s of the trace missing: %s\n",
				count_of(count, "request is", "requests are").c_str(), why);
	}
}

int export_request(const ExportOptions &options) {
	if (!options.history.url.empty()) {
		return export_history(options.history, options.common, options.filter);
	}
	Reply reply = Client(options.common)
					  .get("/api/v1/export", {{"id", options.id}, {"format", options.format}});
	if (!reply.is_good()) {
		return fail(reply);
	}
	print_json(reply);
	say(reply, "not_kept", "their documents were not kept");
	say(reply, "left_out", "they are too many for one file; export them one by one");
	return kDone;
}

void add_history_options(CLI::App &verb, ExportOptions &options, CLI::Option &id) {
	HistoryOptions &history = options.history;
	CLI::Option &url =
		*verb.add_option("--otlp", history.url, "send what is stored there")
			 ->type_name("URL")
			 ->check([](const std::string &text) {
				 return is_web_address(text) ? std::string() : "it begins with http:// or https://";
			 });
	url.excludes(&id);
	verb.add_option("--header", history.headers, "to be sent with it, \"Name: value\"")
		->type_name("TEXT")
		->needs(&url);
	verb.add_option("--signal", history.signals, "traces, logs or both (traces)")
		->type_name("NAME")
		->check(CLI::IsMember({"traces", "logs"}))
		->needs(&url);
	verb.add_option("--ca-file", history.ca_file, "whose certificates are trusted")
		->type_name("FILE")
		->needs(&url);
	verb.add_flag("--keep-literals", history.keeps_literals, "of statements, where they are stored")
		->needs(&url);
	add_range_options(verb, options.filter);
	for (const char *name : {"--since", "--until", "--app"}) {
		verb.get_option(name)->needs(&url);
	}
}

} // namespace

void add_export(CLI::App &app, int &status) {
	auto options = std::make_shared<ExportOptions>();
	CLI::App &verb = *app.add_subcommand("export", "write a request or a trace for other programs");
	verb.footer("What is stored is sent to another place by --otlp; docs/export.md tells how.");
	CLI::Option &id =
		*verb.add_option("id", options->id, "of the request or the trace")->type_name("ID");
	CLI::Option &format =
		*verb.add_option("--format", options->format, "html, speedscope, perfetto or json (json)")
			 ->type_name("FORMAT");
	add_store_option(verb, options->common.store);
	add_configuration_option(verb, options->common.configuration);
	verb.add_flag("--json", options->common.is_json, "the same as --format json")
		->excludes(&format);
	add_history_options(verb, *options, id);
	verb.callback([options, &status] {
		if (options->id.empty() && options->history.url.empty()) {
			throw CLI::RequiredError("ID or --otlp");
		}
		status = export_request(*options);
	});
}

} // namespace kaq
