#include "cli/daemon.h"

#include <grp.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <stdexcept>

#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include "analysis/summary.h"
#include "cli/destinations.h"
#include "cli/places.h"
#include "cli/reload.h"
#include "cli/service_manager.h"
#include "http/access.h"
#include "ingest/rules_policy.h"
#include "query/summary_json.h"
#include "store/request_view.h"
#include "util/log.h"
#include "util/random.h"
#include "util/system_time.h"

namespace kaq {
namespace {

/* Of all payloads that are being received or wait for being read. */
constexpr size_t kPayloadMemory = 96 * 1024 * 1024;
/* That make requests of payloads. */
constexpr size_t kReaders = 2;
constexpr std::chrono::milliseconds kDrainTime{5000};
constexpr timespec kBetweenLooks{0, 200 * 1000 * 1000};
constexpr std::chrono::seconds kBetweenFacts{1};
constexpr std::chrono::seconds kBetweenCounters{10};
constexpr std::chrono::seconds kBetweenProbes{5};
constexpr const char *kHttpAddress = "127.0.0.1";
constexpr size_t kTokenBytes = 24;

SqliteSettings store_settings(const Configuration &configuration) {
	const StoreSettings &wanted = configuration.store;
	SqliteSettings settings;
	settings.directory = wanted.directory;
	settings.most_bytes = static_cast<int64_t>(wanted.size_cap);
	settings.age = wanted.age.count();
	settings.file_bytes = static_cast<int64_t>(wanted.partition_size);
	settings.file_time = wanted.partition_age.count();
	settings.figures = {wanted.minutes_age.count(), wanted.hours_age.count(),
						static_cast<int64_t>(wanted.rollup_cap)};
	settings.caps.names = configuration.names.cap;
	settings.documents.keeps_all = wanted.keeps_all;
	settings.documents.time = wanted.documents_time.count();
	return settings;
}

PipelineSettings pipeline_settings(const Configuration &configuration) {
	return {configuration.scrub, with_usual_rules(configuration.names.rules)};
}

/* Where a process of this host finds a port that listens there. */
std::string reachable(const std::string &address) {
	if (address == "0.0.0.0") {
		return "127.0.0.1";
	}
	return address == "::" ? "::1" : address;
}

/* Nothing where the medium cannot be written to: then nobody else writes there either. */
std::unique_ptr<FileLock> take(const std::string &store) {
	try {
		std::error_code ignored;
		std::filesystem::create_directories(store, ignored);
		return std::make_unique<FileLock>(lock_of(store));
	} catch (const std::system_error &error) {
		if (error.code().value() == EWOULDBLOCK) {
			throw std::runtime_error(
				fmt::format("the collector of process {} has the store {}: end it, or name another "
							"store with --store DIR",
							FileLock::holder(lock_of(store)), store));
		}
		if (error.code().value() != EROFS) {
			throw;
		}
	}
	log_line(LogLevel::kError,
			 store + " cannot be written to: handshakes are answered, but no request is kept, and "
					 "the verbs find no socket there");
	return nullptr;
}

/* One that nobody knows where it cannot be kept. */
std::string token_for(const std::string &store, bool is_writable) {
	try {
		return token_of(store);
	} catch (const std::system_error &) {
		if (is_writable) {
			throw;
		}
		return random_hex(kTokenBytes);
	}
}

/* Where the group is there and we may, its members can use the socket, and get to it through a
 * directory that is nobody else's. They can read nothing in it. */
void give_to_group(const std::string &directory, const std::string &socket,
				   const std::string &name) {
	const group *found = getgrnam(name.c_str());
	if (!found) {
		return;
	}
	auto give = [found](const std::string &path) {
		return chown(path.c_str(), static_cast<uid_t>(-1), found->gr_gid) == 0;
	};
	struct stat facts = {};
	bool is_closed = stat(directory.c_str(), &facts) == 0 && facts.st_uid == geteuid() &&
					 (facts.st_mode & (S_IRWXG | S_IRWXO)) == 0;
	bool is_given =
		give(socket) && (!is_closed || (give(directory) && chmod(directory.c_str(), 0710) == 0));
	if (!is_given) {
		log_line(LogLevel::kWarning, "cannot give " + socket + " to the group " + name);
	}
}

[[noreturn]] void end_for_stall() {
	/* Not even a log that nobody reads may keep it. */
	signal(SIGALRM, SIG_DFL);
	alarm(1);
	log_line(LogLevel::kError, "the handshake thread has stood still for 2 seconds: the process "
							   "ends, so that requests are refused rather than kept waiting");
	abort();
}

void say(const ConfigurationMistakes &mistakes, const std::string &file) {
	log_line(LogLevel::kError, "the configuration has mistakes, and the old one stays");
	for (const ConfigurationMistake &each : mistakes) {
		std::string line = mistakes_text(file, {each});
		line.pop_back();
		log_line(LogLevel::kError, line);
	}
}

} // namespace

Configuration effective_configuration(const CollectOptions &options) {
	ConfigurationOrMistakes configuration = load_with_options(options);
	if (!configuration) {
		std::string text =
			mistakes_text(configuration_file(options.configuration), configuration.error());
		text.pop_back();
		throw std::runtime_error(text);
	}
	return std::move(*configuration);
}

Daemon::Daemon(const CollectOptions &options, Configuration configuration, ConnectionLimits limits)
	: options_(options), configuration_(std::move(configuration)), budget_(kPayloadMemory) {
	const ListenSettings &listen = configuration_.listen;
	lock_ = take(configuration_.store.directory);
	const std::string socket = lock_ ? socket_of(configuration_.store.directory) : "";
	store_ = std::make_unique<SqliteStore>(store_settings(configuration_));
	destinations_ =
		std::make_unique<Destinations>(*store_, request_metrics_, configuration_.store.directory);
	caretaker_ = std::make_unique<Caretaker>(*store_, configuration_);
	std::vector<Pipeline::Sink> sinks;
	for (size_t i = 0; i < kReaders; i++) {
		sinks.emplace_back([this, recorder = std::make_shared<Recorder>(*store_, forks_)](
							   const std::shared_ptr<const Transaction> &transaction) {
			keep(*transaction, *recorder);
		});
	}
	pipeline_ = std::make_unique<Pipeline>(pipeline_settings(configuration_), std::move(sinks));
	handshake_ = std::make_unique<HandshakeServer>(
		ListenPlace{listen.addresses, listen.handshake_port, listen.handshake_networks}, policy(),
		limits.handshakes);
	data_ = std::make_unique<DataServer>(
		ListenPlace{listen.addresses, listen.data_port, listen.data_networks}, budget_,
		[this](BudgetedBuffer &&bytes) { return pipeline_->accept(std::move(bytes)); },
		limits.payloads);
	const std::string token = token_for(configuration_.store.directory, lock_ != nullptr);
	services_ =
		std::make_unique<ServiceContext>(ServiceContext{*store_, system_time, nullptr, nullptr});
	doctor_ =
		std::make_unique<DoctorService>(options_.configuration, configuration_.store.directory);
	sessions_ = std::make_unique<Sessions>(lock_ ? sessions_of(configuration_.store.directory) : "",
										   system_time());
	routes_ = std::make_unique<Routes>(
		*services_, login_codes_, *sessions_,
		DoctorRoutes{[this] { return doctor_->show(); },
					 [this](const std::string &report) { return doctor_->keep(report); }});
	http_ = std::make_unique<HttpServer>(
		HttpSettings{kHttpAddress, listen.http_port, socket, token, sessions_.get(), limits.http},
		[this](const HttpRequest &request) { return routes_->answer(request); }, feed_);
	if (!socket.empty()) {
		give_to_group(configuration_.store.directory, socket, listen.socket_group);
	}
	say_limits(limits);
	add_counters();
	tell_services();
}

Daemon::~Daemon() = default;

/* Called by the workers of HTTP, so that it takes nothing of what may change. */
void Daemon::tell_services() {
	uint16_t http_port = http_->port();
	facts_ = {{"process", getpid()},
			  {"started_ms", system_time()},
			  {"addresses", configuration_.listen.addresses},
			  {"handshake_port", handshake_->port()},
			  {"data_port", data_->port()},
			  {"http_port", http_port}};
	tell_configuration("");
	publish_facts();
	services_->daemon = [this] {
		std::lock_guard lock(facts_mutex_);
		nlohmann::json facts = facts_;
		facts.update(caretaker_->facts());
		return facts;
	};
	services_->resume = [this](const std::string &application) {
		nlohmann::json resumed = nlohmann::json::array();
		for (const Suspension &each : caretaker_->suspensions().resume(application)) {
			log_line(LogLevel::kInfo, name_of(each) + " is monitored again");
			resumed.push_back(to_json(each));
		}
		return resumed;
	};
	services_->destinations = [this] { return to_json(destinations_->statuses()); };
	services_->metrics = [this] { return metrics_.text(); };
	services_->login_link = [this, http_port] {
		return fmt::format("http://{}:{}{}?code={}", kHttpAddress, http_port, kLoginPath,
						   login_codes_.issue());
	};
}

void Daemon::open_metrics() {
	metrics_.open({*handshake_, *data_, *http_, pipeline_->counts(), *probe_, budget_, *pipeline_,
				   overload_, request_metrics_, *store_, *destinations_, system_time()});
}

void Daemon::publish_facts() {
	HandshakeLatency latency = probe_ ? probe_->latency() : HandshakeLatency();
	const PipelineCounts &read = pipeline_->counts();
	nlohmann::json notices;
	for (size_t i = 0; i < kNotices; i++) {
		notices[std::string(notice_name(static_cast<Notice>(i)))] = read.notices[i].load();
	}
	std::lock_guard lock(facts_mutex_);
	facts_["notices"] = std::move(notices);
	facts_["counters"] = counter_log_.counts();
	facts_["requests"] = {{"asked", totals_.asked},
						  {"recorded", totals_.monitored},
						  {"left_out_for_load", totals_.shed}};
	facts_["load_share"] = static_cast<double>(overload_.share()) / kWholeShare;
	facts_["handshake"] = {{"p50_us", latency.p50.count()},
						   {"p99_us", latency.p99.count()},
						   {"measured", latency.measured},
						   {"failed", latency.failed}};
}

std::unique_ptr<HandshakePolicy> Daemon::policy() {
	RulesSettings settings;
	settings.monitor = configuration_.monitor;
	settings.names = configuration_.names.rules;
	settings.most_names = configuration_.names.cap;
	settings.scrub = configuration_.scrub;
	policy_version_ = caretaker_->suspensions().version();
	settings.suspensions = caretaker_->suspensions().all();
	return std::make_unique<RulesPolicy>(std::move(settings), counter_, overload_);
}

void Daemon::start() {
	/* What is recorded from now on has to find the data port open. */
	data_->start();
	http_->start();
	handshake_->start();
	const std::vector<std::string> &addresses = configuration_.listen.addresses;
	probe_ = std::make_unique<HandshakeProbe>(reachable(addresses.front()), handshake_->port(),
											  kBetweenProbes);
	watchdog_ = std::make_unique<Watchdog>(
		WatchdogSettings(), [this] { return handshake_->beats(); }, tell_alive, end_for_stall);
	open_metrics();
	caretaker_->start(fmt::format("http://{}:{}", kHttpAddress, http_->port()));
	use_destinations();
	say_places();
	tell_ready(status());
}

/* Where another collector may have the store, how far they have come could not be kept. */
void Daemon::use_destinations() {
	if (lock_) {
		destinations_->use(destinations_of(configuration_));
	}
}

/* Nobody has to read it. */
void Daemon::say_places() {
	const std::vector<std::string> &addresses = configuration_.listen.addresses;
	const std::string &store = configuration_.store.directory;
	std::string line = fmt::format(
		"kaq: collecting on {}: handshakes {}, payloads {}, http {}; store {}",
		fmt::join(addresses, " and "), handshake_->port(), data_->port(), http_->port(), store);
	if (options_.is_json) {
		nlohmann::json places = {{"process", getpid()},
								 {"addresses", addresses},
								 {"handshake_port", handshake_->port()},
								 {"data_port", data_->port()},
								 {"http_port", http_->port()},
								 {"store", store}};
		line = places.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
	}
	puts(line.c_str());
	fflush(stdout);
	clearerr(stdout);
}

void Daemon::run() {
	sigset_t set;
	sigemptyset(&set);
	for (int signal : {SIGTERM, SIGINT, SIGHUP}) {
		sigaddset(&set, signal);
	}
	start();
	for (int signal = 0; signal != SIGTERM && signal != SIGINT;) {
		signal = sigtimedwait(&set, nullptr, &kBetweenLooks);
		if (signal == SIGHUP) {
			reload();
		}
		look();
	}
	stop();
}

void Daemon::stop() {
	tell_stopping();
	handshake_->stop_listening();
	handshake_->drain(kDrainTime);
	metrics_.close();
	destinations_->use({});
	probe_.reset();
	watchdog_.reset();
	publish_facts();
	data_->stop_listening();
	data_->drain(kDrainTime);
	counter_log_.look();
	handshake_.reset();
	keep(counter_.take_rest());
	/* What was received is read to its end. */
	data_.reset();
	pipeline_.reset();
}

void Daemon::reload() {
	tell_reloading();
	ConfigurationOrMistakes next = load_with_options(options_);
	if (next) {
		for (const std::string &setting : keep_fixed_settings(configuration_, *next)) {
			log_line(LogLevel::kWarning,
					 setting + " cannot change while the collector runs: it stays as it was");
		}
		configuration_ = std::move(*next);
		store_->use(store_settings(configuration_));
		caretaker_->use(configuration_);
		handshake_->use(policy());
		handshake_->allow(configuration_.listen.handshake_networks);
		data_->allow(configuration_.listen.data_networks);
		pipeline_->use(pipeline_settings(configuration_));
		use_destinations();
		log_line(LogLevel::kInfo, "the configuration was read again");
	} else {
		say(next.error(), configuration_file(options_.configuration));
	}
	tell_configuration(
		next ? "" : mistakes_text(configuration_file(options_.configuration), next.error()));
	tell_ready(status());
}

/* `mistakes`: of the file that was read last, which is not what holds then. */
void Daemon::tell_configuration(const std::string &mistakes) {
	std::lock_guard lock(facts_mutex_);
	facts_["configuration"] = {{"file", configuration_file(options_.configuration)},
							   {"mistakes", mistakes}};
}

void Daemon::look() {
	Clock::time_point now = Clock::now();
	look_at_load(now);
	look_at_suspensions();
	/* Soon, since what is in memory is lost with the process. */
	keep(counter_.take());
	if (now - facts_published_ >= kBetweenFacts) {
		facts_published_ = now;
		publish_facts();
	}
	if (now - counters_said_ >= kBetweenCounters) {
		counters_said_ = now;
		counter_log_.look();
		tell_status(status());
	}
}

void Daemon::look_at_suspensions() {
	if (caretaker_->suspensions().version() != policy_version_) {
		handshake_->use(policy());
	}
}

void Daemon::look_at_load(Clock::time_point now) {
	double fill = std::max(budget_.fill(), pipeline_->fill());
	auto change = overload_.look(fill, configuration_.overload.lowers_share, now);
	double share = static_cast<double>(overload_.share()) / kWholeShare;
	if (change == OverloadControl::Change::kLowered) {
		log_some(LogLevel::kWarning, "load",
				 fmt::format("payloads that arrive or wait take {:.0f} % of the room for them: "
							 "{:.1f} % of the requests are recorded that the rules want",
							 100 * fill, 100 * share));
	} else if (change == OverloadControl::Change::kRaised) {
		log_some(LogLevel::kInfo, "load",
				 fmt::format("{:.1f} % of the requests are recorded again that the rules want",
							 100 * share));
	}
}

void Daemon::keep(const std::vector<HandshakeCount> &counts) {
	request_metrics_.add(counts);
	std::vector<AskedCount> asked;
	for (const HandshakeCount &each : counts) {
		totals_.asked += each.asked;
		totals_.monitored += each.monitored;
		totals_.shed += each.shed;
		asked.push_back({each.application, each.name, static_cast<int64_t>(each.asked),
						 static_cast<int64_t>(each.monitored)});
	}
	store_->put_asked(system_time(), asked);
}

/* On a thread of the pipeline. */
void Daemon::keep(const Transaction &transaction, Recorder &recorder) {
	caretaker_->note(transaction);
	auto [summary, kinds] = recorder.record(transaction);
	request_metrics_.add(summary);
	if (feed_.has_listeners()) {
		feed_.publish(TransactionView(transaction, summary, kinds), [&line = summary] {
			return to_json(line).dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
		});
	}
}

std::string Daemon::status() const {
	HandshakeLatency latency = probe_ ? probe_->latency() : HandshakeLatency();
	std::vector<Suspension> suspended = caretaker_->suspensions().all();
	return fmt::format(
		"{}{} requests asked, {} recorded, {} left out for load; a handshake takes "
		"{} us, 1 in 100 more than {} us",
		suspended.empty() ? ""
						  : name_of(suspended.front()) + " is not monitored, see 'kaq doctor'; ",
		totals_.asked, totals_.monitored, totals_.shed, latency.p50.count(), latency.p99.count());
}

void Daemon::add_counters() {
	auto add = [this](const char *text, const std::atomic<uint64_t> &counter) {
		counter_log_.add(text, [&counter] { return counter.load(std::memory_order_relaxed); });
	};
	const HandshakeCounts &handshakes = handshake_->counts();
	add("handshakes were refused: too many at a time", handshakes.refused);
	add("handshakes were refused: their network is not allowed", handshakes.foreign);
	add("handshakes ended before their request was whole", handshakes.late);
	const DataCounts &payloads = data_->counts();
	add("payloads were refused: too many at a time", payloads.refused);
	add("payloads were refused: their network is not allowed", payloads.foreign);
	add("payloads were dropped: no memory is left for them", payloads.no_memory);
	add("payloads were dropped: they are too long", payloads.too_long);
	add("payloads were dropped: too many wait for being read", payloads.not_taken);
	add("payloads did not end in time", payloads.late);
	const HttpCounts &http = http_->counts();
	add("HTTP connections were closed: too many at a time", http.crowded_out);
	add("HTTP requests were refused: they are too long", http.too_long);
	add("HTTP requests were refused: they cannot be read", http.malformed);
	add("HTTP requests did not end in time", http.late);
	const PipelineCounts &read = pipeline_->counts();
	add("payloads ended within a line", read.incomplete);
	add("payloads had more parameters, headers or errors than are kept", read.cut);
	add("payloads were given up", read.failed);
	for (size_t i = 0; i < kPayloadErrors; i++) {
		std::string name(payload_error_name(static_cast<PayloadError>(i)));
		add(("payloads could not be read: " + name).c_str(), read.errors[i]);
	}
}

} // namespace kaq
