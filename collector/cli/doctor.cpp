#include "cli/doctor.h"

#include <CLI/CLI.hpp>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <map>
#include <memory>

#include "cli/client.h"
#include "cli/doctor_private.h"
#include "cli/format.h"
#include "cli/places.h"
#include "cli/terminal.h"
#include "util/system_time.h"

namespace kaq {
namespace {

constexpr size_t kSubjectWidth = 15;
constexpr size_t kHealthWidth = 9;

Colour colour_of(const std::string &health) {
	static const std::map<std::string, Colour> kColours = {{"ok", Colour::kGreen},
														   {"unknown", Colour::kDim},
														   {"warning", Colour::kYellow},
														   {"problem", Colour::kRed}};
	return kColours.at(health);
}

std::string reachable_address(const nlohmann::json &collector, const DoctorContext &context) {
	std::string address = "127.0.0.1";
	if (context.configuration && !context.configuration->listen.addresses.empty()) {
		address = context.configuration->listen.addresses.front();
	}
	nlohmann::json told = collector.value("addresses", nlohmann::json::array());
	address = told.empty() ? address : told.front().get<std::string>();
	return address == "0.0.0.0" ? "127.0.0.1" : address == "::" ? "::1" : address;
}

DoctorContext look_around(const DoctorOptions &options) {
	DoctorContext context;
	context.root = options.root;
	context.configuration_file = configuration_file(options.common.configuration);
	context.configuration = load_configuration(options.common.configuration);
	bool has_place = context.configuration || !options.common.store.empty();
	context.store = has_place ? store_directory(options.common.store, options.common.configuration)
							  : store_to_ask();
	context.is_superuser = geteuid() == 0;
	CommonOptions common = options.common;
	common.store = context.store;
	Reply reply = Client(common).get("/api/v1/status");
	context.status = reply.is_good() ? reply.json() : nlohmann::json::object();
	context.mistake = reply.is_good() ? "" : printable(reply.text);
	nlohmann::json collector = context.status.value("collector", nlohmann::json::object());
	context.is_running = !collector.empty();
	context.is_forbidden = !context.is_running && is_forbidden(context.store);
	ListenSettings listen =
		context.configuration ? context.configuration->listen : ListenSettings();
	context.address = reachable_address(collector, context);
	context.handshake_port = collector.value("handshake_port", listen.handshake_port);
	context.data_port = collector.value("data_port", listen.data_port);
	context.installations = find_php(context.root, context.is_superuser);
	return context;
}

void show(const nlohmann::json &check, const Terminal &terminal) {
	std::string health = check["health"];
	std::string advice = check["advice"];
	std::string subject = check["subject"];
	std::string what = check["what"];
	printf("%s%s%s\n", terminal.paint(padded(health, kHealthWidth), colour_of(health)).c_str(),
		   padded(subject, kSubjectWidth).c_str(), printable(what).c_str());
	if (!advice.empty()) {
		std::string line = padded("", kHealthWidth + kSubjectWidth) + "-> " + printable(advice);
		puts(terminal.paint(line, Colour::kDim).c_str());
	}
}

std::string text_of_report(const nlohmann::json &report) {
	return report.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
}

nlohmann::json to_json(const char *subject, const CheckResult &result) {
	return {{"subject", subject},
			{"health", health_name(result.health)},
			{"what", result.what},
			{"advice", result.advice}};
}

std::string summary_of(size_t problems, size_t warnings) {
	if (problems + warnings == 0) {
		return "nothing is wrong";
	}
	return count_of(static_cast<int64_t>(problems), "problem", "problems") + ", " +
		   count_of(static_cast<int64_t>(warnings), "warning", "warnings");
}

} // namespace

const char *health_name(Health health) {
	switch (health) {
	case Health::kOk:
		return "ok";
	case Health::kUnknown:
		return "unknown";
	case Health::kWarning:
		return "warning";
	case Health::kProblem:
		break;
	}
	return "problem";
}

nlohmann::json DoctorContext::fact(const char *name) const {
	nlohmann::json collector = status.value("collector", nlohmann::json::object());
	return collector.value(name, nlohmann::json());
}

const std::vector<Check> &checks() {
	static const std::vector<Check> kChecks = {
		{"configuration", check_configuration},
		{"collector", check_collector},
		{"port", check_ports},
		{"handshake", check_handshake},
		{"payload", check_payload},
		{"losses", check_losses},
		{"disk", check_disk},
		{"PHP", check_php},
		{"account key", check_account_key},
		{"stack", check_stacks},
		{"crash logs", check_crashes},
		{"monitoring", check_suspensions},
		{"names", check_names},
		{"clock", check_clock},
	};
	return kChecks;
}

nlohmann::json examine(const DoctorOptions &options) {
	DoctorContext context = look_around(options);
	nlohmann::json list = nlohmann::json::array();
	std::map<Health, size_t> counts;
	for (const Check &check : checks()) {
		for (const CheckResult &result : check.run(context)) {
			counts[result.health]++;
			list.push_back(to_json(check.subject, result));
		}
	}
	return {{"time_ms", system_time()},
			{"superuser", context.is_superuser},
			{"running", context.is_running},
			{"problems", counts[Health::kProblem]},
			{"warnings", counts[Health::kWarning]},
			{"checks", std::move(list)}};
}

int doctor(const DoctorOptions &options) {
	nlohmann::json report = examine(options);
	bool is_superuser = report["superuser"];
	if (options.common.is_json) {
		puts(text_of_report(report).c_str());
	} else {
		Terminal terminal = standard_output();
		for (const nlohmann::json &check : report["checks"]) {
			show(check, terminal);
		}
		printf("\n%s%s\n", summary_of(report["problems"], report["warnings"]).c_str(),
			   is_superuser ? "" : "; root would see more");
	}
	if (is_superuser && report["running"] && options.root.empty()) {
		/* For the pages; that it is kept is no part of what was asked for. */
		Client(options.common).post("/api/v1/doctor", {{"report", text_of_report(report)}});
	}
	return report["problems"] > 0 ? kFailed : kDone;
}

void add_doctor(CLI::App &app, int &status) {
	auto options = std::make_shared<DoctorOptions>();
	CLI::App &verb = *app.add_subcommand("doctor", "prove the chain and say what is wrong");
	add_common_options(verb, options->common);
	/* Another system than this one, for tests. */
	verb.add_option("--root", options->root)->group("");
	verb.callback([options, &status] { status = doctor(*options); });
}

} // namespace kaq
