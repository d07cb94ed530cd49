#include "net/handshake_server.h"

namespace kaq {
namespace {

/* A request is below 1 KiB but for its path. What is longer is answered by what has come. */
constexpr size_t kLongestRequest = 64 * 1024;

/* The extension waits up to a second for its answer. More waiting connections than the backlog are
 * refused by the kernel, which costs a page less than waiting. */
constexpr std::chrono::milliseconds kDeadline{1000};
constexpr int kBacklog = 128;

} // namespace

HandshakeServer::HandshakeServer(const ListenPlace &place, std::unique_ptr<HandshakePolicy> policy,
								 size_t most_connections)
	: TcpServer(place, {most_connections, kDeadline, 0, kBacklog}, "kaq-handshake"),
	  policy_(std::move(policy)) {
}

HandshakeServer::~HandshakeServer() {
	join();
	delete next_policy_.load();
}

void HandshakeServer::use(std::unique_ptr<HandshakePolicy> policy) {
	delete next_policy_.exchange(policy.release());
	wake();
}

void HandshakeServer::on_tick() {
	HandshakePolicy *next = next_policy_.exchange(nullptr);
	if (next) {
		policy_.reset(next);
	}
	policy_->on_tick();
}

TcpServer::Next HandshakeServer::on_bytes(Connection &connection, std::string_view bytes) {
	/* A request nearly always comes in one piece, which need not be copied then. */
	if (connection.received == bytes.size() && bytes.back() == '\n') {
		reply(connection, bytes);
		return Next::kReadOn;
	}
	std::string &input = inputs_[connection.fd.get()];
	input.append(bytes);
	if (bytes.find('\n') != std::string_view::npos || input.size() > kLongestRequest) {
		reply(connection, input);
	}
	return Next::kReadOn;
}

TcpServer::Next HandshakeServer::on_end_of_input(Connection &connection) {
	if (connection.received == 0) {
		return Next::kEnd;
	}
	reply(connection, inputs_[connection.fd.get()]);
	return Next::kReadOn;
}

void HandshakeServer::on_closed(const Connection &connection) {
	inputs_.erase(connection.fd.get());
}

void HandshakeServer::reply(Connection &connection, std::string_view request) {
	counts_.answered.fetch_add(1, std::memory_order_relaxed);
	answer(connection, to_json(policy_->answer(read_handshake_request(request))));
}

void HandshakeServer::on_late(Connection &) {
	counts_.late.fetch_add(1, std::memory_order_relaxed);
}

void HandshakeServer::on_refused() {
	counts_.refused.fetch_add(1, std::memory_order_relaxed);
}

/* The extension writes its request at once, and all of it. */
bool HandshakeServer::may_make_room(const Connection &connection) const {
	return !connection.is_answered;
}

void HandshakeServer::on_foreign() {
	counts_.foreign.fetch_add(1, std::memory_order_relaxed);
}

} // namespace kaq
