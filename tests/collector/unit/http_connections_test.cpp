/* Who is let in when there are more connections than are served. */
#include "http/http_server.h"

#include <gtest/gtest.h>

#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>

#include <future>

#include "records.h"
#include "util/unique_fd.h"

namespace {

using namespace kaq;

constexpr size_t kMost = 8;

class HttpConnectionsTest : public testing::Test {
protected:
	HttpConnectionsTest()
		: server_(
			  {"127.0.0.1", 0, directory_.path() + "/socket", "t", nullptr, kMost},
			  [this](const HttpRequest &request) { return answer(request); }, feed_) {
		server_.start();
	}

	HttpAnswer answer(const HttpRequest &request) {
		HttpAnswer answer;
		if (request.path == "/slow") {
			answer.work = [this] {
				gate_.wait();
				return HttpAnswer{200, "text/plain", "slow"};
			};
		}
		answer.is_live = request.path == "/live";
		return answer;
	}

	static UniqueFd connected(UniqueFd fd, const sockaddr *address, socklen_t size) {
		timeval limit{20, 0};
		setsockopt(fd.get(), SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof(limit));
		EXPECT_EQ(connect(fd.get(), address, size), 0);
		return fd;
	}

	UniqueFd over_tcp() {
		sockaddr_in address{};
		address.sin_family = AF_INET;
		address.sin_port = htons(server_.port());
		address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
		return connected(UniqueFd(socket(AF_INET, SOCK_STREAM, 0)),
						 reinterpret_cast<sockaddr *>(&address), sizeof(address));
	}

	UniqueFd over_socket() {
		sockaddr_un address{};
		address.sun_family = AF_UNIX;
		std::string path = directory_.path() + "/socket";
		path.copy(address.sun_path, sizeof(address.sun_path) - 1);
		return connected(UniqueFd(socket(AF_UNIX, SOCK_STREAM, 0)),
						 reinterpret_cast<sockaddr *>(&address), sizeof(address));
	}

	static void ask(const UniqueFd &fd, const std::string &path) {
		std::string request =
			"GET " + path + " HTTP/1.1\r\nHost: localhost\r\nAuthorization: Bearer t\r\n\r\n";
		EXPECT_EQ(send(fd.get(), request.data(), request.size(), MSG_NOSIGNAL),
				  static_cast<ssize_t>(request.size()));
	}

	/* The beginning of an answer; empty if the connection was closed. */
	static std::string heard(const UniqueFd &fd) {
		char piece[4096];
		ssize_t size = recv(fd.get(), piece, sizeof(piece), 0);
		return {piece, static_cast<size_t>(std::max<ssize_t>(size, 0))};
	}

	std::string answer_of(UniqueFd fd, const std::string &path) {
		ask(fd, path);
		return heard(fd).substr(0, 12);
	}

	std::promise<void> opened_;
	std::shared_future<void> gate_ = opened_.get_future().share();
	kaq_test::Directory directory_;
	LiveFeed feed_;
	HttpServer server_;
};

TEST_F(HttpConnectionsTest, IdleOnesMakeRoomTheLongestIdleFirst) {
	std::vector<UniqueFd> idle;
	for (size_t i = 0; i < 3 * kMost; i++) {
		idle.push_back(over_tcp());
		EXPECT_EQ(answer_of(over_tcp(), "/healthz"), "HTTP/1.1 200");
	}
	EXPECT_EQ(heard(idle.front()), "");
	ask(idle.back(), "/healthz");
	EXPECT_EQ(heard(idle.back()).substr(0, 12), "HTTP/1.1 200");
	EXPECT_LE(server_.open_connections(), kMost + 1);
	EXPECT_GE(server_.counts().crowded_out, 2 * kMost);
	opened_.set_value();
}

TEST_F(HttpConnectionsTest, ThePortDoesNotShutOutTheSocket) {
	std::vector<UniqueFd> busy;
	for (size_t i = 0; i < kMost; i++) {
		busy.push_back(over_tcp());
		ask(busy.back(), "/live");
		EXPECT_EQ(heard(busy.back()).substr(0, 12), "HTTP/1.1 200");
	}
	/* None of these can make room. */
	EXPECT_EQ(heard(over_tcp()), "");
	EXPECT_EQ(answer_of(over_socket(), "/x"), "HTTP/1.1 200");
	opened_.set_value();
}

TEST_F(HttpConnectionsTest, WhatIsBeingAnsweredStays) {
	UniqueFd slow = over_tcp();
	ask(slow, "/slow");
	for (size_t i = 0; i < 3 * kMost; i++) {
		EXPECT_EQ(answer_of(over_tcp(), "/healthz"), "HTTP/1.1 200");
	}
	opened_.set_value();
	EXPECT_EQ(heard(slow).substr(0, 12), "HTTP/1.1 200");
}

} // namespace
