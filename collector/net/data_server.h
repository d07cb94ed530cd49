/*
 * The data port. What a connection sends is read to its end into memory of a common budget, and
 * handed on whole. When the budget is used up, or nobody takes what has arrived, it is the newest
 * that is dropped: read away, so that no PHP process waits, and counted.
 */
#pragma once

#include <atomic>
#include <functional>
#include <string>
#include <unordered_map>

#include "net/tcp_server.h"
#include "util/budgeted_buffer.h"

namespace kaq {

struct DataCounts {
	std::atomic<uint64_t> received{0};  /* handed on */
	std::atomic<uint64_t> bytes{0};     /* of these */
	std::atomic<uint64_t> no_memory{0}; /* dropped: the budget was used up */
	std::atomic<uint64_t> too_long{0};  /* dropped */
	std::atomic<uint64_t> not_taken{0}; /* dropped: the receiver was behind */
	std::atomic<uint64_t> late{0};      /* ended before their end of input */
	std::atomic<uint64_t> refused{0};   /* too many connections */
	std::atomic<uint64_t> foreign{0};   /* from a network that is not allowed */
};

class DataServer : public TcpServer {
public:
	/* Takes over what a connection has sent. False, and nothing taken, if it cannot; then it is
	 * dropped. Called on the server's thread. */
	using Receiver = std::function<bool(BudgetedBuffer &&bytes)>;

	static constexpr size_t kMostConnections = 4096;

	/* Throws std::system_error if the port cannot be had. */
	DataServer(const ListenPlace &place, MemoryBudget &budget, Receiver receiver,
			   size_t most_connections = kMostConnections);
	~DataServer() override;

	const DataCounts &counts() const {
		return counts_;
	}

private:
	Next on_bytes(Connection &connection, std::string_view bytes) override;
	Next on_end_of_input(Connection &connection) override;
	void on_late(Connection &connection) override;
	void on_refused() override;
	void on_foreign() override;
	void on_closed(const Connection &connection) override;

	MemoryBudget &budget_;
	/* By descriptor. A connection that is dropped has none. */
	std::unordered_map<int, BudgetedBuffer> inputs_;
	const Receiver receiver_;
	DataCounts counts_;
};

} // namespace kaq
