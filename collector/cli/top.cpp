/* kaq top: transactions with their figures, drawn anew as long as somebody looks. */
#include <CLI/CLI.hpp>

#include <cstdio>
#include <ctime>
#include <memory>

#include <fmt/format.h>

#include "cli/figure_text.h"
#include "cli/format.h"
#include "cli/live_screen.h"
#include "util/units.h"
#include "util/system_time.h"

namespace kaq {
namespace {

using nlohmann::json;

constexpr std::chrono::milliseconds kRefresh{2000};
constexpr int64_t kUsualRows = 20;
constexpr int64_t kLinesAround = 6; /* of the screen, above and below the rows */
constexpr double kWhole = 0.9999;

struct TopOptions {
	FigureOptions figures;
	std::string threshold;
	bool is_once = false;
};

Colour colour_of_apdex(const json &row) {
	std::optional<double> apdex = number_of(row, "apdex");
	if (!apdex || *apdex >= 0.85) {
		return Colour::kNone;
	}
	return *apdex < 0.7 ? Colour::kRed : Colour::kYellow;
}

std::string apdex_text(const json &row) {
	std::optional<double> apdex = number_of(row, "apdex");
	return apdex ? fmt::format("{:.2f}", *apdex) : "-";
}

/* What is not counted is marked as an estimate. */
std::string rate_cell(const json &row) {
	bool is_exact = row.value("exact", false) || !number_of(row, "monitored_share");
	return (is_exact ? "" : "~") + rate_text(number_of(row, "calls_per_minute").value_or(0));
}

bool has_shares(const json &rows) {
	for (const json &row : rows) {
		if (number_of(row, "monitored_share").value_or(1) < kWhole) {
			return true;
		}
	}
	return false;
}

std::string each_text(const json &row, const char *name) {
	std::optional<double> number = number_of(row, name);
	return number ? rate_text(*number) : "-";
}

Table top_table(const json &rows, const Terminal &terminal) {
	bool wide = is_wide(terminal);
	bool shares = has_shares(rows);
	auto optional = [](const char *title) { return Column{title, Align::kRight, 0, true}; };
	std::vector<Column> columns = {{"time", Align::kRight}, optional("calls/min"), optional("p50"),
								   {"p95", Align::kRight},  optional("p99"),       optional("err"),
								   optional("apdex")};
	if (shares) {
		columns.insert(columns.begin() + 2, optional("rec"));
	}
	if (wide) {
		columns.push_back({"queries", Align::kRight});
		columns.push_back({"database", Align::kRight});
		columns.push_back({"external", Align::kRight});
		columns.push_back({"slowest"});
	}
	columns.push_back({"app", Align::kLeft, 4});
	columns.push_back({"transaction", Align::kLeft, 8});
	Table table(std::move(columns));
	for (const json &row : rows) {
		std::vector<Cell> cells = {
			share_cell(row, "time_share"),          rate_cell(row),
			duration_cell(row, "p50_ms"),           duration_cell(row, "p95_ms"),
			duration_cell(row, "p99_ms"),           error_cell(row),
			{apdex_text(row), colour_of_apdex(row)}};
		if (shares) {
			cells.insert(cells.begin() + 2, share_cell(row, "monitored_share"));
		}
		if (wide) {
			cells.push_back(each_text(row, "queries_per_request"));
			cells.push_back(duration_cell(row, "database_ms"));
			cells.push_back(duration_cell(row, "external_ms"));
			cells.push_back({string_of(row, "slowest"), Colour::kCyan});
		}
		cells.push_back(string_of(row, "application"));
		cells.push_back(string_of(row, "transaction"));
		table.add(std::move(cells));
	}
	return table;
}

std::string minutes_text(double minutes) {
	return duration_text(static_cast<int64_t>(minutes * 60) * 1000);
}

/* "1 230 requests in 5 m 00 s, 246/min; p95 120 ms, errors 2 %, Apdex 0.93" */
std::string head_of(const json &answer) {
	const json &total = answer.at("total");
	std::string text = fmt::format(
		"{} in {}, {}/min; p95 {}, errors {}, Apdex {}",
		count_of(whole_of(total, "requests"), "request", "requests"),
		minutes_text(number_of(answer.at("range"), "minutes").value_or(0)), rate_cell(total),
		duration_cell(total, "p95_ms"), share_cell(total, "error_share"), apdex_text(total));
	json suspended = answer.value("suspended", json::array());
	if (!suspended.empty()) {
		std::string name = printable(string_of(suspended.front(), "application"));
		std::string what = name.empty() ? "nothing is monitored" : name + " is not monitored";
		text = what + ", see kaq doctor; " + text;
	}
	double share = number_of(total, "monitored_share").value_or(1);
	if (share < kWhole) {
		text += "; times of the " + share_text(share, 1) + " that are recorded";
	}
	return text;
}

/* What the name with the most requests hides; empty if none does. */
std::string hint_of(const json &answer) {
	const json hidden = answer.value("hidden_pages", json::array());
	if (hidden.empty()) {
		return "";
	}
	const json &first = hidden.front();
	std::string others =
		hidden.size() == 1 ? "" : fmt::format(", and {} other names like that", hidden.size() - 1);
	return printable(fmt::format("{} is {} pages and more{}: {}", string_of(first, "transaction"),
								 whole_of(first, "pages"), others, string_of(first, "advice")));
}

std::string text_of(const json &answer, const Terminal &terminal) {
	const json &rows = answer.at("transactions");
	std::string head = head_of(answer);
	if (terminal.width > 0) {
		head = shortened_to(head, static_cast<size_t>(terminal.width));
	}
	return terminal.paint(head, Colour::kBold) + "\n\n" + top_table(rows, terminal).text(terminal);
}

Reply ask(Client &client, const TopOptions &options, int64_t usual_rows) {
	Parameters parameters = parameters_of(options.figures, usual_rows);
	if (!options.threshold.empty()) {
		auto threshold = parse_duration(options.threshold);
		parameters["apdex"] = threshold ? std::to_string(threshold->count()) : options.threshold;
	}
	return client.get("/api/v1/top", parameters);
}

int top_once(const TopOptions &options) {
	Client client(options.figures.common);
	Reply reply = ask(client, options, kUsualRows);
	if (!reply.is_good()) {
		return fail(reply);
	}
	json answer = reply.json();
	bool is_empty = answer.at("transactions").empty();
	if (options.figures.common.is_json) {
		print_json(reply);
	} else if (is_empty) {
		fprintf(stderr, "kaq: nothing was recorded in that time; --since 24h looks further back\n");
	} else {
		fputs(text_of(answer, standard_output()).c_str(), stdout);
		if (std::string hint = hint_of(answer); !hint.empty()) {
			fprintf(stderr, "kaq: %s\n", hint.c_str());
		}
		if (answer.value("more", false)) {
			fprintf(stderr, "kaq: there are more: -n N shows them\n");
		}
	}
	return is_empty ? kFailed : kDone;
}

std::string clock_text() {
	return time_text(system_time(), system_time()).substr(0, 8);
}

int top_live(const TopOptions &options) {
	LiveScreen screen;
	Client client(options.figures.common);
	std::string shown;
	do {
		int64_t rows = static_cast<int64_t>(LiveScreen::height()) - kLinesAround;
		Reply reply = ask(client, options, std::max<int64_t>(rows, 1));
		if (!reply.is_good() && (shown.empty() || reply.status == 400)) {
			return fail(reply);
		}
		Terminal terminal = standard_output();
		std::string note = "kaq top  " + clock_text() + "  q ends it";
		if (reply.is_good()) {
			shown = text_of(reply.json(), terminal);
			if (std::string hint = hint_of(reply.json()); !hint.empty()) {
				shown += "\n" + terminal.paint(
									shortened_to(hint, static_cast<size_t>(terminal.width_or(80))),
									Colour::kYellow);
			}
			note += reply.is_of_files ? "  no collector runs: what follows is what was stored" : "";
		} else {
			note += "  what follows is old: the collector does not answer";
		}
		screen.draw(
			terminal.paint(shortened_to(note, static_cast<size_t>(terminal.width_or(80))),
						   reply.is_good() && !reply.is_of_files ? Colour::kDim : Colour::kRed) +
			"\n" + shown);
	} while (screen.wait(kRefresh));
	return kDone;
}

int top(const TopOptions &options) {
	bool is_live =
		!options.is_once && !options.figures.common.is_json && standard_output().is_terminal;
	return is_live ? top_live(options) : top_once(options);
}

} // namespace

void add_top(CLI::App &app, int &status) {
	auto options = std::make_shared<TopOptions>();
	CLI::App &verb = *app.add_subcommand("top", "show the transactions that take the most time");
	add_figure_options(verb, options->figures,
					   "time, requests, p50, p95, p99, longest, errors, apdex (the worst), "
					   "queries, database, external");
	verb.add_option("--apdex", options->threshold, "what users are satisfied with (500ms)")
		->type_name("TIME");
	verb.add_flag("--once", options->is_once, "print it, also on a terminal");
	verb.footer("On a terminal it is drawn anew every 2 seconds until q or Ctrl-C. Without --since "
				"it is the last hour. ~ marks rates that are estimated, rec is the share of the "
				"requests that is recorded.");
	verb.callback([options, &status] { status = top(*options); });
}

} // namespace kaq
