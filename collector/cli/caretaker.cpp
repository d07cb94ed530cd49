#include "cli/caretaker.h"

#include <algorithm>

#include "cli/client.h"
#include "util/log.h"
#include "util/system_time.h"

namespace kaq {
namespace {

constexpr std::chrono::seconds kBetweenCrashLooks{5};
constexpr std::chrono::seconds kBetweenAlertLooks{5};
/* Until what happened in a minute is likely to have been told. */
constexpr int64_t kDelay = 10 * 1000;
constexpr const char *kSuspensionFile = "/suspended";
constexpr const char *kAlertFile = "/alerts";

void say(const Suspension &suspension) {
	log_line(LogLevel::kError,
			 name_of(suspension) + " is not monitored any more: " + suspension.reason +
				 "; 'kaq resume" +
				 (suspension.application.empty() ? "" : " " + suspension.application) +
				 "' brings it back");
}

} // namespace

nlohmann::json to_json(const Suspension &suspension) {
	return {{"application", suspension.application},
			{"instance", suspension.instance},
			{"since_ms", suspension.since},
			{"reason", suspension.reason}};
}

nlohmann::json to_json(const HiddenPages &pages) {
	return {{"application", pages.application},
			{"transaction", pages.transaction},
			{"parameter", pages.parameter},
			{"pages", pages.pages},
			{"requests", pages.requests},
			{"advice", "put [[names.rule]] with path = '" + pages.path + "' and parameters = ['" +
						   pages.parameter + "'] into the configuration, and reload it"}};
}

std::string name_of(const Suspension &suspension) {
	if (suspension.application.empty()) {
		return "every application";
	}
	return suspension.application +
		   (suspension.instance.empty() ? "" : " (instance " + suspension.instance + ")");
}

Caretaker::Caretaker(Store &store, const Configuration &configuration)
	: suspensions_(configuration.store.directory + kSuspensionFile), guard_(suspensions_),
	  engine_(figure_source(store)), alert_file_(configuration.store.directory + kAlertFile) {
	use(configuration);
	recall_alerts(configuration.alerts);
	for (const Suspension &each : suspensions_.all()) {
		say(each);
	}
}

Caretaker::~Caretaker() {
	crash_thread_.reset();
	alert_thread_.reset();
	webhook_.end();
	keep_alerts();
}

void Caretaker::start(const std::string &base_url) {
	{
		std::lock_guard lock(mutex_);
		base_url_ = base_url;
	}
	crash_thread_ = std::make_unique<Periodic>("kaq-crashes", kBetweenCrashLooks,
											   [this] { look_for_crashes(); });
	alert_thread_ =
		std::make_unique<Periodic>("kaq-alerts", kBetweenAlertLooks, [this] { look_at_figures(); });
}

void Caretaker::use(const Configuration &configuration) {
	std::lock_guard lock(mutex_);
	directories_ = configuration.crash_logs.directories;
	rules_ = configuration.alerts;
}

void Caretaker::look_for_crashes() {
	{
		std::lock_guard lock(mutex_);
		if (!logs_ || watched_ != directories_) {
			watched_ = directories_;
			logs_ = std::make_unique<CrashLogs>(watched_);
		}
	}
	/* What was there when something was suspended or resumed has been counted. */
	int64_t now = system_time();
	int64_t age = std::clamp<int64_t>(now - suspensions_.changed(), 0, CrashGuard::kWindow);
	std::vector<Crash> crashes = logs_->look(now, age);
	for (const Crash &crash : crashes) {
		log_some(LogLevel::kWarning, "crash",
				 "process " + std::to_string(crash.process) + " has crashed by signal " +
					 std::to_string(crash.signal) +
					 (crash.is_ours ? ", in the extension: " : ", not in the extension: ") +
					 crash.place);
		if (std::optional<Suspension> suspension = guard_.take(crash)) {
			say(*suspension);
		}
	}
	std::lock_guard lock(mutex_);
	found_ = logs_->directories();
	crashes_ += crashes.size();
	for (const Crash &crash : crashes) {
		our_crashes_ += crash.is_ours ? 1 : 0;
	}
}

void Caretaker::recall_alerts(const std::vector<AlertRule> &rules) {
	KeptAlerts kept = read_alerts(alert_file_);
	kept_alerts_ = rows_of(kept);
	engine_.use(rules);
	engine_.recall(kept.memory);
	for (Webhook::Post &post : kept.posts) {
		bool is_wanted = std::any_of(rules.begin(), rules.end(), [&post](const AlertRule &rule) {
			return rule.webhook == post.url;
		});
		if (is_wanted) {
			webhook_.post(post.url, std::move(post.body));
		}
	}
}

void Caretaker::keep_alerts() {
	std::vector<FileRow> rows = rows_of({engine_.memory(), webhook_.undelivered()});
	if (rows == kept_alerts_) {
		return;
	}
	if (write_rows(alert_file_, rows)) {
		kept_alerts_ = std::move(rows);
	} else {
		log_some(LogLevel::kError, "alert-file",
				 "cannot write " + alert_file_ + ": a restart may tell alerts again");
	}
}

void Caretaker::look_at_figures() {
	std::string base_url;
	{
		std::lock_guard lock(mutex_);
		engine_.use(rules_);
		base_url = base_url_;
	}
	try {
		for (const Alert &alert : engine_.look(system_time() - kDelay)) {
			log_some(LogLevel::kWarning, "alert", alert.text);
			webhook_.post(alert.webhook, to_json(alert, base_url));
			std::lock_guard lock(mutex_);
			alerts_++;
		}
	} catch (const std::exception &error) {
		log_some(LogLevel::kWarning, "alert-figures",
				 std::string("cannot look at the figures for alerts: ") + error.what());
	}
	keep_alerts();
}

nlohmann::json Caretaker::facts() const {
	nlohmann::json suspended = nlohmann::json::array();
	for (const Suspension &each : suspensions_.all()) {
		suspended.push_back(to_json(each));
	}
	nlohmann::json hidden = nlohmann::json::array();
	for (const HiddenPages &each : pages_.found()) {
		hidden.push_back(to_json(each));
	}
	std::lock_guard lock(mutex_);
	nlohmann::json directories = nlohmann::json::array();
	for (const CrashDirectory &each : found_) {
		directories.push_back({{"path", each.path},
							   {"exists", each.is_there},
							   {"mistake", each.mistake},
							   {"logs", each.logs}});
	}
	return {{"suspended", std::move(suspended)},
			{"hidden_pages", std::move(hidden)},
			{"crash_directories", std::move(directories)},
			{"crashes", {{"all", crashes_}, {"in_extension", our_crashes_}}},
			{"alerts",
			 {{"rules", rules_.size()},
			  {"said", alerts_},
			  {"delivered", webhook_.delivered()},
			  {"given_up", webhook_.given_up()}}}};
}

} // namespace kaq
