/*
 * Sends how long requests took to one place, every so often. What is sent is summed up since the
 * collector's start, so what one attempt has lost the next one brings. A thread of its own, in the
 * background; any thread may ask.
 */
#pragma once

#include <condition_variable>
#include <mutex>
#include <thread>

#include "export/exporter.h"
#include "ingest/request_metrics.h"

namespace kaq {

class MetricsDestination : public Exporter {
public:
	/* The metrics outlive it. */
	MetricsDestination(const RequestMetrics &metrics, DestinationSettings settings);
	~MetricsDestination() override;
	MetricsDestination(const MetricsDestination &) = delete;
	MetricsDestination &operator=(const MetricsDestination &) = delete;

	DestinationStatus status() override;

private:
	void run();
	/* How long it is left alone then. */
	std::chrono::milliseconds send_all();
	OtlpAnswer send(const class OtlpMetricWriter &writer, size_t from, size_t to);
	void note(const OtlpAnswer &answer, int64_t items);

	const RequestMetrics &metrics_;
	const DestinationSettings settings_;
	OtlpSender sender_;

	std::mutex mutex_; /* of the following */
	std::condition_variable changed_;
	DestinationStatus status_;
	bool is_to_end_ = false;

	std::thread thread_;
};

} // namespace kaq
