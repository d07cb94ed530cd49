/* kaq queries, errors, calls: what requests did, summed up. */
#include <CLI/CLI.hpp>

#include <cstdio>
#include <memory>

#include "cli/figure_text.h"
#include "cli/format.h"
#include "util/system_time.h"

namespace kaq {
namespace {

using nlohmann::json;

constexpr int64_t kUsualRows = 20;

/* A verb that shows one list of an answer as a table. */
struct GroupVerb {
	const char *name;
	const char *help;
	const char *path;
	const char *list; /* in the answer */
	const char *orders;
	Table (*table)(const json &rows, const Terminal &terminal);
	const char *empty = "kaq: there were none in that time; --since 24h looks further back\n";
};

constexpr const char *kTimedOrders = "time, count, errors, p50, p95, p99, longest, last";

std::string server_of(const json &row) {
	std::string database = string_of(row, "database");
	std::string server = string_of(row, "server");
	return database.empty() || server.empty() ? server + database : server + "/" + database;
}

Table statement_table(const json &rows, const Terminal &terminal) {
	bool wide = is_wide(terminal);
	std::vector<Column> columns = {{"time", Align::kRight},
								   {"total", Align::kRight},
								   {"count", Align::kRight},
								   {"p95", Align::kRight},
								   {"failed", Align::kRight}};
	if (wide) {
		columns.insert(columns.end(),
					   {{"example"}, {"database", Align::kLeft, 8}, {"callers", Align::kLeft, 10}});
	}
	columns.push_back({"app", Align::kLeft, 4});
	columns.push_back({"statement", Align::kLeft, 20});
	Table table(std::move(columns));
	for (const json &row : rows) {
		std::vector<Cell> cells = {share_cell(row, "time_share"), duration_cell(row, "total_ms"),
								   count_text(whole_of(row, "count")), duration_cell(row, "p95_ms"),
								   error_cell(row)};
		if (wide) {
			cells.push_back({string_of(row, "example"), Colour::kCyan});
			cells.push_back(server_of(row));
			cells.push_back(parts_text(row, "callers", "callers_count"));
		}
		cells.push_back(string_of(row, "application"));
		cells.push_back(string_of(row, "statement"));
		table.add(std::move(cells));
	}
	return table;
}

Table host_table(const json &rows, const Terminal &terminal) {
	bool wide = is_wide(terminal);
	std::vector<Column> columns = {{"time", Align::kRight},  {"total", Align::kRight},
								   {"count", Align::kRight}, {"p50", Align::kRight},
								   {"p95", Align::kRight},   {"failed", Align::kRight}};
	if (wide) {
		columns.insert(columns.end(), {{"longest", Align::kRight}, {"example"}});
	}
	columns.push_back({"app", Align::kLeft, 4});
	columns.push_back({"host", Align::kLeft, 12});
	if (wide) {
		columns.push_back({"transactions", Align::kLeft, 12});
	}
	Table table(std::move(columns));
	for (const json &row : rows) {
		std::vector<Cell> cells = {
			share_cell(row, "time_share"),      duration_cell(row, "total_ms"),
			count_text(whole_of(row, "count")), duration_cell(row, "p50_ms"),
			duration_cell(row, "p95_ms"),       error_cell(row)};
		if (wide) {
			cells.push_back(duration_cell(row, "longest_ms"));
			cells.push_back({string_of(row, "example"), Colour::kCyan});
		}
		cells.push_back(string_of(row, "application"));
		cells.push_back(string_of(row, "host"));
		if (wide) {
			cells.push_back(parts_text(row, "transactions", "transactions_count"));
		}
		table.add(std::move(cells));
	}
	return table;
}

Table failure_table(const json &rows, const Terminal &terminal) {
	bool wide = is_wide(terminal);
	std::vector<Column> columns = {{"count", Align::kRight}, {"last"}};
	if (wide) {
		columns.insert(columns.end(), {{"first"}, {"example"}});
	}
	columns.insert(columns.end(), {{"app", Align::kLeft, 4}, {"error", Align::kLeft, 20}});
	if (wide) {
		columns.insert(columns.end(),
					   {{"place", Align::kLeft, 12}, {"transactions", Align::kLeft, 12}});
	}
	Table table(std::move(columns));
	int64_t now = system_time();
	auto time = [now](const json &row, const char *name) {
		std::string text = time_text(whole_of(row, name), now);
		return Cell(text.substr(0, text.rfind('.')), Colour::kDim);
	};
	for (const json &row : rows) {
		std::vector<Cell> cells = {count_text(whole_of(row, "count")), time(row, "last_ms")};
		if (wide) {
			cells.push_back(time(row, "first_ms"));
			cells.push_back({string_of(row, "example"), Colour::kCyan});
		}
		bool is_fatal = whole_of(row, "fatal") > 0;
		cells.push_back(string_of(row, "application"));
		cells.push_back({string_of(row, "type") + ": " + string_of(row, "message"),
						 is_fatal ? Colour::kRed : Colour::kYellow});
		if (wide) {
			cells.push_back(string_of(row, "place"));
			cells.push_back(parts_text(row, "transactions", "transactions_count"));
		}
		table.add(std::move(cells));
	}
	return table;
}

int show(const GroupVerb &verb, const FigureOptions &options) {
	Reply reply = Client(options.common).get(verb.path, parameters_of(options, kUsualRows));
	if (!reply.is_good()) {
		return fail(reply);
	}
	json answer = reply.json();
	const json &rows = answer.at(verb.list);
	if (options.common.is_json) {
		print_json(reply);
	} else if (rows.empty()) {
		fputs(verb.empty, stderr);
	} else {
		Terminal terminal = standard_output();
		fputs(verb.table(rows, terminal).text(terminal).c_str(), stdout);
		if (answer.value("more", false)) {
			fprintf(stderr, "kaq: there are more: -n N shows them\n");
		}
	}
	return rows.empty() ? kFailed : kDone;
}

void add_group_verb(CLI::App &app, int &status, const GroupVerb &verb) {
	auto options = std::make_shared<FigureOptions>();
	CLI::App &added = *app.add_subcommand(verb.name, verb.help);
	add_figure_options(added, *options, verb.orders);
	added.callback([options, verb, &status] { status = show(verb, *options); });
}

} // namespace

void add_queries(CLI::App &app, int &status) {
	add_group_verb(app, status,
				   {"queries", "show the statements that take the most time", "/api/v1/queries",
					"statements", kTimedOrders, statement_table});
}

void add_errors(CLI::App &app, int &status) {
	add_group_verb(
		app, status,
		{"errors", "show errors and exceptions, those that are alike as one", "/api/v1/errors",
		 "errors", "count, last, first, fatal", failure_table,
		 "kaq: no error or exception was recorded in that time; --since 24h looks further "
		 "back.\n     Requests that failed by their status alone: kaq find is:failed\n"});
}

void add_calls(CLI::App &app, int &status) {
	add_group_verb(app, status,
				   {"calls", "show the hosts that are called over HTTP", "/api/v1/calls", "hosts",
					kTimedOrders, host_table});
}

} // namespace kaq
