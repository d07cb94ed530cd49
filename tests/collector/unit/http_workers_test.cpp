#include "http/http_server.h"

#include <future>

#include "http_asking.h"

namespace {

using namespace kaq;

constexpr size_t kMost = 64; /* that are answered or wait */

UniqueFd ask(uint16_t port, const std::string &path) {
	UniqueFd fd = kaq_test::connected(port);
	kaq_test::ask(fd, path, "Connection: close\r\n");
	return fd;
}

std::string answer_of(const UniqueFd &fd) {
	std::string answer;
	for (std::string piece; !(piece = kaq_test::heard(fd)).empty();) {
		answer += piece;
	}
	return answer;
}

bool is(const std::string &answer, int status) {
	return answer.rfind("HTTP/1.1 " + std::to_string(status), 0) == 0;
}

class HttpWorkersTest : public testing::Test {
protected:
	HttpWorkersTest()
		: server_(
			  {"127.0.0.1", 0, "", "t"},
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
		} else if (request.path == "/broken") {
			answer.work = []() -> HttpAnswer { throw std::runtime_error("broken"); };
		}
		return answer;
	}

	std::promise<void> opened_;
	std::shared_future<void> gate_ = opened_.get_future().share();
	LiveFeed feed_;
	HttpServer server_;
};

TEST_F(HttpWorkersTest, RefuseWhatWouldHaveToWaitTooLong) {
	constexpr size_t kTooMany = 8;
	std::vector<UniqueFd> asked;
	for (size_t i = 0; i < kMost + kTooMany; i++) {
		asked.push_back(ask(server_.port(), "/slow"));
		/* What takes no time is answered meanwhile, after what was asked before. */
		EXPECT_TRUE(is(answer_of(ask(server_.port(), "/quick")), 200));
	}
	opened_.set_value();
	size_t refused = 0;
	for (const UniqueFd &each : asked) {
		std::string answer = answer_of(each);
		EXPECT_TRUE(is(answer, 200) || is(answer, 503)) << answer;
		if (is(answer, 503)) {
			EXPECT_NE(answer.find("Retry-After: 1"), std::string::npos);
			refused++;
		}
	}
	EXPECT_EQ(refused, kTooMany);
	EXPECT_TRUE(is(answer_of(ask(server_.port(), "/slow")), 200));
}

TEST_F(HttpWorkersTest, AnswerWhenTheirWorkFails) {
	EXPECT_TRUE(is(answer_of(ask(server_.port(), "/broken")), 500));
}

TEST_F(HttpWorkersTest, EndWithWorkThatWaits) {
	UniqueFd one = ask(server_.port(), "/slow");
	EXPECT_TRUE(is(answer_of(ask(server_.port(), "/quick")), 200));
	opened_.set_value();
}

} // namespace
