/*
 * The handshake port. An answer takes one look at an immutable policy: no lock, no file, no other
 * thread stands in its way, since a PHP request waits for it.
 */
#pragma once

#include <atomic>
#include <memory>

#include "ingest/handshake_answer.h"
#include "net/tcp_server.h"

namespace kaq {

/* Decides what to answer. Never changed once a server has it; called on the server's thread. */
class HandshakePolicy {
public:
	virtual ~HandshakePolicy() = default;
	virtual HandshakeAnswer answer(const HandshakeRequest &request) const = 0;
};

struct HandshakeCounts {
	std::atomic<uint64_t> answered{0};
	std::atomic<uint64_t> refused{0}; /* too many connections */
	std::atomic<uint64_t> late{0};    /* that never sent a whole request */
};

class HandshakeServer : public TcpServer {
public:
	/* Throws std::system_error if the port cannot be had. */
	HandshakeServer(const std::string &address, uint16_t port,
					std::unique_ptr<const HandshakePolicy> policy);
	~HandshakeServer() override;

	/* The policy from one of the next requests on. Any thread. */
	void use(std::unique_ptr<const HandshakePolicy> policy);
	const HandshakeCounts &counts() const {
		return counts_;
	}

private:
	Next on_bytes(Connection &connection, std::string_view bytes) override;
	Next on_end_of_input(Connection &connection) override;
	void on_late(Connection &connection) override;
	void on_refused() override;
	void on_closed(const Connection &connection) override;
	void on_tick() override;
	void reply(Connection &connection, std::string_view request);

	/* Of connections whose request comes in pieces, by descriptor. */
	std::unordered_map<int, std::string> inputs_;
	std::unique_ptr<const HandshakePolicy> policy_;
	std::atomic<const HandshakePolicy *> next_policy_{nullptr};
	HandshakeCounts counts_;
};

} // namespace kaq
