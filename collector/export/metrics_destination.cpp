#include "export/metrics_destination.h"

#include <algorithm>

#include "analysis/naming.h"
#include "export/otlp_metrics.h"
#include "util/background.h"
#include "util/log.h"
#include "util/system_time.h"

namespace kaq {

using std::chrono::milliseconds;

MetricsDestination::MetricsDestination(const RequestMetrics &metrics, DestinationSettings settings)
	: metrics_(metrics), settings_(std::move(settings)),
	  sender_(settings_.endpoint, OtlpSignal::kMetrics) {
	status_.name = settings_.name;
	status_.signal = OtlpSignal::kMetrics;
	status_.url = without_credentials(sender_.url());
	thread_ = std::thread([this] { run(); });
}

MetricsDestination::~MetricsDestination() {
	{
		std::lock_guard lock(mutex_);
		is_to_end_ = true;
	}
	sender_.end();
	changed_.notify_all();
	thread_.join();
}

void MetricsDestination::run() {
	work_in_background("kaq-export");
	milliseconds pause = settings_.metrics_time;
	for (;;) {
		{
			std::unique_lock lock(mutex_);
			if (changed_.wait_for(lock, pause, [this] { return is_to_end_; })) {
				return;
			}
		}
		try {
			pause = send_all();
		} catch (const std::exception &error) {
			log_some(LogLevel::kError, "export", settings_.name + ": " + error.what());
		}
	}
}

milliseconds MetricsDestination::send_all() {
	OtlpMetricWriter::Series wanted;
	for (auto &[key, series] : metrics_.series()) {
		if (matches_glob(key.application, settings_.application) &&
			matches_glob(key.transaction, settings_.transaction)) {
			wanted.emplace(key, series);
		}
	}
	OtlpMetricWriter writer(wanted, metrics_.since(), system_time(), settings_.traces.host);
	milliseconds pause = settings_.metrics_time;
	for (size_t from = 0; from < writer.items(); from += settings_.batch_items) {
		OtlpAnswer answer =
			send(writer, from, std::min(writer.items(), from + settings_.batch_items));
		if (answer.outcome == OtlpOutcome::kTryAgain) {
			return answer.pause ? std::max<milliseconds>(pause, *answer.pause) : pause;
		}
	}
	return pause;
}

/* What is too large for it is sent in halves. */
OtlpAnswer MetricsDestination::send(const OtlpMetricWriter &writer, size_t from, size_t to) {
	OtlpAnswer answer = sender_.send(writer.write(from, to - from).bytes);
	if (answer.outcome == OtlpOutcome::kTooLarge && to - from > 1) {
		size_t middle = from + (to - from) / 2;
		answer = send(writer, from, middle);
		return answer.outcome == OtlpOutcome::kTryAgain ? answer : send(writer, middle, to);
	}
	note(answer, static_cast<int64_t>(to - from));
	return answer;
}

void MetricsDestination::note(const OtlpAnswer &answer, int64_t items) {
	bool is_taken = answer.outcome == OtlpOutcome::kTaken;
	bool is_to_wait = answer.outcome == OtlpOutcome::kTryAgain;
	int64_t rejected = std::min(answer.rejected, items);
	if (!is_taken || rejected > 0) {
		log_some(LogLevel::kWarning, "export-metrics-" + settings_.name,
				 settings_.name + " did not take " + std::to_string(is_taken ? rejected : items) +
					 " points of metrics" + (answer.reason.empty() ? "" : ": " + answer.reason));
	}
	std::lock_guard lock(mutex_);
	status_.trouble = is_taken ? "" : answer.reason;
	status_.retries += is_to_wait ? 1 : 0;
	status_.refused += is_taken || is_to_wait ? 0 : static_cast<uint64_t>(items);
	if (is_taken) {
		status_.batches++;
		status_.items += static_cast<uint64_t>(items - rejected);
		status_.rejected += static_cast<uint64_t>(rejected);
		status_.last_taken = system_time();
	}
}

DestinationStatus MetricsDestination::status() {
	std::lock_guard lock(mutex_);
	return status_;
}

} // namespace kaq
