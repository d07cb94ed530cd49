#include "cli/configuration.h"

#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <fstream>

#include <fmt/format.h>

#include "cli/export_section_private.h"
#include "cli/toml_section_private.h"
#include "util/control_character.h"
#include "util/utf8.h"

namespace kaq {
namespace {

using std::chrono::hours;
using std::chrono::milliseconds;
using std::chrono::minutes;
using std::chrono::seconds;

constexpr size_t kLongestFile = 1 << 20;
/* Dotted keys nest as deep as a line is long. */
constexpr size_t kLongestLine = 4096;
constexpr size_t kLongestSnippet = 16 * 1024;
constexpr size_t kMostRules = 1000;
constexpr size_t kMostEntries = 1000;
constexpr size_t kMostAddresses = 16;
constexpr size_t kMostDirectories = 64;
constexpr uint64_t kMebibyte = 1 << 20;
constexpr uint64_t kLargestCap = 1ull << 50;
constexpr milliseconds kLongestAge = hours(24 * 3650);
constexpr size_t kMostDestinations = 16;
constexpr double kMostRequests = 1e9; /* a minute */

void read_networks(TomlSection &section, std::string_view key, std::vector<Network> &networks) {
	std::vector<std::string> texts;
	section.read(key, texts);
	for (const std::string &text : texts) {
		std::optional<Network> network = Network::parse(text);
		if (network && networks.size() < kMostEntries) {
			networks.push_back(*network);
		} else {
			section.mistake(key, network ? fmt::format("has more than {} networks", kMostEntries)
										 : fmt::format("\"{}\" is no network such as "
													   "\"10.0.0.0/8\"",
													   text.substr(0, 64)));
		}
	}
}

void check_addresses(TomlSection &section, const ListenSettings &listen) {
	if (listen.addresses.empty() || listen.addresses.size() > kMostAddresses) {
		section.mistake("addresses", fmt::format("has to name 1 to {} addresses", kMostAddresses));
	}
	for (const std::string &address : listen.addresses) {
		bool is_loopback = false;
		if (!is_ip_address(address, is_loopback)) {
			section.mistake("addresses",
							fmt::format("\"{}\" is no IP address", address.substr(0, 64)));
		} else if (!is_loopback &&
				   (listen.handshake_networks.empty() || listen.data_networks.empty())) {
			section.mistake("addresses",
							fmt::format("others can reach {}: handshake_networks and data_networks "
										"have to say who may",
										address));
		}
	}
}

void read_listen(TomlSection &section, ListenSettings &listen) {
	section.read("addresses", listen.addresses);
	section.read_number<uint16_t>("handshake", listen.handshake_port, 0, 65535);
	section.read_number<uint16_t>("data", listen.data_port, 0, 65535);
	section.read_number<uint16_t>("http", listen.http_port, 0, 65535);
	read_networks(section, "handshake_networks", listen.handshake_networks);
	read_networks(section, "data_networks", listen.data_networks);
	section.read("socket_group", listen.socket_group);
	check_addresses(section, listen);
	if (listen.data_port != 0 && listen.data_port == listen.handshake_port) {
		section.mistake("data", "is the port of the handshakes");
	}
	if (listen.http_port != 0 &&
		(listen.http_port == listen.handshake_port || listen.http_port == listen.data_port)) {
		section.mistake("http", "is the port of something else");
	}
}

void read_store(TomlSection &section, StoreSettings &store) {
	section.read("directory", store.directory);
	section.read_size("size_cap", store.size_cap, 16 * kMebibyte, kLargestCap);
	section.read_duration("age", store.age, hours(1), kLongestAge);
	section.read_size("rollup_cap", store.rollup_cap, 16 * kMebibyte, kLargestCap);
	section.read_duration("minutes_age", store.minutes_age, hours(1), kLongestAge);
	section.read_duration("hours_age", store.hours_age, hours(1), kLongestAge);
	if (!section.has("partition_size")) {
		store.partition_size = std::min(store.partition_size, store.size_cap / 2);
	}
	section.read_size("partition_size", store.partition_size, kMebibyte, kLargestCap);
	section.read_duration("partition_age", store.partition_age, minutes(1), hours(24));
	section.read("keep_all", store.keeps_all);
	section.read_duration("documents_last", store.documents_time, hours(1), kLongestAge);
	if (section.has("directory") && store.directory.substr(0, 1) != "/") {
		section.mistake("directory", "has to be a path that begins with \"/\"");
	}
	if (store.partition_size > store.size_cap / 2) {
		section.mistake("partition_size",
						"has to be at most half of size_cap: whole partitions are removed");
	}
}

void read_scrub(TomlSection &section, ScrubSettings &scrub) {
	section.read("keep_literals", scrub.keeps_literals);
	section.read("secret_names", scrub.secret_names);
	bool has_empty = std::any_of(scrub.secret_names.begin(), scrub.secret_names.end(),
								 [](const std::string &name) { return name.empty(); });
	if (has_empty || scrub.secret_names.size() > kMostEntries) {
		section.mistake(
			"secret_names",
			fmt::format("has to be at most {} names, none of them empty", kMostEntries));
	}
}

void read_names(TomlSection &section, NameSettings &names) {
	section.read_number<uint64_t>("cap", names.cap, 1, 100000);
	section.sections("rule", kMostRules, [&names](TomlSection &inner) {
		NamingRule rule;
		inner.read("application", rule.application);
		inner.read("path", rule.path);
		inner.read("name", rule.name);
		inner.read("parameters", rule.parameters);
		if (rule.path.empty()) {
			inner.mistake("path", "has to be given, such as \"/shop/*\"");
		}
		if (rule.name.empty() && rule.parameters.empty()) {
			inner.mistake("", "needs a name, or parameters");
		}
		if (std::any_of(rule.name.begin(), rule.name.end(), is_control_character)) {
			inner.mistake("name", "has control characters");
		}
		names.rules.push_back(std::move(rule));
	});
}

void read_snippet(TomlSection &section, MonitorRule &rule, const FileReader &files) {
	std::string path;
	section.read("snippet", rule.snippet);
	section.read("snippet_file", path);
	std::string_view key = section.has("snippet_file") ? "snippet_file" : "snippet";
	if (section.has("snippet_file")) {
		if (section.has("snippet")) {
			section.mistake(key, "cannot stand beside snippet");
		}
		auto content =
			path.substr(0, 1) == "/"
				? files(path)
				: tl::make_unexpected(std::string("has to be a path that begins with \"/\""));
		if (!content) {
			section.mistake(key, content.error());
			return;
		}
		rule.snippet = replace_invalid_utf8(*content);
	}
	if (rule.snippet.size() > kLongestSnippet) {
		section.mistake(key, fmt::format("has more than {} bytes", kLongestSnippet));
	}
}

MonitorRule read_monitor(TomlSection &section, const FileReader &files) {
	MonitorRule rule;
	bool is_monitored = true;
	double share = 1;
	milliseconds threshold = seconds(rule.sql_stack_seconds);
	section.read("application", rule.application);
	section.read("transaction", rule.transaction);
	section.read("monitored", is_monitored);
	section.read_share("share", share);
	section.read_duration("sql_stack_threshold", threshold, seconds(0), hours(1));
	read_snippet(section, rule, files);
	if (section.has("monitored") && section.has("share")) {
		section.mistake("share", "cannot stand beside monitored");
	}
	if (threshold % seconds(1) != milliseconds(0)) {
		section.mistake("sql_stack_threshold", "has to be whole seconds");
	}
	rule.share =
		is_monitored ? static_cast<uint32_t>(std::lround(share * kWholeShare)) : uint32_t(0);
	rule.sql_stack_seconds =
		static_cast<int>(std::chrono::duration_cast<seconds>(threshold).count());
	return rule;
}

std::optional<AlertMetric> metric_of(std::string_view name) {
	if (name == "p95") {
		return AlertMetric::kP95;
	}
	if (name == "error_share") {
		return AlertMetric::kErrorShare;
	}
	return name == "rate" ? std::optional(AlertMetric::kRate) : std::nullopt;
}

void read_limit(TomlSection &section, AlertRule &rule) {
	double limit = 0;
	if (rule.metric == AlertMetric::kP95) {
		milliseconds time{0};
		section.read_duration("limit", time, milliseconds(1), hours(1));
		limit = static_cast<double>(time.count());
	} else if (rule.metric == AlertMetric::kErrorShare) {
		section.read_share("limit", limit);
	} else {
		section.read_number<double>("limit", limit, 0, kMostRequests);
	}
	double deviation = 0;
	section.read_number<double>("deviation", deviation, 1, 1000);
	if (section.has("limit") == section.has("deviation")) {
		section.mistake("", "needs a limit or a deviation, and not both");
	}
	if (section.has("limit")) {
		rule.limit = limit;
	} else {
		rule.deviation = deviation;
	}
}

AlertRule read_alert(TomlSection &section) {
	AlertRule rule;
	std::string metric;
	uint32_t lasting = static_cast<uint32_t>(rule.minutes.count());
	section.read("application", rule.application);
	section.read("transaction", rule.transaction);
	section.read("metric", metric);
	section.read_number<uint32_t>("minutes", lasting, 1, 24 * 60);
	section.read("webhook", rule.webhook);
	rule.minutes = minutes(lasting);
	std::optional<AlertMetric> known = metric_of(metric);
	if (!known) {
		section.mistake("metric", "has to be \"p95\", \"error_share\" or \"rate\"");
	}
	rule.metric = known.value_or(AlertMetric::kP95);
	if (!is_web_address(rule.webhook)) {
		section.mistake("webhook", "has to be a URL that begins with http:// or https://");
	}
	/* What a limit may be depends on the metric. */
	if (known) {
		read_limit(section, rule);
	} else {
		section.skip("limit");
		section.skip("deviation");
	}
	return rule;
}

void read_crash_logs(TomlSection &section, CrashLogSettings &crash_logs) {
	section.read("directories", crash_logs.directories);
	const std::vector<std::string> &all = crash_logs.directories;
	bool has_relative = std::any_of(
		all.begin(), all.end(), [](const std::string &path) { return path.substr(0, 1) != "/"; });
	if (has_relative || all.size() > kMostDirectories) {
		section.mistake("directories", fmt::format("has to be at most {} paths that begin with "
												   "\"/\"",
												   kMostDirectories));
	}
}

void read_all(TomlSection &file, const FileReader &files, Configuration &configuration) {
	file.section("listen", [&](TomlSection &inner) { read_listen(inner, configuration.listen); });
	file.section("store", [&](TomlSection &inner) { read_store(inner, configuration.store); });
	file.section("scrub", [&](TomlSection &inner) { read_scrub(inner, configuration.scrub); });
	file.section("names", [&](TomlSection &inner) { read_names(inner, configuration.names); });
	file.section("overload", [&](TomlSection &inner) {
		inner.read("lower_share", configuration.overload.lowers_share);
	});
	file.section("crash_logs",
				 [&](TomlSection &inner) { read_crash_logs(inner, configuration.crash_logs); });
	file.sections("monitor", kMostRules, [&](TomlSection &inner) {
		configuration.monitor.push_back(read_monitor(inner, files));
	});
	file.section("export", [&](TomlSection &inner) {
		inner.sections("otlp", kMostDestinations, [&](TomlSection &otlp) {
			read_destination(otlp, configuration.destinations);
		});
	});
	file.sections("alert", kMostRules,
				  [&](TomlSection &inner) { configuration.alerts.push_back(read_alert(inner)); });
	file.finish();
}

/* The first line that is too long, counted from 1; 0 if none is. */
int longest_line(std::string_view text) {
	for (int line = 1; !text.empty(); line++) {
		size_t end = std::min(text.find('\n'), text.size());
		if (end > kLongestLine) {
			return line;
		}
		text.remove_prefix(std::min(end + 1, text.size()));
	}
	return 0;
}

tl::expected<std::string, std::string> read_file(const std::string &path) {
	std::ifstream file(path, std::ios::binary);
	std::string text(kLongestFile + 1, '\0');
	file.read(text.data(), static_cast<std::streamsize>(text.size()));
	if (!file.eof()) {
		return tl::make_unexpected(
			file.is_open() && !file.bad() && file.gcount() > 0
				? fmt::format("{} has more than {} bytes", path, kLongestFile)
				: fmt::format("cannot read {}", path));
	}
	text.resize(static_cast<size_t>(file.gcount()));
	return text;
}

} // namespace

ConfigurationOrMistakes read_configuration(std::string_view text, const FileReader &files) {
	if (text.size() > kLongestFile) {
		return tl::make_unexpected(ConfigurationMistakes{{0, "the file is too long"}});
	}
	if (int line = longest_line(text)) {
		return tl::make_unexpected(ConfigurationMistakes{
			{line, fmt::format("the line has more than {} bytes", kLongestLine)}});
	}
	ConfigurationMistakes mistakes;
	Configuration configuration;
	try {
		toml::table table = toml::parse(text);
		TomlSection file(table, "", mistakes);
		read_all(file, files, configuration);
	} catch (const toml::parse_error &error) {
		mistakes.push_back({static_cast<int>(error.source().begin.line),
							replace_invalid_utf8(error.description())});
	}
	if (!mistakes.empty()) {
		std::stable_sort(mistakes.begin(), mistakes.end(), [](const auto &left, const auto &right) {
			return left.line < right.line;
		});
		return tl::make_unexpected(std::move(mistakes));
	}
	return configuration;
}

std::string configuration_file(const std::string &path) {
	return !path.empty() || access(kConfigurationFile, F_OK) != 0 ? path : kConfigurationFile;
}

ConfigurationOrMistakes load_configuration(const std::string &path) {
	std::string file = configuration_file(path);
	if (file.empty()) {
		return Configuration();
	}
	tl::expected<std::string, std::string> text = read_file(file);
	if (!text) {
		return tl::make_unexpected(ConfigurationMistakes{{0, text.error()}});
	}
	return read_configuration(*text, read_file);
}

std::string mistakes_text(const std::string &path, const ConfigurationMistakes &mistakes) {
	std::string text;
	for (const ConfigurationMistake &each : mistakes) {
		text += each.line > 0 ? fmt::format("{}:{}: {}\n", path, each.line, each.text)
							  : fmt::format("{}: {}\n", path, each.text);
	}
	return text;
}

} // namespace kaq
