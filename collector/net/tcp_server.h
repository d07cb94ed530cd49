/*
 * A listening TCP port and its connections, on a thread of their own. What is said on a connection
 * is up to the derived class. Every connection has an end: its peer's, an answer given, or a
 * deadline. Where there are too many, one that has kept us waiting makes room for the next; if
 * there is none, that is refused.
 *
 * Order of calls: constructor (listens), start(), stop_listening(), drain(); the derived class's
 * destructor calls join().
 */
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <deque>
#include <string>
#include <string_view>
#include <thread>
#include <unordered_map>
#include <utility>
#include <vector>

#include "net/event_loop.h"
#include "util/network.h"
#include "util/unique_fd.h"

namespace kaq {

struct TcpLimits {
	size_t connections;                 /* at a time */
	std::chrono::milliseconds deadline; /* from accepting to the end of input */
	size_t bytes_per_second;            /* that keep a connection open after it; 0: nothing does */
	int backlog;                        /* connections that wait for being accepted */
};

/* Where to listen, and to whom. A connection of an address to itself is always let in. */
struct ListenPlace {
	std::vector<std::string> addresses = {"127.0.0.1"};
	uint16_t port = 0;             /* 0: a free one, the same at each address */
	std::vector<Network> networks; /* empty: everybody */
};

class TcpServer : private ReadyHandler {
public:
	/*
	 * Listens at once. Throws std::system_error with the address and the port in its text if that
	 * fails. The thread's name has at most 15 characters.
	 */
	TcpServer(const ListenPlace &place, const TcpLimits &limits, const char *thread_name);
	~TcpServer() override;
	TcpServer(const TcpServer &) = delete;
	TcpServer &operator=(const TcpServer &) = delete;

	uint16_t port() const {
		return port_;
	}
	void start();
	/* Changes who is let in, before long. Any thread. */
	void allow(std::vector<Network> networks);
	/* Grows several times a second as long as the thread does its work. Any thread. */
	uint64_t beats() const {
		return beats_.load(std::memory_order_relaxed);
	}
	/* Connections that are open. Any thread. */
	size_t open_connections() const {
		return open_connections_.load(std::memory_order_relaxed);
	}
	/* New connections are refused soon; those that are open go on. Any thread. */
	void stop_listening();
	/* Waits until that is so and no connection is left; false if the time is up before. Any thread
	 * but the server's. */
	bool drain(std::chrono::milliseconds time);

protected:
	using Clock = std::chrono::steady_clock;

	struct Connection {
		UniqueFd fd;
		Clock::time_point opened;
		size_t received = 0;      /* bytes */
		std::string output;       /* what is still to be sent */
		size_t sent = 0;          /* bytes of it */
		bool is_answered = false; /* what comes in after that is not looked at */
		bool waits_to_send = false;
	};

	/* What is to become of a connection. */
	enum class Next { kReadOn, kEnd };

	virtual Next on_bytes(Connection &connection, std::string_view bytes) = 0;
	/* The peer has sent all that it wanted to. */
	virtual Next on_end_of_input(Connection &connection) = 0;
	/* The connection's time is up before its end of input. */
	virtual void on_late(Connection &connection) = 0;
	/* The connection ends, for whatever reason. */
	virtual void on_closed(const Connection &) {
	}
	/* It was ended with a reset since there were too many. */
	virtual void on_refused() = 0;
	/* Whether the connection, which has had some time, may make room for others. Once it may not,
	 * it never may. */
	virtual bool may_make_room(const Connection &connection) const {
		return connection.received == 0;
	}
	/* It came from a network that is not allowed. */
	virtual void on_foreign() = 0;

	/* Called several times a second. */
	virtual void on_tick() {
	}

	/* Ends the thread and with it all connections. */
	void join();
	/* Has on_tick() called before long. Any thread. */
	void wake();

	/* Sends the text, then the end of output; what comes in meanwhile is read and dropped. */
	void answer(Connection &connection, std::string text);
	/* Lets close() end the connection with a reset, which leaves no socket in TIME_WAIT. */
	static void close_with_reset(const Connection &connection);

private:
	void on_ready(int fd, uint32_t events) override;
	void tick();
	/* True if more may wait. */
	bool accept_some(int listener);
	void admit(UniqueFd fd, const sockaddr &peer);
	bool watch(int fd);
	bool make_room(Clock::time_point now);
	Connection *waiting_longest();
	bool refuse_one(int listener);
	bool is_allowed(int fd, const sockaddr &peer) const;
	bool is_listener(int fd) const;
	void read_from(Connection &connection);
	Next read_piece(Connection &connection);
	Next flush(Connection &connection);
	bool is_late(const Connection &connection, Clock::time_point now) const;
	void end_late_connections();
	void end(Connection &connection);

	EventLoop loop_;
	const TcpLimits limits_;
	const char *const thread_name_;
	std::vector<UniqueFd> listeners_;
	UniqueFd reserve_;
	const uint16_t port_;
	std::vector<Network> networks_;
	std::atomic<std::vector<Network> *> next_networks_{nullptr};
	std::atomic<uint64_t> beats_{0};
	std::unordered_map<int, Connection> connections_;
	std::atomic<size_t> open_connections_{0};
	/* Those that may make room, and some that may not any more; the oldest first. */
	std::deque<std::pair<int, Clock::time_point>> waiting_;
	std::atomic<bool> is_to_stop_listening_{false};
	std::atomic<bool> is_drained_{false}; /* and nobody listens */
	std::thread thread_;
};

} // namespace kaq
