/* kaq find: requests that fulfil a query. */
#include <CLI/CLI.hpp>

#include <cstdio>
#include <memory>

#include "cli/client.h"
#include "cli/command_line.h"
#include "cli/format.h"
#include "cli/request_text.h"
#include "cli/table.h"

namespace kaq {
namespace {

struct FindOptions {
	CommonOptions common;
	FilterOptions filter;
	bool is_slowest = false;
	int64_t count = 50;
};

void print_found(const nlohmann::json &found, const Terminal &terminal) {
	Table table = request_table();
	int64_t shown = 0;
	for (const nlohmann::json &request : found.at("requests")) {
		add_request(table, request);
		shown++;
	}
	fputs(table.text(terminal).c_str(), stdout);
	if (found.value("partial", false)) {
		fprintf(stderr, "kaq: the time was up after %s: narrow the search, such as by since:1h\n",
				count_of(found.value("looked_at", int64_t{0}), "request", "requests").c_str());
	} else if (found.value("more", false)) {
		fprintf(stderr, "kaq: the first %s: -n N shows more\n",
				count_of(shown, "request", "requests").c_str());
	}
}

/* Also where nothing was found: that may be why. */
void print_damages(const nlohmann::json &found) {
	for (const nlohmann::json &damage : found.value("damages", nlohmann::json::array())) {
		fprintf(stderr, "kaq: requests of that time are missing: %s\n",
				printable(damage.get<std::string>()).c_str());
	}
}

int find(const FindOptions &options) {
	Parameters parameters = parameters_of(options.filter);
	parameters["limit"] = std::to_string(options.count);
	parameters["order"] = options.is_slowest ? "slowest" : "newest";
	Reply reply = Client(options.common).get("/api/v1/requests", parameters);
	if (!reply.is_good()) {
		return fail(reply, options.filter.query);
	}
	nlohmann::json found = reply.json();
	bool is_empty = found.at("requests").empty();
	if (options.common.is_json) {
		print_json(reply);
	} else if (is_empty) {
		fprintf(stderr, "kaq: no request was found\n");
	} else {
		print_found(found, standard_output());
	}
	if (!options.common.is_json) {
		print_damages(found);
	}
	return is_empty ? kFailed : kDone;
}

} // namespace

void add_find(CLI::App &app, int &status) {
	auto options = std::make_shared<FindOptions>();
	CLI::App &verb = *app.add_subcommand("find", "find requests");
	verb.footer("docs/find.md describes the language of queries. The newest come first.");
	add_query_option(verb, options->filter);
	verb.add_flag("--slowest", options->is_slowest, "the slowest first");
	verb.add_option("-n,--count", options->count, "at most N requests (50)")->type_name("N");
	add_range_options(verb, options->filter);
	add_common_options(verb, options->common);
	verb.callback([options, &status] { status = find(*options); });
}

} // namespace kaq
