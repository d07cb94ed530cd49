#include "export/destinations.h"

#include <algorithm>

namespace kaq {

void Destinations::use(const std::vector<DestinationSettings> &wanted) {
	std::lock_guard lock(mutex_);
	auto is_unwanted = [&wanted](const std::unique_ptr<Destination> &each) {
		return std::find(wanted.begin(), wanted.end(), each->settings()) == wanted.end();
	};
	all_.erase(std::remove_if(all_.begin(), all_.end(), is_unwanted), all_.end());
	std::vector<std::unique_ptr<Destination>> next;
	for (const DestinationSettings &settings : wanted) {
		auto same = std::find_if(all_.begin(), all_.end(), [&settings](const auto &each) {
			return each && each->settings() == settings;
		});
		next.push_back(same == all_.end()
						   ? std::make_unique<Destination>(store_, settings, directory_)
						   : std::move(*same));
	}
	all_ = std::move(next);
}

std::vector<DestinationStatus> Destinations::statuses() {
	std::lock_guard lock(mutex_);
	std::vector<DestinationStatus> statuses;
	statuses.reserve(all_.size());
	for (const std::unique_ptr<Destination> &each : all_) {
		statuses.push_back(each->status());
	}
	return statuses;
}

} // namespace kaq
