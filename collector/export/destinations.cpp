#include "export/destinations.h"

#include <algorithm>

#include "export/destination.h"
#include "export/metrics_destination.h"

namespace kaq {

Destinations::Place Destinations::open(const DestinationSettings &settings) {
	Place place{settings, {}};
	for (OtlpSignal signal : settings.signals) {
		if (signal == OtlpSignal::kMetrics) {
			place.exporters.push_back(std::make_unique<MetricsDestination>(metrics_, settings));
		} else {
			place.exporters.push_back(
				std::make_unique<Destination>(store_, settings, signal, directory_));
		}
	}
	return place;
}

void Destinations::use(const std::vector<DestinationSettings> &wanted) {
	std::lock_guard lock(mutex_);
	auto is_unwanted = [&wanted](const Place &each) {
		return std::find(wanted.begin(), wanted.end(), each.settings) == wanted.end();
	};
	all_.erase(std::remove_if(all_.begin(), all_.end(), is_unwanted), all_.end());
	std::vector<Place> next;
	for (const DestinationSettings &settings : wanted) {
		auto same = std::find_if(all_.begin(), all_.end(), [&settings](const Place &each) {
			return each.settings == settings;
		});
		next.push_back(same == all_.end() ? open(settings) : std::move(*same));
	}
	all_ = std::move(next);
}

std::vector<DestinationStatus> Destinations::statuses() {
	std::lock_guard lock(mutex_);
	std::vector<DestinationStatus> statuses;
	for (const Place &place : all_) {
		for (const std::unique_ptr<Exporter> &each : place.exporters) {
			statuses.push_back(each->status());
		}
	}
	return statuses;
}

} // namespace kaq
