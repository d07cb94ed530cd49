/*
 * The running collector: its ports, what stands behind them, and their life from the first to the
 * last. One thread makes it, runs it and ends it.
 */
#pragma once

#include <chrono>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "cli/caretaker.h"
#include "cli/configuration.h"
#include "cli/counter_log.h"
#include "cli/descriptors.h"
#include "cli/doctor_service.h"
#include "cli/metrics.h"
#include "cli/verbs.h"
#include "export/destinations.h"
#include "http/http_server.h"
#include "http/routes.h"
#include "ingest/handshake_counts.h"
#include "ingest/overload_control.h"
#include "ingest/pipeline.h"
#include "ingest/recorder.h"
#include "net/data_server.h"
#include "net/handshake_probe.h"
#include "net/handshake_server.h"
#include "store/sqlite_store.h"
#include "util/file_lock.h"
#include "util/memory_budget.h"
#include "util/watchdog.h"

namespace kaq {

/* The file's settings, with the options that win over them. Throws std::runtime_error with a line
 * for each mistake. */
Configuration effective_configuration(const CollectOptions &options);

class Daemon {
public:
	/* Opens the ports; throws std::system_error if one cannot be had, and std::runtime_error if
	 * another collector has the store. REQUIRES: SIGTERM, SIGINT and SIGHUP are blocked. */
	Daemon(const CollectOptions &options, Configuration configuration, ConnectionLimits limits);
	~Daemon();
	Daemon(const Daemon &) = delete;
	Daemon &operator=(const Daemon &) = delete;

	/* Until SIGTERM or SIGINT; SIGHUP reads the configuration again. */
	void run();

private:
	using Clock = std::chrono::steady_clock;

	void start();
	void say_places();
	void stop();
	/* All of a new configuration, or nothing. */
	void reload();
	/* What is due between signals. */
	void look();
	void look_at_load(Clock::time_point now);
	void keep(const std::vector<HandshakeCount> &counts);
	void keep(const Transaction &transaction, Recorder &recorder);
	void add_counters();
	void tell_services();
	void open_metrics();
	void use_destinations();
	void publish_facts();
	void tell_configuration(const std::string &mistakes);
	void look_at_suspensions();
	std::unique_ptr<HandshakePolicy> policy();
	std::string status() const;

	const CollectOptions options_;
	Configuration configuration_;
	/* The first to come and the last to go. None where the store cannot be written to. */
	std::unique_ptr<FileLock> lock_;

	/* Outlives what takes requests in. */
	std::unique_ptr<SqliteStore> store_;
	RequestMetrics request_metrics_;
	ForkLookup forks_;
	std::unique_ptr<Destinations> destinations_;
	std::unique_ptr<Caretaker> caretaker_;
	uint64_t policy_version_ = 0; /* of the suspensions in the policy */
	std::mutex facts_mutex_;
	nlohmann::json facts_; /* as the services tell them */

	/* What takes requests in. */
	MemoryBudget budget_;
	LiveFeed feed_;
	OverloadControl overload_;
	HandshakeCounter counter_;
	std::unique_ptr<Pipeline> pipeline_;

	std::unique_ptr<HandshakeServer> handshake_;
	std::unique_ptr<DataServer> data_;
	MetricsGate metrics_;
	LoginCodes login_codes_;
	std::unique_ptr<Sessions> sessions_;
	std::unique_ptr<ServiceContext> services_;
	std::unique_ptr<DoctorService> doctor_;
	std::unique_ptr<Routes> routes_;
	std::unique_ptr<HttpServer> http_;

	/* What looks after them. */
	std::unique_ptr<HandshakeProbe> probe_;
	std::unique_ptr<Watchdog> watchdog_;
	CounterLog counter_log_;
	HandshakeCount totals_;
	Clock::time_point facts_published_{};
	Clock::time_point counters_said_{};
};

} // namespace kaq
