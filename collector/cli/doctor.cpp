#include "cli/doctor.h"

#include <CLI/CLI.hpp>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <memory>

#include "cli/client.h"
#include "cli/doctor_private.h"
#include "cli/format.h"
#include "cli/places.h"
#include "cli/terminal.h"

namespace kaq {
namespace {

constexpr size_t kSubjectWidth = 15;
constexpr size_t kHealthWidth = 9;

Colour colour_of(Health health) {
	switch (health) {
	case Health::kOk:
		return Colour::kGreen;
	case Health::kUnknown:
		return Colour::kDim;
	case Health::kWarning:
		return Colour::kYellow;
	case Health::kProblem:
		break;
	}
	return Colour::kRed;
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
	context.store = store_directory(options.common.store, options.common.configuration);
	context.is_superuser = geteuid() == 0;
	CommonOptions common = options.common;
	common.store = context.store;
	Reply reply = Client(common).get("/api/v1/status");
	context.status = reply.is_good() ? reply.json() : nlohmann::json::object();
	context.mistake = reply.is_good() ? "" : printable(reply.text);
	nlohmann::json collector = context.status.value("collector", nlohmann::json::object());
	context.is_running = !collector.empty();
	ListenSettings listen =
		context.configuration ? context.configuration->listen : ListenSettings();
	context.address = reachable_address(collector, context);
	context.handshake_port = collector.value("handshake_port", listen.handshake_port);
	context.data_port = collector.value("data_port", listen.data_port);
	context.installations = find_php(context.root, context.is_superuser);
	return context;
}

void show(const char *subject, const CheckResult &result, const Terminal &terminal) {
	std::string health = padded(health_name(result.health), kHealthWidth);
	printf("%s%s%s\n", terminal.paint(health, colour_of(result.health)).c_str(),
		   padded(subject, kSubjectWidth).c_str(), printable(result.what).c_str());
	if (!result.advice.empty()) {
		std::string advice =
			padded("", kHealthWidth + kSubjectWidth) + "-> " + printable(result.advice);
		puts(terminal.paint(advice, Colour::kDim).c_str());
	}
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
		{"clock", check_clock},
	};
	return kChecks;
}

int doctor(const DoctorOptions &options) {
	DoctorContext context = look_around(options);
	Terminal terminal = standard_output();
	nlohmann::json shown = nlohmann::json::array();
	size_t problems = 0;
	size_t warnings = 0;
	for (const Check &check : checks()) {
		for (const CheckResult &result : check.run(context)) {
			problems += result.health == Health::kProblem ? 1 : 0;
			warnings += result.health == Health::kWarning ? 1 : 0;
			if (options.common.is_json) {
				shown.push_back(to_json(check.subject, result));
			} else {
				show(check.subject, result, terminal);
			}
		}
	}
	if (options.common.is_json) {
		nlohmann::json all = {{"problems", problems}, {"warnings", warnings}, {"checks", shown}};
		puts(all.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace).c_str());
	} else {
		printf("\n%s%s\n", summary_of(problems, warnings).c_str(),
			   context.is_superuser ? "" : "; root would see more");
	}
	return problems > 0 ? kFailed : kDone;
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
