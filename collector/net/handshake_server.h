/*
 * The handshake port. An answer takes one look at a policy that no other thread uses: no lock and
 * no file stands in its way, since a PHP request waits for it.
 */
#pragma once

#include <atomic>
#include <memory>

#include "ingest/handshake_policy.h"
#include "net/tcp_server.h"

namespace kaq {

struct HandshakeCounts {
	std::atomic<uint64_t> answered{0};
	std::atomic<uint64_t> refused{0}; /* too many connections */
	std::atomic<uint64_t> foreign{0}; /* from a network that is not allowed */
	std::atomic<uint64_t> late{0};    /* that never sent a whole request */
};

class HandshakeServer : public TcpServer {
public:
	static constexpr size_t kMostConnections = 1024;

	/* Throws std::system_error if the port cannot be had. */
	HandshakeServer(const ListenPlace &place, std::unique_ptr<HandshakePolicy> policy,
					size_t most_connections = kMostConnections);
	~HandshakeServer() override;

	/* The policy from one of the next requests on. Any thread. */
	void use(std::unique_ptr<HandshakePolicy> policy);
	const HandshakeCounts &counts() const {
		return counts_;
	}

private:
	Next on_bytes(Connection &connection, std::string_view bytes) override;
	Next on_end_of_input(Connection &connection) override;
	void on_late(Connection &connection) override;
	void on_refused() override;
	bool may_make_room(const Connection &connection) const override;
	void on_foreign() override;
	void on_closed(const Connection &connection) override;
	void on_tick() override;
	void reply(Connection &connection, std::string_view request);

	/* Of connections whose request comes in pieces, by descriptor. */
	std::unordered_map<int, std::string> inputs_;
	std::unique_ptr<HandshakePolicy> policy_;
	std::atomic<HandshakePolicy *> next_policy_{nullptr};
	HandshakeCounts counts_;
};

} // namespace kaq
