/*
 * The doctor, asked over HTTP: what the collector's own user can see, and the last report of root,
 * who sees more. Any thread.
 */
#pragma once

#include <chrono>
#include <mutex>
#include <string>

#include "cli/doctor.h"
#include "query/service.h"

namespace kaq {

class DoctorService {
public:
	/* The directory is the store's. */
	DoctorService(std::string configuration_file, std::string directory)
		: configuration_file_(std::move(configuration_file)), directory_(std::move(directory)) {
	}

	/* Takes seconds; one at a time, and what was seen half a minute ago is told again. */
	Answer show();
	/* Keeps what the verb has seen as root, as JSON. */
	Answer keep(const std::string &report);

private:
	using Clock = std::chrono::steady_clock;

	nlohmann::json seen();
	std::string file() const;

	const std::string configuration_file_;
	const std::string directory_;
	std::mutex mutex_; /* held while the host is looked at */
	nlohmann::json seen_;
	Clock::time_point seen_at_;
};

} // namespace kaq
