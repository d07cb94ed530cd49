#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <thread>

#include <fmt/format.h>

#include "cli/client.h"
#include "cli/doctor_private.h"
#include "cli/format.h"
#include "cli/places.h"
#include "ingest/pipeline.h"
#include "net/handshake_probe.h"
#include "net/socket_address.h"
#include "util/listeners.h"
#include "util/unique_fd.h"

namespace kaq {
namespace {

constexpr int kHandshakes = 21;
constexpr std::chrono::microseconds kSlowHandshake{2000};
constexpr int kPayloadLooks = 50;
constexpr std::chrono::milliseconds kBetweenPayloadLooks{100};
constexpr size_t kMostShown = 10;

const char *const kStartAdvice = "start it: 'systemctl start kaq', or 'kaq collect' by hand";

CheckResult port_result(const DoctorContext &context, const char *what, uint16_t port) {
	std::vector<Listener> listeners = listeners_on(port, context.root + "/proc");
	std::string place = fmt::format("{} port {}", what, port);
	if (listeners.empty()) {
		return {context.is_running ? Health::kUnknown : Health::kProblem,
				place + ": nobody listens" +
					(context.is_running ? " in this network namespace" : ""),
				context.is_running ? "run this where the collector runs" : kStartAdvice};
	}
	const Listener &first = listeners.front();
	if (first.process == 0) {
		return {Health::kUnknown, place + ": held by a process that cannot be seen",
				"run this as root to see whose it is"};
	}
	std::string holder = fmt::format("{} on {} is held by process {} ({})", place, first.address,
									 first.process, printable(first.program));
	nlohmann::json process = context.fact("process");
	if (context.is_forbidden) {
		return {Health::kUnknown, holder, "run this as root to see whether that is the collector"};
	}
	if (!context.is_running) {
		return {Health::kProblem, holder + ", and no collector of this store runs",
				fmt::format("end process {}, or give the collector other ports with [listen] in "
							"its configuration and the extension the same in php.ini",
							first.process)};
	}
	bool is_ours = !process.is_number() || process.get<int64_t>() == first.process;
	return {is_ours ? Health::kOk : Health::kProblem, holder,
			is_ours ? "" : "that is not this collector: end it, or use other ports"};
}

bool send_probe(const DoctorContext &context) {
	std::optional<SocketAddress> target = SocketAddress::parse(context.address, context.data_port);
	if (!target) {
		return false;
	}
	UniqueFd fd(socket(target->any.sa_family, SOCK_STREAM | SOCK_CLOEXEC, 0));
	timeval limit{1, 0};
	return fd && setsockopt(fd.get(), SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof limit) == 0 &&
		   connect(fd.get(), &target->any, target->length()) == 0 &&
		   send(fd.get(), kProbeLine.data(), kProbeLine.size(), MSG_NOSIGNAL) ==
			   static_cast<ssize_t>(kProbeLine.size()) &&
		   shutdown(fd.get(), SHUT_WR) == 0;
}

int64_t probes_of(const nlohmann::json &collector) {
	return collector.value("notices", nlohmann::json::object())
		.value(std::string(notice_name(Notice::kProbe)), int64_t{0});
}

/* What the running collector reads may be another file, or have been mended or spoilt since. */
CheckResults check_read_configuration(const nlohmann::json &configuration) {
	std::string file = configuration.value("file", "");
	std::string mistakes = configuration.value("mistakes", "");
	if (mistakes.empty()) {
		return {
			{Health::kOk,
			 file.empty() ? "no file: the defaults hold" : file + ": no mistake when it was read",
			 ""}};
	}
	while (!mistakes.empty() && mistakes.back() == '\n') {
		mistakes.pop_back();
	}
	return {{Health::kProblem, "the collector goes on with what it had before: " + mistakes,
			 "mend it, and send the collector SIGHUP"}};
}

} // namespace

CheckResults check_configuration(const DoctorContext &context) {
	nlohmann::json read = context.fact("configuration");
	if (context.is_running && read.is_object()) {
		return check_read_configuration(read);
	}
	if (context.configuration) {
		return {{Health::kOk,
				 context.configuration_file.empty() ? "no file: the defaults hold"
													: context.configuration_file + ": no mistake",
				 ""}};
	}
	CheckResults results;
	for (const ConfigurationMistake &each : context.configuration.error()) {
		std::string text = mistakes_text(context.configuration_file, {each});
		text.pop_back();
		results.push_back({Health::kProblem, text, "mend it; 'kaq config check' says the same"});
	}
	return results;
}

CheckResults check_collector(const DoctorContext &context) {
	if (context.is_running) {
		nlohmann::json process = context.fact("process");
		return {{Health::kOk,
				 fmt::format("runs as process {}, store {}", process.dump(), context.store), ""}};
	}
	std::string socket = socket_of(context.store);
	if (context.is_forbidden) {
		return {{Health::kUnknown, "may run, but " + socket + " may not be used",
				 "run this as root, or as a member of the group kaq"}};
	}
	return {{Health::kProblem, "does not run: nobody answers on " + socket, kStartAdvice}};
}

CheckResults check_ports(const DoctorContext &context) {
	return {port_result(context, "handshake", context.handshake_port),
			port_result(context, "data", context.data_port)};
}

CheckResults check_handshake(const DoctorContext &context) {
	std::vector<std::chrono::microseconds> times;
	for (int i = 0; i < kHandshakes; i++) {
		std::optional<std::chrono::microseconds> time =
			measure_handshake(context.address, context.handshake_port);
		if (!time) {
			return {{Health::kProblem,
					 fmt::format("not answered on {}, port {}", context.address,
								 context.handshake_port),
					 "no request is recorded as long as that is so; see what was said about the "
					 "ports"}};
		}
		times.push_back(*time);
	}
	std::sort(times.begin(), times.end());
	std::chrono::microseconds median = times[times.size() / 2];
	std::string what = fmt::format("answered as PHP asks: median {} us, longest {} us of {}",
								   median.count(), times.back().count(), kHandshakes);
	if (median > kSlowHandshake) {
		return {{Health::kWarning, what,
				 "every request waits that long: see whether the host has processor time left"}};
	}
	return {{Health::kOk, what, ""}};
}

CheckResults check_payload(const DoctorContext &context) {
	if (!context.is_running) {
		return {{Health::kUnknown,
				 context.is_forbidden ? "only the collector can say whether one arrives"
									  : "without a collector nothing can arrive",
				 ""}};
	}
	CommonOptions common;
	common.store = context.store;
	Client client(common);
	auto probes = [&client] {
		return probes_of(
			client.get("/api/v1/status").json().value("collector", nlohmann::json::object()));
	};
	int64_t before = probes();
	if (!send_probe(context)) {
		return {{Health::kProblem,
				 fmt::format("cannot be sent to {}, port {}", context.address, context.data_port),
				 "what requests record is lost; see what was said about the ports"}};
	}
	for (int i = 0; i < kPayloadLooks; i++) {
		if (probes() > before) {
			return {{Health::kOk, "one that was sent has arrived and was read", ""}};
		}
		std::this_thread::sleep_for(kBetweenPayloadLooks);
	}
	return {{Health::kProblem, "one that was sent has not been read within 5 seconds",
			 "see the collector's log ('journalctl -u kaq')"}};
}

CheckResults check_names(const DoctorContext &context) {
	CheckResults results;
	nlohmann::json hidden = context.fact("hidden_pages");
	for (size_t i = 0; i < std::min(hidden.size(), kMostShown); i++) {
		const nlohmann::json &each = hidden[i];
		results.push_back(
			{Health::kWarning,
			 fmt::format("{} of {} is {} pages and more, told apart by '{}'",
						 printable(each.value("transaction", "")),
						 printable(each.value("application", "")), each.value("pages", int64_t{0}),
						 printable(each.value("parameter", ""))),
			 printable(each.value("advice", ""))});
	}
	if (results.empty()) {
		results.push_back(context.is_running
							  ? CheckResult{Health::kOk, "no name hides many pages", ""}
							  : CheckResult{Health::kUnknown, "no collector runs that says", ""});
	}
	return results;
}

CheckResults check_losses(const DoctorContext &context) {
	CheckResults results;
	nlohmann::json counters = context.fact("counters");
	for (const auto &[text, count] : counters.items()) {
		results.push_back({Health::kWarning, fmt::format("{} {}", count.dump(), printable(text)),
						   "counted since the collector was started; its log says when"});
	}
	nlohmann::json store = context.status.value("store", nlohmann::json::object());
	if (int64_t lost = store.value("requests_lost", int64_t{0})) {
		results.push_back({Health::kWarning,
						   count_of(lost, "request", "requests") + " could not be written",
						   "the log says why: the store was too slow, or its disk full"});
	}
	if (!store.value("writing", true)) {
		results.push_back({Health::kProblem, "the store cannot be written to",
						   "see the space and the rights of " + context.store});
	}
	nlohmann::json damages = store.value("damages", nlohmann::json::array());
	for (size_t i = 0; i < std::min(damages.size(), kMostShown); i++) {
		results.push_back({Health::kWarning,
						   "the store is damaged: " + printable(damages[i].get<std::string>()),
						   "what can be read is still shown; see the disk's health"});
	}
	if (results.empty()) {
		results.push_back(context.status.empty()
							  ? CheckResult{Health::kUnknown, context.mistake, ""}
							  : CheckResult{Health::kOk, "nothing was dropped or damaged", ""});
	}
	return results;
}

} // namespace kaq
