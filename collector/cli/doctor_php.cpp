#include <algorithm>
#include <array>
#include <cstdio>
#include <cstring>

#include <fmt/format.h>

#include "cli/doctor_private.h"
#include "cli/format.h"

namespace kaq {
namespace {

constexpr std::array kNumbers = {"kaq.status_port",
								 "kaq.data_port",
								 "kaq.method_threshold",
								 "kaq.span_limit",
								 "kaq.stack_depth",
								 "kaq.capture_clirequest",
								 "kaq.track_zend_execute",
								 "kaq.track_zend_execute_internal",
								 "kaq.track_errors",
								 "kaq.track_exceptions",
								 "kaq.capture_mysql",
								 "kaq.capture_pdo",
								 "kaq.capture_http",
								 "kaq.enable_auto_rum",
								 "kaq.use_static_port",
								 "kaq.prune_intermediate_spans",
								 "kaq.capture_distributed_trace"};

struct Findings {
	const DoctorContext &context;
	const PhpInstallation &php;
	CheckResults results;

	void add(Health health, const std::string &what, const std::string &advice) {
		results.push_back({health, printable(php.name) + ": " + what, advice});
	}
	std::string value(const char *name) const {
		return printable(php.value(name));
	}
	bool is(const char *name, const char *value) const {
		return php.value(name) == value;
	}
};

bool is_number(const std::string &text) {
	return !text.empty() && std::all_of(text.begin(), text.end(),
										[](char each) { return each >= '0' && each <= '9'; });
}

/* "On" is told as 1, and a setting that nobody set as "no value". */
bool is_on(const std::string &value) {
	return value == "1" || value == "On" || value == "on";
}

void look_at_port(Findings &findings, const char *name, uint16_t port, const char *what) {
	if (!findings.is(name, std::to_string(port).c_str())) {
		findings.add(Health::kProblem,
					 fmt::format("{} is {}, and the collector's {} port is {}", name,
								 findings.value(name), what, port),
					 fmt::format("set {}={} in php.ini, or the port in [listen] of the collector's "
								 "configuration",
								 name, port));
	}
}

/* A collector elsewhere is looked at there. */
bool is_elsewhere(const Findings &findings) {
	std::string address = findings.php.value("kaq.remote_exporter_ip");
	std::string host = findings.php.value("kaq.remote_exporter_hostname");
	bool is_local = address.empty() || address.compare(0, 4, "127.") == 0 ||
					address == findings.context.address;
	return !is_local || (address.empty() && !host.empty() && host != "localhost");
}

void look_at_addresses(Findings &findings) {
	std::string address = findings.value("kaq.remote_exporter_ip");
	std::string host = findings.value("kaq.remote_exporter_hostname");
	if (!address.empty() && !host.empty()) {
		findings.add(Health::kWarning,
					 "kaq.remote_exporter_hostname does not count beside kaq.remote_exporter_ip",
					 "remove one of them");
	} else if (!host.empty()) {
		findings.add(
			Health::kWarning,
			fmt::format("the collector's name {} is looked up twice for each request", host),
			"set kaq.remote_exporter_ip instead");
	}
	if (is_elsewhere(findings)) {
		findings.add(Health::kUnknown,
					 fmt::format("sends to {}, which is not looked at from here",
								 address.empty() ? host : address),
					 "run kaq doctor there");
		return;
	}
	look_at_port(findings, "kaq.status_port", findings.context.handshake_port, "handshake");
	look_at_port(findings, "kaq.data_port", findings.context.data_port, "data");
}

void look_at_lists(Findings &findings) {
	if (!findings.php.value("kaq.include_ports").empty() &&
		!findings.php.value("kaq.exclude_ports").empty()) {
		findings.add(Health::kWarning, "kaq.exclude_ports does not count beside kaq.include_ports",
					 "remove one of them");
	}
	for (const char *name : {"kaq.include_ports", "kaq.exclude_ports"}) {
		if (findings.php.value(name).find(' ') != std::string::npos) {
			findings.add(Health::kWarning, fmt::format("{} has blanks in it", name),
						 "write the ports without: 80,443");
		}
	}
}

void look_at_numbers(Findings &findings) {
	for (const char *name : kNumbers) {
		std::string value = findings.php.value(name);
		if (!value.empty() && !is_number(value)) {
			findings.add(Health::kWarning,
						 fmt::format("{} is \"{}\", which is read as far as it is a number", name,
									 printable(value)),
						 "give it a number");
		}
	}
	if (findings.is("kaq.span_limit", "0")) {
		findings.add(Health::kWarning, "kaq.span_limit is 0: nothing but the request is recorded",
					 "remove it");
	}
	if (findings.is("kaq.status_port", findings.php.value("kaq.data_port").c_str())) {
		findings.add(Health::kProblem, "kaq.status_port and kaq.data_port are the same",
					 "give them the collector's two ports");
	}
	if (findings.is("kaq.track_zend_execute_internal", "0")) {
		findings.add(Health::kWarning,
					 "kaq.track_zend_execute_internal is 0: no queries and calls are recorded",
					 "set it to 0 for a while only, with ini_set");
	}
}

/* Whether user functions are recorded without a hook, which engines before 8.4 cannot do. */
bool is_observed(const Findings &findings) {
	int major = 0;
	int minor = 0;
	std::string version = findings.php.value("PHP Version");
	bool has_version = sscanf(version.c_str(), "%d.%d", &major, &minor) == 2;
	bool is_able = has_version && (major > 8 || (major == 8 && minor >= 4));
	return is_able && findings.is("kaq.track_zend_execute", "2");
}

/* What keeps the engine from compiling code, or what code costs that is not compiled. */
void look_at_jit(Findings &findings) {
	std::string jit = findings.php.value("opcache.jit");
	std::string room = findings.php.value("opcache.jit_buffer_size");
	bool is_wanted = is_on(findings.php.value("opcache.enable")) && !jit.empty() && jit != "0" &&
					 jit != "off" && jit != "disable" && !room.empty() && room[0] != '0';
	bool is_hooked = !findings.is("kaq.track_zend_execute", "0") && !is_observed(findings);
	if (is_wanted && is_hooked) {
		findings.add(
			Health::kWarning,
			fmt::format("opcache.jit is {}, and switches itself off, since user functions "
						"are recorded",
						printable(jit)),
			"kaq.track_zend_execute=0 to have the JIT instead of user functions, from PHP 8.4 "
			"on =2 to have both, or opcache.jit=disable to have no warning");
	}
}

void look_at_installation(Findings &findings) {
	const PhpInstallation &php = findings.php;
	if (!php.mistake.empty()) {
		findings.add(Health::kUnknown, php.mistake, "");
		return;
	}
	std::string files = findings.value("Loaded Configuration File");
	std::string version =
		fmt::format("PHP {} ({}{})", findings.value("PHP Version"), findings.value("Server API"),
					is_on(php.value("Thread Safety")) || php.value("Thread Safety") == "enabled"
						? ", thread-safe"
						: "");
	std::string ini = files.empty() || files == "(none)" ? "no php.ini" : files;
	if (!php.has_extension()) {
		findings.add(Health::kWarning,
					 fmt::format("{} has not loaded the extension; {}", version, ini),
					 fmt::format("if it is to be recorded: extension=kaq.so in a file of {}, and a "
								 "restart; the server's log says why it was not loaded",
								 files.empty() ? "its ini directory"
											   : findings.value("Scan this dir for additional .ini "
																"files")));
		return;
	}
	bool has_opcache = is_on(php.value("opcache.enable"));
	findings.add(Health::kOk,
				 fmt::format("{} has the extension {}, application {}; {}; opcache {}", version,
							 findings.value("kaq.version_info"),
							 findings.value("kaq.application_name"), ini,
							 has_opcache ? "on" : "off"),
				 "");
	look_at_addresses(findings);
	look_at_lists(findings);
	look_at_numbers(findings);
	look_at_jit(findings);
}

} // namespace

CheckResults check_php(const DoctorContext &context) {
	CheckResults results;
	bool has_any = false;
	for (const PhpInstallation &each : context.installations) {
		Findings findings{context, each, {}};
		look_at_installation(findings);
		has_any = has_any || each.has_extension();
		results.insert(results.end(), findings.results.begin(), findings.results.end());
	}
	if (context.installations.empty()) {
		results.push_back({Health::kUnknown, "no PHP was found on this host",
						   "if it runs in containers: see whether it reaches the two ports"});
	} else if (!has_any) {
		results.push_back({Health::kProblem, "no PHP of this host has loaded the extension",
						   "install it: 'make install' in extension/, and extension=kaq.so"});
	}
	return results;
}

} // namespace kaq
