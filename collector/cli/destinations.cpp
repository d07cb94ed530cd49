/* kaq destinations, and what the collector needs for it. */
#include "cli/destinations.h"

#include <CLI/CLI.hpp>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <memory>

#include "cli/figure_text.h"
#include "cli/format.h"
#include "util/network.h"
#include "util/utf8.h"

namespace kaq {
namespace {

using nlohmann::json;

constexpr size_t kLongestHost = 256;

std::string host_name() {
	char name[kLongestHost] = "";
	return gethostname(name, sizeof(name) - 1) == 0 ? replace_invalid_utf8(name) : "";
}

Cell count_cell(const json &row, const char *name) {
	int64_t count = whole_of(row, name);
	return {count_text(count), count > 0 ? Colour::kYellow : Colour::kNone};
}

Table table_of(const json &rows) {
	Table table({{"name"},
				 {"signal"},
				 {"lag", Align::kRight},
				 {"waiting", Align::kRight},
				 {"requests", Align::kRight},
				 {"sent", Align::kRight},
				 {"rejected", Align::kRight},
				 {"refused", Align::kRight},
				 {"retries", Align::kRight},
				 {"endpoint", Align::kLeft, 16},
				 {"trouble", Align::kLeft, 12}});
	for (const json &row : rows) {
		table.add({string_of(row, "name"), string_of(row, "signal"), duration_cell(row, "lag_ms"),
				   count_text(whole_of(row, "waiting")), count_text(whole_of(row, "requests")),
				   count_text(whole_of(row, "items")), count_cell(row, "rejected"),
				   count_cell(row, "refused"), count_text(whole_of(row, "retries")),
				   string_of(row, "endpoint"), Cell(string_of(row, "trouble"), Colour::kRed)});
	}
	return table;
}

int show_destinations(const CommonOptions &options) {
	Reply reply = Client(options).get("/api/v1/destinations");
	if (!reply.is_good()) {
		return fail(reply);
	}
	const json answer = reply.json();
	const json &rows = answer.at("destinations");
	if (options.is_json) {
		print_json(reply);
	} else if (rows.empty()) {
		fputs("kaq: requests are sent nowhere; [[export.otlp]] in the configuration names places\n",
			  stderr);
	} else {
		fputs(table_of(rows).text(standard_output()).c_str(), stdout);
	}
	return rows.empty() && !options.is_json ? kFailed : kDone;
}

} // namespace

std::vector<DestinationSettings> destinations_of(const Configuration &configuration) {
	const std::vector<std::string> &addresses = configuration.listen.addresses;
	bool is_alone = std::all_of(addresses.begin(), addresses.end(), [](const std::string &address) {
		bool is_loopback = false;
		return is_ip_address(address, is_loopback) && is_loopback;
	});
	std::vector<DestinationSettings> destinations = configuration.destinations;
	for (DestinationSettings &each : destinations) {
		each.traces.host = is_alone ? host_name() : "";
	}
	return destinations;
}

json to_json(const std::vector<DestinationStatus> &statuses) {
	json list = json::array();
	for (const DestinationStatus &each : statuses) {
		list.push_back({{"name", each.name},
						{"signal", signal_name(each.signal)},
						{"endpoint", each.url},
						{"lag_ms", each.lag},
						{"waiting", each.waiting},
						{"requests", each.requests},
						{"items", each.items},
						{"rejected", each.rejected},
						{"refused", each.refused},
						{"batches", each.batches},
						{"retries", each.retries},
						{"gaps", each.gaps},
						{"unreadable", each.unreadable},
						{"last_taken_ms", each.last_taken},
						{"next_try_ms", each.next_try},
						{"trouble", each.trouble}});
	}
	return list;
}

void add_destinations(CLI::App &app, int &status) {
	auto options = std::make_shared<CommonOptions>();
	CLI::App &verb =
		*app.add_subcommand("destinations", "show how far requests have been sent elsewhere");
	add_common_options(verb, *options);
	verb.callback([options, &status] { status = show_destinations(*options); });
}

} // namespace kaq
