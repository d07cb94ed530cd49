/*
 * Looks at everything between PHP and the store, and says what is wrong with it and what to do. One
 * thread.
 */
#pragma once

#include <map>
#include <optional>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "cli/command_line.h"
#include "cli/configuration.h"

namespace kaq {

enum class Health { kOk, kUnknown, kWarning, kProblem };

/* "ok", "unknown", "warning", "problem" */
const char *health_name(Health health);

struct CheckResult {
	Health health = Health::kOk;
	std::string what;
	std::string advice; /* what to do; empty if there is nothing */
};

using CheckResults = std::vector<CheckResult>;

/* A program that runs PHP, or a set of ini files for one, and what it says about itself. */
struct PhpInstallation {
	std::string name;                          /* its path, for people */
	std::string mistake;                       /* why it could not be asked */
	std::map<std::string, std::string> values; /* of phpinfo(), by name */

	bool has_extension() const {
		return values.count("kaq.version") > 0;
	}
	/* Empty where there is none. */
	std::string value(const std::string &name) const;
};

/* What the checks look at. */
struct DoctorContext {
	std::string root; /* before each of the system's paths; for tests */
	std::string store;
	std::string configuration_file;
	ConfigurationOrMistakes configuration;
	std::string mistake;       /* why the collector, or the store without it, tells nothing */
	nlohmann::json status;     /* as the service tells it; empty if nobody does */
	bool is_running = false;   /* the collector */
	bool is_forbidden = false; /* it may run, and this user may not ask it */
	bool is_superuser = false; /* everything can be seen */
	std::string address;       /* of both ports */
	uint16_t handshake_port = 0;
	uint16_t data_port = 0;
	std::vector<PhpInstallation> installations;

	/* A member of what the running collector says; null if there is none. */
	nlohmann::json fact(const char *name) const;
};

struct Check {
	const char *subject;
	CheckResults (*run)(const DoctorContext &);
};

/* All of them, in the order in which they are shown. */
const std::vector<Check> &checks();

struct DoctorOptions {
	CommonOptions common;
	std::string root;
};

/* What is found: "time_ms", whether it was "superuser", the numbers of "problems" and "warnings",
 * and the "checks", each with its "subject", "health", "what" and "advice". Takes seconds. */
nlohmann::json examine(const DoctorOptions &options);

/* Prints what was found; kFailed if there is a problem. What root sees a running collector keeps.
 */
int doctor(const DoctorOptions &options);

} // namespace kaq
