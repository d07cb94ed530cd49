/*
 * All places that requests and metrics are sent to. Each signal of each has a thread of its own, so
 * that none waits for another. Any thread.
 */
#pragma once

#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "export/exporter.h"
#include "ingest/request_metrics.h"
#include "store/store.h"

namespace kaq {

class Destinations {
public:
	/* The directory is where each of them keeps how far it has come. Store and metrics outlive it.
	 */
	Destinations(Store &store, const RequestMetrics &metrics, std::string directory)
		: store_(store), metrics_(metrics), directory_(std::move(directory)) {
	}

	/* From now on these, no two of one name. Those that stay as they are go on; of the others what
	 * is under way is broken off, and sent again by who comes next under their names. */
	void use(const std::vector<DestinationSettings> &wanted);
	/* One for each signal of each. */
	std::vector<DestinationStatus> statuses();

private:
	struct Place {
		DestinationSettings settings;
		std::vector<std::unique_ptr<Exporter>> exporters;
	};

	Place open(const DestinationSettings &settings);

	Store &store_;
	const RequestMetrics &metrics_;
	const std::string directory_;
	std::mutex mutex_;
	std::vector<Place> all_;
};

} // namespace kaq
