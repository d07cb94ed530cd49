#include <sstream>

#include <toml++/toml.h>

#include "cli/configuration.h"
#include "util/units.h"

namespace kaq {
namespace {

toml::array texts(const std::vector<std::string> &values) {
	toml::array array;
	for (const std::string &each : values) {
		array.push_back(each);
	}
	return array;
}

toml::array texts(const std::vector<Network> &networks) {
	toml::array array;
	for (const Network &each : networks) {
		array.push_back(each.text());
	}
	return array;
}

toml::table listen_table(const ListenSettings &listen) {
	return toml::table{{"addresses", texts(listen.addresses)},
					   {"handshake", listen.handshake_port},
					   {"data", listen.data_port},
					   {"http", listen.http_port},
					   {"handshake_networks", texts(listen.handshake_networks)},
					   {"data_networks", texts(listen.data_networks)},
					   {"socket_group", listen.socket_group}};
}

toml::table store_table(const StoreSettings &store) {
	toml::table table{{"size_cap", size_text(store.size_cap)},
					  {"age", duration_text(store.age)},
					  {"rollup_cap", size_text(store.rollup_cap)},
					  {"minutes_age", duration_text(store.minutes_age)},
					  {"hours_age", duration_text(store.hours_age)},
					  {"partition_size", size_text(store.partition_size)},
					  {"partition_age", duration_text(store.partition_age)},
					  {"keep_all", store.keeps_all},
					  {"documents_last", duration_text(store.documents_time)}};
	if (!store.directory.empty()) {
		table.insert("directory", store.directory);
	}
	return table;
}

toml::table names_table(const NameSettings &names) {
	toml::array rules;
	for (const NamingRule &rule : names.rules) {
		rules.push_back(toml::table{{"application", rule.application},
									{"path", rule.path},
									{"name", rule.name},
									{"parameters", texts(rule.parameters)}});
	}
	toml::table table{{"cap", static_cast<int64_t>(names.cap)}};
	if (!rules.empty()) {
		table.insert("rule", std::move(rules));
	}
	return table;
}

toml::array monitor_array(const std::vector<MonitorRule> &rules) {
	toml::array array;
	for (const MonitorRule &rule : rules) {
		toml::table table{
			{"application", rule.application},
			{"transaction", rule.transaction},
			{"share", static_cast<double>(rule.share) / kWholeShare},
			{"sql_stack_threshold", duration_text(std::chrono::seconds(rule.sql_stack_seconds))}};
		if (!rule.snippet.empty()) {
			table.insert("snippet", rule.snippet);
		}
		array.push_back(std::move(table));
	}
	return array;
}

toml::array alert_array(const std::vector<AlertRule> &rules) {
	toml::array array;
	for (const AlertRule &rule : rules) {
		toml::table table{{"application", rule.application},
						  {"transaction", rule.transaction},
						  {"metric", metric_name(rule.metric)},
						  {"minutes", rule.minutes.count()},
						  {"webhook", rule.webhook}};
		if (rule.deviation) {
			table.insert("deviation", *rule.deviation);
		} else if (rule.metric == AlertMetric::kP95) {
			std::chrono::milliseconds limit(static_cast<int64_t>(rule.limit.value_or(0)));
			table.insert("limit", duration_text(limit));
		} else {
			table.insert("limit", rule.limit.value_or(0));
		}
		array.push_back(std::move(table));
	}
	return array;
}

toml::array destination_array(const std::vector<DestinationSettings> &destinations) {
	toml::array array;
	for (const DestinationSettings &each : destinations) {
		std::vector<std::string> signals;
		for (OtlpSignal signal : each.signals) {
			signals.emplace_back(signal_name(signal));
		}
		toml::table table{{"name", each.name},
						  {"signals", texts(signals)},
						  {"metrics_every", duration_text(each.metrics_time)},
						  {"endpoint", each.endpoint.url},
						  {"headers", texts(each.endpoint.headers)},
						  {"timeout", duration_text(each.endpoint.time)},
						  {"application", each.application},
						  {"transaction", each.transaction},
						  {"slower", duration_text(each.slower)},
						  {"failed", each.is_failed},
						  {"share", each.share},
						  {"keep_literals", each.traces.has_literals},
						  {"spans_per_second", each.spans_per_second}};
		if (!each.endpoint.ca_file.empty()) {
			table.insert("ca_file", each.endpoint.ca_file);
		}
		array.push_back(std::move(table));
	}
	return array;
}

toml::table to_table(const Configuration &configuration) {
	toml::table scrub{{"keep_literals", configuration.scrub.keeps_literals},
					  {"secret_names", texts(configuration.scrub.secret_names)}};
	toml::table file{
		{"listen", listen_table(configuration.listen)},
		{"store", store_table(configuration.store)},
		{"scrub", std::move(scrub)},
		{"names", names_table(configuration.names)},
		{"overload", toml::table{{"lower_share", configuration.overload.lowers_share}}},
		{"crash_logs", toml::table{{"directories", texts(configuration.crash_logs.directories)}}}};
	if (!configuration.monitor.empty()) {
		file.insert("monitor", monitor_array(configuration.monitor));
	}
	if (!configuration.alerts.empty()) {
		file.insert("alert", alert_array(configuration.alerts));
	}
	if (!configuration.destinations.empty()) {
		file.insert("export", toml::table{{"otlp", destination_array(configuration.destinations)}});
	}
	return file;
}

} // namespace

const char *metric_name(AlertMetric metric) {
	switch (metric) {
	case AlertMetric::kErrorShare:
		return "error_share";
	case AlertMetric::kRate:
		return "rate";
	case AlertMetric::kP95:
		break;
	}
	return "p95";
}

std::string to_toml(const Configuration &configuration) {
	std::ostringstream text;
	text << to_table(configuration) << '\n';
	return text.str();
}

std::string to_json_text(const Configuration &configuration) {
	std::ostringstream text;
	text << toml::json_formatter(to_table(configuration)) << '\n';
	return text.str();
}

} // namespace kaq
