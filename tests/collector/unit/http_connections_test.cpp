/* Who is let in when there are more connections than are served. */
#include "http/http_server.h"

#include <future>

#include "http_asking.h"
#include "records.h"

namespace {

using namespace kaq;
using kaq_test::ask;
using kaq_test::connected;
using kaq_test::heard;

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

	UniqueFd over_tcp() {
		return connected(server_.port());
	}

	UniqueFd over_socket() {
		return connected(directory_.path() + "/socket");
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
