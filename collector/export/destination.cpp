#include "export/destination.h"

#include <cstdlib>

#include "util/background.h"
#include "util/log.h"
#include "util/row_file.h"

namespace kaq {
namespace {

constexpr size_t kPlaceFields = 2;
/* Of a place that only what is not wanted lies before. */
constexpr std::chrono::seconds kBetweenKeeps{5};
constexpr std::chrono::seconds kPauseAfterMishap{10};

int64_t number(const std::string &text) {
	return std::strtoll(text.c_str(), nullptr, 10);
}

/* No name of a place has a dot. */
std::string file_of(const DestinationSettings &settings, OtlpSignal signal,
					const std::string &directory) {
	std::string file = directory + "/export-" + settings.name;
	return signal == OtlpSignal::kTraces ? file : file + "." + std::string(signal_name(signal));
}

} // namespace

Destination::Destination(Store &store, DestinationSettings settings, OtlpSignal signal,
						 const std::string &directory)
	: store_(store), settings_(std::move(settings)), file_(file_of(settings_, signal, directory)),
	  place_(first_place()),
	  sender_(store_, settings_, signal, place_, [this](const StorePlace &place, bool is_sent) {
		  place_ = place;
		  if (is_sent || Clock::now() - kept_at_ >= kBetweenKeeps) {
			  keep();
		  }
	  }) {
	keep();
	thread_ = std::thread([this] { run(); });
}

Destination::~Destination() {
	sender_.end();
	thread_.join();
	keep();
}

StorePlace Destination::first_place() {
	std::vector<FileRow> rows = read_rows(file_, 1);
	if (!rows.empty() && rows[0].size() == kPlaceFields) {
		return {number(rows[0][0]), number(rows[0][1])};
	}
	return store_.last_place();
}

void Destination::keep() {
	kept_at_ = Clock::now();
	if (!write_rows(file_, {{std::to_string(place_.file), std::to_string(place_.row)}})) {
		log_some(LogLevel::kError, "export-place",
				 "cannot write " + file_ + ": after a restart requests will be sent again");
	}
}

void Destination::run() {
	work_in_background("kaq-export");
	bool is_to_go_on = true;
	while (is_to_go_on) {
		try {
			is_to_go_on =
				sender_.wait(sender_.look() ? std::chrono::milliseconds(0) : settings_.poll_time);
		} catch (const std::exception &error) {
			log_some(LogLevel::kError, "export", settings_.name + ": " + error.what());
			is_to_go_on = sender_.wait(kPauseAfterMishap);
		}
	}
}

} // namespace kaq
