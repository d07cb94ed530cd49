#include "net/handshake_probe.h"

#include <poll.h>
#include <pthread.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <vector>

#include "ingest/rules_policy.h"
#include "net/socket_address.h"
#include "util/unique_fd.h"

namespace kaq {
namespace {

using Clock = std::chrono::steady_clock;

constexpr std::chrono::seconds kLongest{1};
/* Half an hour at one every five seconds. */
constexpr size_t kMostTimes = 360;

const std::string &probe_request() {
	static const std::string request =
		R"({"connect_info":{"agent_info":{"agent.version":"","agent.version.info":"",)"
		R"("application.name":")" +
		std::string(kProbeApplication) +
		R"(","application.type":"PHP","fqdn":"localhost","hostname":"localhost","port":80,)"
		R"("host.type":"","rum.autoinjection":false},"agent_specific_info":)"
		R"({"application.group.name":""},"environment":{"MachineName":"localhost","OS":"Linux",)"
		R"("OSArch":"","OSVersion":""}},"misc_info":{"txn.name":"\/"}})"
		"\n";
	return request;
}

/* Whether the event came before the deadline. */
bool wait_for(int fd, short events, Clock::time_point deadline) {
	auto left =
		std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()).count();
	pollfd waiting{fd, events, 0};
	return left > 0 && poll(&waiting, 1, static_cast<int>(left)) == 1;
}

bool connect_to(int fd, const SocketAddress &address, Clock::time_point deadline) {
	if (connect(fd, &address.any, address.length()) == 0) {
		return true;
	}
	int error = 0;
	socklen_t length = sizeof error;
	return errno == EINPROGRESS && wait_for(fd, POLLOUT, deadline) &&
		   getsockopt(fd, SOL_SOCKET, SO_ERROR, &error, &length) == 0 && error == 0;
}

/* Whether an answer came and ended. */
bool read_answer(int fd, Clock::time_point deadline) {
	std::array<char, 4096> piece;
	bool has_any = false;
	while (wait_for(fd, POLLIN, deadline)) {
		ssize_t count = recv(fd, piece.data(), piece.size(), 0);
		if (count <= 0) {
			return count == 0 && has_any;
		}
		has_any = true;
	}
	return false;
}

} // namespace

std::optional<std::chrono::microseconds> measure_handshake(const std::string &address,
														   uint16_t port) {
	std::optional<SocketAddress> target = SocketAddress::parse(address, port);
	if (!target) {
		return std::nullopt;
	}
	Clock::time_point begin = Clock::now();
	Clock::time_point deadline = begin + kLongest;
	UniqueFd fd(socket(target->any.sa_family, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
	const std::string &request = probe_request();
	if (!fd || !connect_to(fd.get(), *target, deadline) ||
		send(fd.get(), request.data(), request.size(), MSG_NOSIGNAL) !=
			static_cast<ssize_t>(request.size()) ||
		!read_answer(fd.get(), deadline)) {
		return std::nullopt;
	}
	return std::chrono::duration_cast<std::chrono::microseconds>(Clock::now() - begin);
}

HandshakeProbe::HandshakeProbe(std::string address, uint16_t port, std::chrono::milliseconds period)
	: address_(std::move(address)), port_(port), period_(period), thread_([this] { run(); }) {
}

HandshakeProbe::~HandshakeProbe() {
	{
		std::lock_guard lock(mutex_);
		is_to_end_ = true;
	}
	ending_.notify_all();
	thread_.join();
}

void HandshakeProbe::run() {
	pthread_setname_np(pthread_self(), "kaq-probe");
	std::unique_lock lock(mutex_);
	while (!is_to_end_) {
		lock.unlock();
		std::optional<std::chrono::microseconds> time = measure_handshake(address_, port_);
		lock.lock();
		note(time);
		ending_.wait_for(lock, period_, [this] { return is_to_end_; });
	}
}

void HandshakeProbe::note(std::optional<std::chrono::microseconds> time) {
	measured_++;
	if (!time) {
		failed_++;
		return;
	}
	times_.push_back(*time);
	if (times_.size() > kMostTimes) {
		times_.pop_front();
	}
}

HandshakeLatency HandshakeProbe::latency() const {
	std::lock_guard lock(mutex_);
	HandshakeLatency latency;
	latency.measured = measured_;
	latency.failed = failed_;
	if (!times_.empty()) {
		std::vector<std::chrono::microseconds> sorted(times_.begin(), times_.end());
		std::sort(sorted.begin(), sorted.end());
		latency.p50 = sorted[(sorted.size() - 1) / 2];
		latency.p99 = sorted[(sorted.size() - 1) * 99 / 100];
	}
	return latency;
}

} // namespace kaq
