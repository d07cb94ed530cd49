#include <pthread.h>
#include <signal.h>
#include <sys/resource.h>

#include <chrono>
#include <cstdio>
#include <stdexcept>
#include <system_error>

#include <nlohmann/json.hpp>

#include "analysis/summary.h"
#include "cli/configuration.h"
#include "cli/places.h"
#include "cli/summary_text.h"
#include "cli/verbs.h"
#include "http/http_server.h"
#include "ingest/pipeline.h"
#include "net/data_server.h"
#include "net/handshake_server.h"
#include "query/mistake_json.h"
#include "query/parser.h"
#include "store/request_view.h"
#include "util/query_string.h"

namespace kaq {
namespace {

/* Of all payloads that are being received or wait for being read. */
constexpr size_t kPayloadMemory = 96 * 1024 * 1024;
constexpr std::chrono::milliseconds kDrainTime{5000};

/* Every application is monitored, under its own names. */
class MonitorAll : public HandshakePolicy {
public:
	HandshakeAnswer answer(const HandshakeRequest &request) const override {
		HandshakeAnswer answer;
		answer.instance_id = instance_id_of(request);
		answer.application_id = application_id_of(request.application);
		return answer;
	}
};

HttpAnswer answer_live(const HttpRequest &request) {
	ParseSettings settings;
	settings.is_live = true;
	std::string query = form_decoded(query_parameter(request.query, "q"));
	auto filter = parse_query(query, settings);
	HttpAnswer answer;
	if (filter) {
		answer.is_live = true;
		answer.live_filter = std::move(*filter);
	} else {
		answer.status = 400;
		answer.body = to_json(filter.error()).dump();
	}
	return answer;
}

HttpAnswer answer_http(const HttpRequest &request) {
	if (request.method != "GET" && request.method != "HEAD") {
		return {405, "text/plain", "only GET\n", false};
	}
	if (request.path == "/healthz") {
		return {200, "text/plain", "ok\n", false};
	}
	if (request.path == "/api/v1/live") {
		return answer_live(request);
	}
	return {404, "text/plain", "nothing here\n", false};
}

void say_ports(const std::string &address, const HandshakeServer &handshake, const DataServer &data,
			   const HttpServer &http, const std::string &store) {
	printf("kaq: collecting on %s: handshakes %u, payloads %u, http %u; store %s\n",
		   address.c_str(), handshake.port(), data.port(), http.port(), store.c_str());
	fflush(stdout);
}

sigset_t ending_signals() {
	sigset_t set;
	sigemptyset(&set);
	sigaddset(&set, SIGTERM);
	sigaddset(&set, SIGINT);
	return set;
}

/* As many connections as the ports serve, where the system lets us. */
void raise_descriptor_limit() {
	rlimit limit;
	if (getrlimit(RLIMIT_NOFILE, &limit) == 0) {
		limit.rlim_cur = limit.rlim_max;
		setrlimit(RLIMIT_NOFILE, &limit);
	}
}

/* Throws std::runtime_error with a line for each mistake. */
Configuration effective_configuration(const CollectOptions &options) {
	ConfigurationOrMistakes loaded = load_configuration(options.configuration);
	if (!loaded) {
		std::string text = mistakes_text(configuration_file(options.configuration), loaded.error());
		text.pop_back();
		throw std::runtime_error(text);
	}
	ListenSettings &listen = loaded->listen;
	listen.handshake_port = options.handshake_port.value_or(listen.handshake_port);
	listen.data_port = options.data_port.value_or(listen.data_port);
	listen.http_port = options.http_port.value_or(listen.http_port);
	std::string &directory = loaded->store.directory;
	directory = !options.store.empty() ? options.store
				: directory.empty()    ? default_store()
									   : directory;
	return std::move(*loaded);
}

void run(const Configuration &configuration) {
	const ListenSettings &listen = configuration.listen;
	const std::string &store = configuration.store.directory;
	const std::string &address = listen.addresses.front();
	MemoryBudget budget(kPayloadMemory);
	LiveFeed feed;
	PipelineSettings settings;
	settings.scrub = configuration.scrub;
	settings.naming.insert(settings.naming.begin(), configuration.names.rules.begin(),
						   configuration.names.rules.end());
	Pipeline pipeline(settings, [&feed](const std::shared_ptr<const Transaction> &transaction) {
		if (feed.has_listeners()) {
			Summary summary = summarise(*transaction);
			feed.publish(TransactionView(*transaction, summary, {}), [&summary] {
				return to_json(summary).dump(-1, ' ', false,
											 nlohmann::json::error_handler_t::replace);
			});
		}
	});
	HandshakeServer handshake(address, listen.handshake_port, std::make_unique<MonitorAll>());
	DataServer data(address, listen.data_port, budget, [&pipeline](BudgetedBuffer &&bytes) {
		return pipeline.accept(std::move(bytes));
	});
	HttpServer http({"127.0.0.1", listen.http_port, socket_of(store), token_of(store)}, answer_http,
					feed);
	/* What is recorded from now on has to find the data port open. */
	data.start();
	http.start();
	handshake.start();
	say_ports(address, handshake, data, http, store);
	sigset_t set = ending_signals();
	int signal;
	sigwait(&set, &signal);
	handshake.stop_listening();
	handshake.drain(kDrainTime);
	data.stop_listening();
	data.drain(kDrainTime);
}

} // namespace

int collect(const CollectOptions &options) {
	/* Before any thread is made, so that all of them leave these to sigwait. */
	sigset_t set = ending_signals();
	pthread_sigmask(SIG_BLOCK, &set, nullptr);
	signal(SIGPIPE, SIG_IGN);
	raise_descriptor_limit();
	try {
		run(effective_configuration(options));
		return 0;
	} catch (const std::exception &error) {
		fprintf(stderr, "kaq: %s\n", error.what());
		return 1;
	}
}

} // namespace kaq
