/*
 * All places that stored requests are sent to. Each has a thread of its own, so that none waits for
 * another. Any thread.
 */
#pragma once

#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "export/destination.h"

namespace kaq {

class Destinations {
public:
	/* The directory is where each of them keeps how far it has come. The store outlives it. */
	Destinations(Store &store, std::string directory)
		: store_(store), directory_(std::move(directory)) {
	}

	/* From now on these, no two of one name. Those that stay as they are go on; of the others what
	 * is under way is broken off, and sent again by who comes next under their names. */
	void use(const std::vector<DestinationSettings> &wanted);
	std::vector<DestinationStatus> statuses();

private:
	Store &store_;
	const std::string directory_;
	std::mutex mutex_;
	std::vector<std::unique_ptr<Destination>> all_;
};

} // namespace kaq
