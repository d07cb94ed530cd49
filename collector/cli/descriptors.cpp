#include "cli/descriptors.h"

#include <sys/resource.h>

#include <algorithm>

#include <fmt/format.h>

#include "http/http_server.h"
#include "net/data_server.h"
#include "net/handshake_server.h"
#include "util/log.h"

namespace kaq {
namespace {

/* The store keeps three for each of its files, 256 files at most. */
constexpr size_t kForEverythingElse = 1024;
constexpr size_t kAll =
	HandshakeServer::kMostConnections + DataServer::kMostConnections + kMostHttpConnections;

} // namespace

size_t raise_descriptor_limit() {
	rlimit limit;
	if (getrlimit(RLIMIT_NOFILE, &limit) != 0) {
		return 0;
	}
	rlimit raised = {limit.rlim_max, limit.rlim_max};
	return setrlimit(RLIMIT_NOFILE, &raised) == 0 ? raised.rlim_cur : limit.rlim_cur;
}

ConnectionLimits connection_limits(size_t descriptors) {
	size_t rest = std::min(descriptors / 2, kForEverythingElse);
	size_t available = std::min(descriptors - rest, kAll);
	auto share = [available](size_t usual) {
		return std::max<size_t>(usual * available / kAll, 1);
	};
	return {share(HandshakeServer::kMostConnections), share(DataServer::kMostConnections),
			share(kMostHttpConnections)};
}

void say_limits(const ConnectionLimits &limits) {
	if (limits.payloads < DataServer::kMostConnections) {
		log_line(
			LogLevel::kWarning,
			fmt::format("the system allows so few descriptors that no more than {} payloads, {} "
						"handshakes and {} HTTP connections are served at a time; "
						"LimitNOFILE= of the service, or ulimit -Hn, raises that",
						limits.payloads, limits.handshakes, limits.http));
	}
}

} // namespace kaq
