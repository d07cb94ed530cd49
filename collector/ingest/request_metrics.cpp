#include "ingest/request_metrics.h"

#include <algorithm>

#include "store/name_cap.h"

namespace kaq {
namespace {

/* The one of that key, or the one that stands for all that are too many. */
template <typename Map>
typename Map::mapped_type &entry(Map &map, const typename Map::key_type &key,
								 const typename Map::key_type &other, size_t most) {
	auto found = map.find(key);
	return found != map.end() ? found->second : map[map.size() < most ? key : other];
}

} // namespace

void RequestMetrics::add(const Summary &summary) {
	std::lock_guard lock(mutex_);
	std::string others(kOtherNames);
	RequestSeries &series = entry(requests_, {summary.application, summary.name}, {others, others},
								  limits_.transactions);
	series.requests++;
	series.failed += summary.is_failed ? 1 : 0;
	series.milliseconds += static_cast<uint64_t>(std::max<int64_t>(summary.duration, 0));
	auto bucket =
		std::lower_bound(kDurationBuckets.begin(), kDurationBuckets.end(), summary.duration);
	if (bucket != kDurationBuckets.end()) {
		series.buckets[static_cast<size_t>(bucket - kDurationBuckets.begin())]++;
	}
}

void RequestMetrics::add(const std::vector<HandshakeCount> &counts) {
	std::lock_guard lock(mutex_);
	for (const HandshakeCount &count : counts) {
		AskedSeries &series =
			entry(asked_, count.application, std::string(kOtherNames), limits_.applications);
		series.asked += count.asked;
		series.monitored += count.monitored;
		series.shed += count.shed;
	}
}

std::map<RequestMetrics::Name, RequestSeries> RequestMetrics::requests() const {
	std::lock_guard lock(mutex_);
	return requests_;
}

std::map<std::string, AskedSeries> RequestMetrics::asked() const {
	std::lock_guard lock(mutex_);
	return asked_;
}

} // namespace kaq
