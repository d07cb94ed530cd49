/*
 * What the running collector looks after beside taking requests in: logs of crashes, after which it
 * stops monitoring by itself, alerts, and names that hide pages. Threads of its own; any thread may
 * call anything.
 */
#pragma once

#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "analysis/hidden_pages.h"
#include "cli/alert_file.h"
#include "cli/alerts.h"
#include "cli/webhook.h"
#include "ingest/crash_guard.h"
#include "ingest/suspensions.h"
#include "util/periodic.h"

namespace kaq {

class Caretaker {
public:
	/* REQUIRES: the store outlives it. */
	Caretaker(Store &store, const Configuration &configuration);
	/* What is still to be posted is left for the next one. */
	~Caretaker();

	/* `base_url` is where a browser finds the collector. */
	void start(const std::string &base_url);
	void use(const Configuration &configuration);

	/* Each request that was recorded. */
	void note(const Transaction &transaction) {
		guard_.note(transaction);
		pages_.note(transaction.application,
					transaction.normalised_name.empty() ? transaction.name
														: transaction.normalised_name,
					transaction.name, transaction.query_string);
	}

	Suspensions &suspensions() {
		return suspensions_;
	}
	/* An object with the members suspended, hidden_pages, crash_directories, crashes and alerts. */
	nlohmann::json facts() const;

private:
	void look_for_crashes();
	void look_at_figures();
	void recall_alerts(const std::vector<AlertRule> &rules);
	void keep_alerts();

	Suspensions suspensions_;
	CrashGuard guard_;
	HiddenPagesFinder pages_;
	Webhook webhook_;

	mutable std::mutex mutex_; /* of what follows */
	std::vector<std::string> directories_;
	std::vector<AlertRule> rules_;
	std::vector<CrashDirectory> found_;
	uint64_t crashes_ = 0; /* since the start */
	uint64_t our_crashes_ = 0;
	uint64_t alerts_ = 0;
	std::string base_url_;

	/* Each of one thread alone. */
	std::unique_ptr<CrashLogs> logs_;
	std::vector<std::string> watched_;
	AlertEngine engine_;
	const std::string alert_file_;
	std::vector<FileRow> kept_alerts_; /* as the file has them */

	std::unique_ptr<Periodic> crash_thread_;
	std::unique_ptr<Periodic> alert_thread_;
};

/* As the status has them. */
nlohmann::json to_json(const Suspension &suspension);
nlohmann::json to_json(const HiddenPages &pages);
/* "shop (instance 0123...)" */
std::string name_of(const Suspension &suspension);

} // namespace kaq
