#include "ingest/request_metrics.h"

#include <algorithm>
#include <tuple>

#include "analysis/http_call.h"
#include "store/name_cap.h"
#include "util/system_time.h"

namespace kaq {

bool operator<(const RequestKey &one, const RequestKey &other) {
	auto all = [](const RequestKey &of) {
		return std::tie(of.application, of.is_web, of.transaction, of.method, of.status,
						of.is_failed);
	};
	return all(one) < all(other);
}

RequestMetrics::RequestMetrics(Limits limits) : limits_(limits), since_(system_time()) {
}

RequestSeries &RequestMetrics::series_of(RequestKey key) {
	auto found = series_.find(key);
	if (found != series_.end()) {
		return found->second;
	}
	if (names_.size() < limits_.transactions) {
		names_.insert({key.application, key.transaction});
	} else if (names_.count({key.application, key.transaction}) == 0) {
		key.application = key.transaction = kOtherNames;
	}
	if (series_.size() >= limits_.series && series_.count(key) == 0) {
		key.method.clear();
		key.status = 0;
	}
	return series_[key];
}

void RequestMetrics::add(const Summary &summary) {
	RequestKey key{summary.application, summary.is_web, summary.name, "", 0, summary.is_failed};
	if (summary.is_web) {
		key.method = known_method(summary.method);
		key.status = summary.status;
	}
	std::lock_guard lock(mutex_);
	RequestSeries &series = series_of(std::move(key));
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
		bool is_one_more =
			asked_.size() >= limits_.applications && asked_.count(count.application) == 0;
		AskedSeries &series = asked_[is_one_more ? std::string(kOtherNames) : count.application];
		series.asked += count.asked;
		series.monitored += count.monitored;
		series.shed += count.shed;
	}
}

std::map<RequestMetrics::Name, RequestSeries> RequestMetrics::requests() const {
	std::map<Name, RequestSeries> sums;
	std::lock_guard lock(mutex_);
	for (const auto &[key, series] : series_) {
		RequestSeries &sum = sums[{key.application, key.transaction}];
		sum.requests += series.requests;
		sum.failed += series.failed;
		sum.milliseconds += series.milliseconds;
		for (size_t i = 0; i < sum.buckets.size(); i++) {
			sum.buckets[i] += series.buckets[i];
		}
	}
	return sums;
}

std::map<RequestKey, RequestSeries> RequestMetrics::series() const {
	std::lock_guard lock(mutex_);
	return series_;
}

std::map<std::string, AskedSeries> RequestMetrics::asked() const {
	std::lock_guard lock(mutex_);
	return asked_;
}

} // namespace kaq
