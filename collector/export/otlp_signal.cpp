#include "export/otlp_signal.h"

namespace kaq {
namespace {

constexpr std::string_view kTracesPath = "/v1/traces";

} // namespace

std::string_view signal_name(OtlpSignal signal) {
	switch (signal) {
	case OtlpSignal::kLogs:
		return "logs";
	case OtlpSignal::kMetrics:
		return "metrics";
	case OtlpSignal::kTraces:
		break;
	}
	return "traces";
}

bool has_url_for_each_signal(const std::string &url) {
	return signal_url(url, OtlpSignal::kLogs) != url;
}

std::string signal_url(const std::string &url, OtlpSignal signal) {
	const std::string of_signal = "/v1/" + std::string(signal_name(signal));
	size_t host = url.find("://");
	size_t path = host == std::string::npos ? host : url.find_first_of("/?#", host + 3);
	if (path == std::string::npos) {
		return url + of_signal;
	}
	if (path + 1 == url.size() && url[path] == '/') {
		return url.substr(0, path) + of_signal;
	}
	bool ends_so =
		url.size() >= kTracesPath.size() &&
		url.compare(url.size() - kTracesPath.size(), std::string::npos, kTracesPath) == 0;
	return ends_so ? url.substr(0, url.size() - kTracesPath.size()) + of_signal : url;
}

} // namespace kaq
