#include "export/destination_settings.h"

#include <algorithm>
#include <tuple>

namespace kaq {

std::string without_credentials(const std::string &url) {
	size_t begin = url.find("://");
	begin = begin == std::string::npos ? 0 : begin + 3;
	size_t end = std::min(url.find_first_of("?#"), url.size());
	size_t path = std::min(url.find('/', begin), end);
	size_t user = url.rfind('@', path);
	size_t host = user != std::string::npos && user >= begin ? user + 1 : begin;
	return url.substr(0, begin) + url.substr(host, end - host);
}

bool operator==(const DestinationSettings &one, const DestinationSettings &other) {
	auto all = [](const DestinationSettings &of) {
		return std::tie(of.name, of.signals, of.endpoint.url, of.endpoint.headers,
						of.endpoint.ca_file, of.endpoint.connect_time, of.endpoint.time,
						of.traces.has_literals, of.traces.host, of.application, of.transaction,
						of.slower, of.is_failed, of.share, of.range.from, of.range.to,
						of.batch_items, of.batch_bytes, of.spans_per_second, of.poll_time,
						of.first_pause, of.longest_pause, of.patience, of.metrics_time);
	};
	return all(one) == all(other);
}

} // namespace kaq
