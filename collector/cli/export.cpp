/* kaq export: a request or a trace as a file that shows itself, or for other programs. */
#include <CLI/CLI.hpp>

#include <cstdio>
#include <memory>

#include "cli/client.h"
#include "cli/command_line.h"

namespace kaq {
namespace {

struct ExportOptions {
	CommonOptions common;
	std::string id;
	std::string format = "json";
};

int export_request(const ExportOptions &options) {
	Reply reply = Client(options.common)
					  .get("/api/v1/export", {{"id", options.id}, {"format", options.format}});
	if (!reply.is_good()) {
		return fail(reply);
	}
	print_json(reply);
	return kDone;
}

} // namespace

void add_export(CLI::App &app, int &status) {
	auto options = std::make_shared<ExportOptions>();
	CLI::App &verb = *app.add_subcommand("export", "write a request or a trace for other programs");
	verb.add_option("id", options->id, "of the request or the trace")->required()->type_name("ID");
	verb.add_option("--format", options->format, "html, speedscope, perfetto or json (json)")
		->type_name("FORMAT");
	add_store_option(verb, options->common.store);
	add_configuration_option(verb, options->common.configuration);
	verb.callback([options, &status] { status = export_request(*options); });
}

} // namespace kaq
