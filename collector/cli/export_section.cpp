#include <algorithm>
#include <cctype>

#include <fmt/format.h>

#include "cli/export_section_private.h"
#include "util/control_character.h"

namespace kaq {
namespace {

using std::chrono::hours;
using std::chrono::milliseconds;
using std::chrono::minutes;
using std::chrono::seconds;

constexpr size_t kLongestName = 64;
constexpr size_t kMostHeaders = 64;
constexpr int64_t kMostSpans = 10000000; /* a second */

bool is_name(const std::string &text) {
	return !text.empty() && text.size() <= kLongestName &&
		   std::all_of(text.begin(), text.end(), [](unsigned char each) {
			   return each < 128 && (isalnum(each) != 0 || each == '-' || each == '_');
		   });
}

bool is_header(const std::string &text) {
	size_t colon = text.find(':');
	return colon != std::string::npos && colon > 0 && text.find_first_of(" \t") > colon &&
		   std::none_of(text.begin(), text.end(), is_control_character);
}

void read_name(TomlSection &section, DestinationSettings &destination,
			   const std::vector<DestinationSettings> &others) {
	section.read("name", destination.name);
	bool is_taken = std::any_of(others.begin(), others.end(), [&](const DestinationSettings &each) {
		return each.name == destination.name;
	});
	if (!is_name(destination.name)) {
		section.mistake(
			"name", fmt::format("has to be 1 to {} letters, digits, \"-\" or \"_\"", kLongestName));
	} else if (is_taken) {
		section.mistake("name", "is that of another destination");
	}
}

void read_endpoint(TomlSection &section, OtlpEndpoint &endpoint) {
	section.read("endpoint", endpoint.url);
	section.read("headers", endpoint.headers);
	section.read("ca_file", endpoint.ca_file);
	section.read_duration("timeout", endpoint.time, seconds(1), minutes(5));
	if (!is_web_address(endpoint.url)) {
		section.mistake("endpoint", "has to be a URL that begins with http:// or https://");
	}
	if (endpoint.headers.size() > kMostHeaders ||
		!std::all_of(endpoint.headers.begin(), endpoint.headers.end(), is_header)) {
		section.mistake("headers", fmt::format("has to be at most {} texts such as "
											   "\"Authorization: Bearer 0123\"",
											   kMostHeaders));
	}
	if (!endpoint.ca_file.empty() && endpoint.ca_file[0] != '/') {
		section.mistake("ca_file", "has to be a path that begins with \"/\"");
	}
}

void read_signals(TomlSection &section, DestinationSettings &destination) {
	std::vector<std::string> names = {"traces"};
	section.read("signals", names);
	destination.signals.clear();
	for (OtlpSignal signal : {OtlpSignal::kTraces, OtlpSignal::kLogs, OtlpSignal::kMetrics}) {
		if (std::count(names.begin(), names.end(), signal_name(signal)) > 0) {
			destination.signals.push_back(signal);
		}
	}
	if (destination.signals.empty() || destination.signals.size() != names.size()) {
		section.mistake("signals", "has to be some of \"traces\", \"logs\" and \"metrics\"");
	} else if (destination.signals.size() > 1 && is_web_address(destination.endpoint.url) &&
			   !has_url_for_each_signal(destination.endpoint.url)) {
		section.mistake("endpoint", "has to be without a path, or to end in /v1/traces, where more "
									"than one signal is sent");
	}
	section.read_duration("metrics_every", destination.metrics_time, seconds(1), hours(1));
}

} // namespace

void read_destination(TomlSection &section, std::vector<DestinationSettings> &destinations) {
	DestinationSettings destination;
	read_name(section, destination, destinations);
	read_endpoint(section, destination.endpoint);
	read_signals(section, destination);
	section.read("application", destination.application);
	section.read("transaction", destination.transaction);
	section.read_duration("slower", destination.slower, milliseconds(0), hours(24));
	section.read("failed", destination.is_failed);
	section.read_share("share", destination.share);
	section.read("keep_literals", destination.traces.has_literals);
	section.read_number<int64_t>("spans_per_second", destination.spans_per_second, 1, kMostSpans);
	destinations.push_back(std::move(destination));
}

} // namespace kaq
