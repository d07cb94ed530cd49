/*
 * What the collector is told by its configuration file, in TOML. docs/collector.md explains each
 * setting; what the file leaves out keeps the value that it has here.
 */
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include <tl/expected.hpp>

#include "analysis/naming.h"
#include "analysis/scrub.h"
#include "export/destination.h"
#include "ingest/crash_log.h"
#include "ingest/monitor_rule.h"
#include "util/network.h"

namespace kaq {

constexpr const char *kConfigurationFile = "/etc/kaq/collector.toml";

struct ListenSettings {
	std::vector<std::string> addresses = {"127.0.0.1"}; /* of handshakes and payloads */
	uint16_t handshake_port = 20021;                    /* 0: a free one, as for the others */
	uint16_t data_port = 20022;
	uint16_t http_port = 20023;              /* on 127.0.0.1 */
	std::vector<Network> handshake_networks; /* who may connect; empty: everybody who can */
	std::vector<Network> data_networks;
	std::string socket_group = "kaq"; /* whose members may use the verbs */
};

struct StoreSettings {
	std::string directory; /* empty: the default */
	uint64_t size_cap = 2ull << 30;
	std::chrono::milliseconds age = std::chrono::hours(7 * 24);
	uint64_t rollup_cap = 512ull << 20;
	std::chrono::milliseconds minutes_age = std::chrono::hours(7 * 24);
	std::chrono::milliseconds hours_age = std::chrono::hours(400 * 24);
	uint64_t partition_size = 256ull << 20;
	std::chrono::milliseconds partition_age = std::chrono::hours(1);
	bool keeps_all = false; /* documents; otherwise the room is to last for that time: */
	std::chrono::milliseconds documents_time = std::chrono::hours(24);
};

struct NameSettings {
	uint64_t cap = 2000; /* names of an application; the rest is "other" */
	std::vector<NamingRule> rules;
};

struct OverloadSettings {
	bool lowers_share = true; /* records fewer requests rather than dropping what was recorded */
};

enum class AlertMetric { kP95, kErrorShare, kRate };

/* "p95", "error_share", "rate" */
const char *metric_name(AlertMetric metric);

struct AlertRule {
	std::string application = "*"; /* globs */
	std::string transaction = "*";
	AlertMetric metric = AlertMetric::kP95;
	/* One of the two is set. How many times the usual value is too much; of a rate also how many
	 * times less. */
	std::optional<double> deviation;
	/* Milliseconds, a share from 0 to 1, or requests a minute. */
	std::optional<double> limit;
	std::chrono::minutes minutes{5}; /* that it has to last */
	std::string webhook;             /* where it is posted to */
};

struct CrashLogSettings {
	std::vector<std::string> directories = {kCrashDirectory}; /* none: nothing is watched */
};

struct Configuration {
	ListenSettings listen;
	StoreSettings store;
	ScrubSettings scrub;
	NameSettings names;
	std::vector<MonitorRule> monitor;
	OverloadSettings overload;
	std::vector<AlertRule> alerts;
	CrashLogSettings crash_logs;
	std::vector<DestinationSettings> destinations;
};

struct ConfigurationMistake {
	int line = 0; /* 0: of the file as a whole */
	std::string text;
};

using ConfigurationMistakes = std::vector<ConfigurationMistake>;
using ConfigurationOrMistakes = tl::expected<Configuration, ConfigurationMistakes>;

/* The content of a file that the configuration names, or why it cannot be had. */
using FileReader = std::function<tl::expected<std::string, std::string>(const std::string &path)>;

/* All mistakes at once, but for TOML that cannot be read: then the first. */
ConfigurationOrMistakes read_configuration(std::string_view text, const FileReader &files);

/* From the file; from /etc/kaq/collector.toml if it is there, and the defaults if it is not, when
 * the path is empty. */
ConfigurationOrMistakes load_configuration(const std::string &path);
/* The file that load_configuration() reads; empty if it takes the defaults. */
std::string configuration_file(const std::string &path);

/* A line for each, "FILE:LINE: what is wrong". */
std::string mistakes_text(const std::string &path, const ConfigurationMistakes &mistakes);

/* The whole configuration as a file that reads back as the same. */
std::string to_toml(const Configuration &configuration);
/* The same settings as JSON. */
std::string to_json_text(const Configuration &configuration);

} // namespace kaq
