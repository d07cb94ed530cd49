#include "cli/export_history.h"

#include <unistd.h>

#include <algorithm>
#include <cstdio>

#include <nlohmann/json.hpp>

#include "cli/destinations.h"
#include "cli/format.h"
#include "cli/places.h"
#include "export/request_sender.h"
#include "query/values.h"
#include "store/sqlite_store.h"
#include "util/system_time.h"

namespace kaq {
namespace {

using std::chrono::minutes;
using std::chrono::seconds;

constexpr minutes kPatience{5};

std::optional<int64_t> time_of(const char *option, const std::string &text, int64_t usual) {
	if (text.empty()) {
		return usual;
	}
	auto time = read_time(text, system_time());
	if (!time) {
		fprintf(stderr, "kaq: %s: %s is no time, such as 7d (ago) or 2026-11-22\n", option,
				printable(text).c_str());
		return std::nullopt;
	}
	return *time;
}

std::optional<DestinationSettings> settings_of(const HistoryOptions &history,
											   const FilterOptions &filter) {
	DestinationSettings settings;
	settings.name = "history";
	settings.endpoint.url = history.url;
	settings.endpoint.headers = history.headers;
	settings.endpoint.ca_file = history.ca_file;
	settings.traces.has_literals = history.keeps_literals;
	settings.application = filter.application.empty() ? "*" : filter.application;
	settings.patience = kPatience;
	auto from = time_of("--since", filter.from, TimeRange::kAlways);
	auto to = time_of("--until", filter.to, TimeRange::kForever);
	if (!from || !to) {
		return std::nullopt;
	}
	settings.range = {*from, *to};
	return settings;
}

/* One line that is written over, where somebody looks. */
class Progress {
public:
	/* Asks for the status only when it is shown: to count what waits takes a look at every file. */
	void show(RequestSender &sender) {
		auto now = std::chrono::steady_clock::now();
		if (isatty(STDERR_FILENO) != 0 && now - shown_ >= seconds(1)) {
			DestinationStatus status = sender.status();
			shown_ = now;
			fprintf(stderr, "\rkaq: %s sent, %s wait ", count_text(status.requests).c_str(),
					count_text(status.waiting).c_str());
			has_shown_ = true;
		}
	}
	void end() const {
		if (has_shown_) {
			fputc('\n', stderr);
		}
	}

private:
	std::chrono::steady_clock::time_point shown_{};
	bool has_shown_ = false;
};

DestinationStatus send(Store &store, const DestinationSettings &settings, OtlpSignal signal) {
	Progress progress;
	RequestSender *of = nullptr;
	RequestSender sender(store, settings, signal, StorePlace(),
						 [&](const StorePlace &, bool) { progress.show(*of); });
	of = &sender;
	while (sender.look()) {
	}
	progress.end();
	return sender.status();
}

/* What became of it; whether all was taken. */
bool say(const DestinationStatus &status) {
	const char *what = status.signal == OtlpSignal::kLogs ? "log records" : "spans";
	printf("%s with %s %s sent to %s\n",
		   count_of(static_cast<int64_t>(status.requests), "request", "requests").c_str(),
		   count_text(static_cast<int64_t>(status.items)).c_str(), what, status.url.c_str());
	fflush(stdout);
	uint64_t unwanted = status.rejected + status.refused;
	if (unwanted > 0) {
		fprintf(stderr, "kaq: %s %s were not taken\n",
				count_text(static_cast<int64_t>(unwanted)).c_str(), what);
	}
	if (status.unreadable > 0) {
		fprintf(stderr, "kaq: %s could not be read\n",
				count_of(static_cast<int64_t>(status.unreadable), "request", "requests").c_str());
	}
	if (!status.trouble.empty()) {
		fprintf(stderr, "kaq: %s: %s\n", status.url.c_str(), printable(status.trouble).c_str());
	}
	return unwanted == 0 && status.unreadable == 0 && status.trouble.empty();
}

} // namespace

int export_history(const HistoryOptions &history, const CommonOptions &common,
				   const FilterOptions &filter) {
	std::optional<DestinationSettings> settings = settings_of(history, filter);
	if (!settings) {
		return kMisunderstood;
	}
	SqliteSettings store_settings;
	store_settings.directory = store_directory(common.store, common.configuration);
	store_settings.is_read_only = true;
	SqliteStore store(store_settings);
	nlohmann::json statuses = nlohmann::json::array();
	bool is_whole = true;
	for (OtlpSignal signal : {OtlpSignal::kTraces, OtlpSignal::kLogs}) {
		if (std::count(history.signals.begin(), history.signals.end(), signal_name(signal)) == 0) {
			continue;
		}
		DestinationStatus status = send(store, *settings, signal);
		if (common.is_json) {
			statuses.push_back(to_json({status}).at(0));
			is_whole = is_whole && status.trouble.empty() && status.refused + status.rejected == 0;
		} else {
			is_whole = say(status) && is_whole;
		}
	}
	if (common.is_json) {
		printf("%s\n", nlohmann::json{{"destinations", statuses}}.dump().c_str());
	}
	return is_whole ? kDone : kFailed;
}

} // namespace kaq
