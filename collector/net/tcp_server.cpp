#include "net/tcp_server.h"

#include <fcntl.h>
#include <netinet/tcp.h>
#include <pthread.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <memory>
#include <optional>
#include <system_error>
#include <vector>

#include "net/socket_address.h"

namespace kaq {
namespace {

constexpr size_t kPiece = 65536;
/* So that one busy connection does not keep the others waiting. */
constexpr int kPiecesAtATime = 16;
constexpr std::chrono::milliseconds kTick{100};
/* Whoever means it has said something by then. */
constexpr std::chrono::milliseconds kPatience{200};
constexpr std::chrono::milliseconds kDrainLook{5};

[[noreturn]] void cannot_listen(int error, const std::string &address, uint16_t port) {
	throw std::system_error(error, std::generic_category(),
							"cannot listen on " + address + " port " + std::to_string(port));
}

UniqueFd listen_on(const std::string &text, uint16_t port, int backlog) {
	std::optional<SocketAddress> address = SocketAddress::parse(text, port);
	if (!address) {
		cannot_listen(EINVAL, text, port);
	}
	UniqueFd fd(socket(address->any.sa_family, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
	int one = 1;
	/* "::" and "0.0.0.0" can stand side by side. */
	if (fd && address->any.sa_family == AF_INET6) {
		setsockopt(fd.get(), IPPROTO_IPV6, IPV6_V6ONLY, &one, sizeof one);
	}
	if (!fd || setsockopt(fd.get(), SOL_SOCKET, SO_REUSEADDR, &one, sizeof one) != 0 ||
		bind(fd.get(), &address->any, address->length()) != 0 || listen(fd.get(), backlog) != 0) {
		cannot_listen(errno, text, port);
	}
	return fd;
}

uint16_t port_of(int fd) {
	SocketAddress address;
	socklen_t length = sizeof address;
	getsockname(fd, &address.any, &length);
	return address.port();
}

std::vector<UniqueFd> listen_on_all(const std::vector<std::string> &addresses, uint16_t port,
									int backlog) {
	std::vector<UniqueFd> listeners;
	for (const std::string &address : addresses) {
		listeners.push_back(listen_on(address, port, backlog));
		port = port_of(listeners.front().get());
	}
	if (listeners.empty()) {
		cannot_listen(EINVAL, "no address", port);
	}
	return listeners;
}

/* Whether the connection is one of an address to itself. */
bool is_of_this_host(int fd, const sockaddr &peer) {
	SocketAddress own;
	socklen_t length = sizeof own;
	if (getsockname(fd, &own.any, &length) != 0 || own.any.sa_family != peer.sa_family) {
		return false;
	}
	const auto &other = reinterpret_cast<const SocketAddress &>(peer);
	return peer.sa_family == AF_INET6 ? IN6_ARE_ADDR_EQUAL(&own.v6.sin6_addr, &other.v6.sin6_addr)
									  : own.v4.sin_addr.s_addr == other.v4.sin_addr.s_addr;
}

UniqueFd reserve_descriptor() {
	return UniqueFd(open("/dev/null", O_RDONLY | O_CLOEXEC));
}

} // namespace

TcpServer::TcpServer(const ListenPlace &place, const TcpLimits &limits, const char *thread_name)
	: limits_(limits), thread_name_(thread_name),
	  listeners_(listen_on_all(place.addresses, place.port, limits.backlog)),
	  reserve_(reserve_descriptor()), port_(port_of(listeners_.front().get())),
	  networks_(place.networks) {
	for (const UniqueFd &listener : listeners_) {
		loop_.watch(listener.get(), EPOLLIN, this);
	}
	loop_.every(kTick, [this] { tick(); });
}

TcpServer::~TcpServer() {
	join();
	delete next_networks_.load();
}

void TcpServer::start() {
	thread_ = std::thread([this] {
		pthread_setname_np(pthread_self(), thread_name_);
		loop_.run();
	});
}

void TcpServer::join() {
	loop_.stop();
	if (thread_.joinable()) {
		thread_.join();
	}
}

void TcpServer::wake() {
	loop_.wake();
}

void TcpServer::allow(std::vector<Network> networks) {
	delete next_networks_.exchange(new std::vector<Network>(std::move(networks)));
	wake();
}

void TcpServer::stop_listening() {
	is_to_stop_listening_ = true;
	loop_.wake();
}

bool TcpServer::drain(std::chrono::milliseconds time) {
	Clock::time_point end = Clock::now() + time;
	while (!is_drained_ && Clock::now() < end) {
		std::this_thread::sleep_for(kDrainLook);
	}
	return is_drained_;
}

void TcpServer::tick() {
	beats_.fetch_add(1, std::memory_order_relaxed);
	if (std::unique_ptr<std::vector<Network>> next{next_networks_.exchange(nullptr)}) {
		networks_.swap(*next);
	}
	if (is_to_stop_listening_) {
		for (UniqueFd &listener : listeners_) {
			/* Whoever has connected before is let in. */
			while (accept_some(listener.get())) {
			}
			loop_.forget(listener.get());
		}
		listeners_.clear();
	}
	end_late_connections();
	on_tick();
	is_drained_ = listeners_.empty() && connections_.empty();
}

void TcpServer::on_ready(int fd, uint32_t events) {
	if (is_listener(fd)) {
		accept_some(fd);
		return;
	}
	auto found = connections_.find(fd);
	if (found == connections_.end()) {
		return;
	}
	Connection &connection = found->second;
	if ((events & EPOLLOUT) && flush(connection) == Next::kEnd) {
		end(connection);
		return;
	}
	if (events & (EPOLLIN | EPOLLHUP | EPOLLERR)) {
		read_from(connection);
	}
}

bool TcpServer::is_listener(int fd) const {
	return std::any_of(listeners_.begin(), listeners_.end(),
					   [fd](const UniqueFd &listener) { return listener.get() == fd; });
}

bool TcpServer::is_allowed(int fd, const sockaddr &peer) const {
	return networks_.empty() ||
		   std::any_of(networks_.begin(), networks_.end(),
					   [&peer](const Network &network) { return network.contains(peer); }) ||
		   is_of_this_host(fd, peer);
}

bool TcpServer::accept_some(int listener) {
	for (int i = 0; i < kPiecesAtATime; i++) {
		SocketAddress peer;
		socklen_t length = sizeof peer;
		UniqueFd fd(accept4(listener, &peer.any, &length, SOCK_NONBLOCK | SOCK_CLOEXEC));
		if (!fd) {
			return (errno == EMFILE || errno == ENFILE) && refuse_one(listener);
		}
		admit(std::move(fd), peer.any);
	}
	return true;
}

void TcpServer::admit(UniqueFd fd, const sockaddr &peer) {
	int number = fd.get();
	Connection connection;
	connection.fd = std::move(fd);
	connection.opened = Clock::now();
	if (!is_allowed(number, peer)) {
		close_with_reset(connection);
		on_foreign();
		return;
	}
	waiting_longest();
	bool has_room = connections_.size() < limits_.connections || make_room(connection.opened);
	if (!has_room || !watch(number)) {
		close_with_reset(connection);
		on_refused();
		return;
	}
	open_connections_.fetch_add(1, std::memory_order_relaxed);
	waiting_.emplace_back(number, connection.opened);
	/* What has come already need not wait for the next turn of the loop. */
	read_from(connections_.emplace(number, std::move(connection)).first->second);
}

/* The system has a limit on what can be watched, too. */
bool TcpServer::watch(int fd) {
	try {
		loop_.watch(fd, EPOLLIN, this);
		return true;
	} catch (const std::system_error &) {
		return false;
	}
}

/* Of those that may make room the oldest; none if there is none. */
TcpServer::Connection *TcpServer::waiting_longest() {
	while (!waiting_.empty()) {
		auto found = connections_.find(waiting_.front().first);
		if (found != connections_.end() && found->second.opened == waiting_.front().second &&
			may_make_room(found->second)) {
			return &found->second;
		}
		waiting_.pop_front();
	}
	return nullptr;
}

bool TcpServer::make_room(Clock::time_point now) {
	Connection *oldest = waiting_longest();
	if (!oldest || now - oldest->opened < kPatience) {
		return false;
	}
	close_with_reset(*oldest);
	on_refused();
	end(*oldest);
	return true;
}

/* Without a descriptor nobody could be told so: one is held back for that. */
bool TcpServer::refuse_one(int listener) {
	reserve_.reset();
	Connection connection;
	connection.fd.reset(accept4(listener, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC));
	bool is_refused = static_cast<bool>(connection.fd);
	if (is_refused) {
		close_with_reset(connection);
		on_refused();
	}
	connection.fd.reset();
	reserve_ = reserve_descriptor();
	return is_refused;
}

void TcpServer::read_from(Connection &connection) {
	for (int i = 0; i < kPiecesAtATime; i++) {
		size_t received = connection.received;
		if (read_piece(connection) == Next::kEnd) {
			end(connection);
			return;
		}
		if (connection.received - received < kPiece) {
			return;
		}
	}
}

TcpServer::Next TcpServer::read_piece(Connection &connection) {
	static thread_local std::array<char, kPiece> piece;
	ssize_t count = recv(connection.fd.get(), piece.data(), piece.size(), 0);
	if (count < 0) {
		return errno == EAGAIN || errno == EINTR ? Next::kReadOn : Next::kEnd;
	}
	if (connection.is_answered) {
		connection.received += static_cast<size_t>(count);
		return count == 0 ? Next::kEnd : Next::kReadOn;
	}
	if (count == 0) {
		return on_end_of_input(connection);
	}
	connection.received += static_cast<size_t>(count);
	return on_bytes(connection, {piece.data(), static_cast<size_t>(count)});
}

void TcpServer::answer(Connection &connection, std::string text) {
	connection.is_answered = true;
	connection.output = std::move(text);
	if (flush(connection) == Next::kReadOn && connection.sent < connection.output.size()) {
		connection.waits_to_send = true;
		loop_.change(connection.fd.get(), EPOLLIN | EPOLLOUT);
	}
}

TcpServer::Next TcpServer::flush(Connection &connection) {
	while (connection.sent < connection.output.size()) {
		ssize_t count =
			send(connection.fd.get(), connection.output.data() + connection.sent,
				 connection.output.size() - connection.sent, MSG_NOSIGNAL | MSG_DONTWAIT);
		if (count < 0) {
			return errno == EAGAIN || errno == EINTR ? Next::kReadOn : Next::kEnd;
		}
		connection.sent += static_cast<size_t>(count);
	}
	shutdown(connection.fd.get(), SHUT_WR);
	if (connection.waits_to_send) {
		connection.waits_to_send = false;
		loop_.change(connection.fd.get(), EPOLLIN);
	}
	return Next::kReadOn;
}

bool TcpServer::is_late(const Connection &connection, Clock::time_point now) const {
	auto age = std::chrono::duration_cast<std::chrono::milliseconds>(now - connection.opened);
	if (age < limits_.deadline) {
		return false;
	}
	size_t least = static_cast<size_t>(age.count()) * limits_.bytes_per_second / 1000;
	return connection.is_answered || limits_.bytes_per_second == 0 || connection.received < least;
}

void TcpServer::end_late_connections() {
	Clock::time_point now = Clock::now();
	std::vector<Connection *> late;
	for (auto &each : connections_) {
		if (is_late(each.second, now)) {
			late.push_back(&each.second);
		}
	}
	for (Connection *connection : late) {
		if (!connection->is_answered) {
			on_late(*connection);
		}
		end(*connection);
	}
}

void TcpServer::close_with_reset(const Connection &connection) {
	linger at_once{1, 0};
	setsockopt(connection.fd.get(), SOL_SOCKET, SO_LINGER, &at_once, sizeof at_once);
}

void TcpServer::end(Connection &connection) {
	int fd = connection.fd.get();
	on_closed(connection);
	loop_.forget(fd);
	connections_.erase(fd);
	open_connections_.fetch_sub(1, std::memory_order_relaxed);
}

} // namespace kaq
