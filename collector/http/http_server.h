/*
 * HTTP for browsers and programs on a TCP port, and for the program's own verbs on a Unix socket.
 * One thread serves all connections; a live stream is just one that stays open. What takes time is
 * done by a few workers; what would have to wait too long for one is refused.
 *
 * On the TCP port every request has to name this host (so that no other site's name can be made to
 * lead here), must not come from another site's page, and needs the token or a session, but
 * for /healthz, /login and the pages, which have nothing recorded in them.
 */
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "http/live_feed.h"
#include "http/sessions.h"

namespace kaq {

struct HttpRequest {
	std::string method;
	std::string path;
	std::string query;     /* behind the question mark, as it was sent */
	std::string form;      /* the body, if it is one of a form */
	uint16_t port = 0;     /* of TCP, that the server has */
	bool is_local = false; /* it came over the Unix socket */
	bool is_known = false; /* it came over TCP with the token or a session */
	bool takes_gzip = false;
	std::string known_etag; /* of what the browser has of it already */
};

struct HttpAnswer {
	int status = 200;
	std::string type = "application/json";
	std::string body;
	bool is_live = false;    /* the live feed is sent as server-sent events; the body is left out */
	Filter live_filter = {}; /* what of it is sent */
	std::vector<std::pair<std::string, std::string>> headers = {}; /* further ones */
	/* Where the answer takes time: called on a worker for it; nothing of this one counts then. */
	std::function<HttpAnswer()> work = {};
};

constexpr size_t kMostHttpConnections = 512;

struct HttpSettings {
	std::string address = "127.0.0.1";
	uint16_t port = 0;       /* 0: a free one */
	std::string socket_path; /* of the Unix socket; empty: none */
	std::string token;       /* never empty */
	/* Of browsers; null: none. It outlives the server. */
	const Sessions *sessions = nullptr;
	/* At a time, of each of the two. Of more the one is closed that has been idle for longest. */
	size_t most_connections = kMostHttpConnections;
};

/* Of both. */
struct HttpCounts {
	/* Connections that made room for others, or for which there was none. */
	std::atomic<uint64_t> crowded_out{0};
	std::atomic<uint64_t> too_long{0};  /* heads and bodies */
	std::atomic<uint64_t> malformed{0}; /* no HTTP */
	std::atomic<uint64_t> late{0};      /* did not end in time */
};

class HttpServer {
public:
	/* Called on the server's thread, for which all others wait. */
	using Handler = std::function<HttpAnswer(const HttpRequest &)>;

	/* Listens; throws std::system_error with what it listened on in its text. REQUIRES: the feed
	 * outlives the server. */
	HttpServer(HttpSettings settings, Handler handler, LiveFeed &feed);
	/* Ends all connections, and waits for the workers. */
	~HttpServer();
	HttpServer(const HttpServer &) = delete;
	HttpServer &operator=(const HttpServer &) = delete;

	uint16_t port() const;
	/* Connections that are open, also those of the socket. Any thread. */
	size_t open_connections() const;
	/* Any thread. */
	const HttpCounts &counts() const;
	void start();

private:
	struct State;
	std::unique_ptr<State> state_;
};

} // namespace kaq
