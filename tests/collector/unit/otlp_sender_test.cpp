/* What becomes of what is sent, by what the endpoint answers. */
#include "export/otlp_sender.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <vector>

#include "otlp_receiver.h"
#include "util/gzip.h"

namespace {

using namespace kaq;
using namespace kaq_test;
using std::chrono::seconds;

OtlpAnswer answer_to(const ReceiverAnswer &answer) {
	Receiver receiver([&answer](const Posted &) { return answer; });
	return OtlpSender({receiver.url()}, OtlpSignal::kTraces).send("request");
}

std::string partial_success(int rejected, const std::string &text) {
	std::string partial = std::string("\x08") + static_cast<char>(rejected) + "\x12" +
						  static_cast<char>(text.size()) + text;
	return std::string("\x0a") + static_cast<char>(partial.size()) + partial;
}

TEST(OtlpSender, SendsWhatTheProtocolAsksFor) {
	std::vector<Posted> posted;
	Receiver receiver([&posted](const Posted &one) {
		posted.push_back(one);
		return ReceiverAnswer();
	});
	OtlpSender sender({receiver.url(), {"Authorization: Bearer 0123", "X-Scope: shop"}},
					  OtlpSignal::kTraces);
	/* Large, also when it is compressed. */
	std::mt19937 random(7);
	std::string request(2 << 20, '\0');
	std::generate(request.begin(), request.end(),
				  [&random] { return static_cast<char>(random()); });
	EXPECT_EQ(sender.send(request).outcome, OtlpOutcome::kTaken);
	EXPECT_EQ(sender.send("").outcome, OtlpOutcome::kTaken);
	ASSERT_EQ(posted.size(), 2u);
	EXPECT_EQ(posted[0].head.rfind("POST /v1/traces HTTP/1.1\r\n", 0), 0u) << posted[0].head;
	for (const char *header : {"Content-Type: application/x-protobuf", "Content-Encoding: gzip",
							   "Authorization: Bearer 0123", "X-Scope: shop"}) {
		EXPECT_NE(posted[0].head.find(std::string(header) + "\r\n"), std::string::npos) << header;
	}
	EXPECT_EQ(posted[0].head.find("Expect"), std::string::npos);
	EXPECT_EQ(posted[0].body, request);
	EXPECT_EQ(posted[1].body, "");
	/* One connection for both. */
	EXPECT_EQ(receiver.connections(), 1);
}

TEST(OtlpSender, AnEndpointWithAPathKeepsIt) {
	EXPECT_EQ(signal_url("http://otel:4318", OtlpSignal::kTraces), "http://otel:4318/v1/traces");
	EXPECT_EQ(signal_url("http://otel:4318/", OtlpSignal::kTraces), "http://otel:4318/v1/traces");
	EXPECT_EQ(signal_url("https://a.example/otlp/v1/traces", OtlpSignal::kTraces),
			  "https://a.example/otlp/v1/traces");
	EXPECT_EQ(signal_url("https://a.example/?key=1", OtlpSignal::kTraces),
			  "https://a.example/?key=1");
}

TEST(OtlpSender, EachSignalHasAnAddress) {
	EXPECT_EQ(signal_url("http://otel:4318", OtlpSignal::kLogs), "http://otel:4318/v1/logs");
	EXPECT_EQ(signal_url("http://otel:4318/", OtlpSignal::kMetrics), "http://otel:4318/v1/metrics");
	EXPECT_EQ(signal_url("https://a.example/otlp/v1/traces", OtlpSignal::kMetrics),
			  "https://a.example/otlp/v1/metrics");
	EXPECT_EQ(signal_url("https://a.example/write", OtlpSignal::kLogs), "https://a.example/write");
	EXPECT_TRUE(has_url_for_each_signal("http://otel:4318"));
	EXPECT_TRUE(has_url_for_each_signal("https://a.example/otlp/v1/traces"));
	EXPECT_FALSE(has_url_for_each_signal("https://a.example/write"));
}

TEST(OtlpSender, EachStatusHasItsOutcome) {
	for (int status : {200, 202, 204}) {
		EXPECT_EQ(answer_to({status}).outcome, OtlpOutcome::kTaken) << status;
	}
	for (int status : {429, 502, 503, 504}) {
		EXPECT_EQ(answer_to({status}).outcome, OtlpOutcome::kTryAgain) << status;
	}
	EXPECT_EQ(answer_to({413}).outcome, OtlpOutcome::kTooLarge);
	for (int status : {400, 401, 403, 404, 408, 500, 501, 505}) {
		EXPECT_EQ(answer_to({status}).outcome, OtlpOutcome::kRefused) << status;
	}
}

TEST(OtlpSender, RedirectsAreNotFollowed) {
	int requests = 0;
	Receiver receiver([&requests](const Posted &) {
		requests++;
		return ReceiverAnswer{307, "Location: /elsewhere\r\n"};
	});
	EXPECT_EQ(OtlpSender({receiver.url()}, OtlpSignal::kTraces).send("x").outcome,
			  OtlpOutcome::kRefused);
	EXPECT_EQ(requests, 1);
}

TEST(OtlpSender, APauseThatIsAskedForIsTold) {
	EXPECT_EQ(answer_to({503, "Retry-After: 7\r\n"}).pause, seconds(7));
	EXPECT_EQ(answer_to({429, "retry-after: 12\r\n"}).pause, seconds(12));
	EXPECT_FALSE(answer_to({503}).pause);
	EXPECT_FALSE(answer_to({503, "Retry-After: soon\r\n"}).pause);
}

TEST(OtlpSender, APauseIsSecondsOrADate) {
	EXPECT_EQ(pause_of("0", 1000), seconds(0));
	EXPECT_EQ(pause_of("90", 1000), seconds(90));
	EXPECT_EQ(pause_of("-5", 1000), seconds(0));
	EXPECT_EQ(pause_of("86400", 1000), seconds(3600));
	EXPECT_EQ(pause_of("Sun, 06 Nov 1994 08:49:37 GMT", 784111777 - 30), seconds(30));
	EXPECT_EQ(pause_of("Sun, 06 Nov 1994 08:49:37 GMT", 784111777 + 30), seconds(0));
	EXPECT_FALSE(pause_of("", 1000));
	EXPECT_FALSE(pause_of("99999999999999999999999", 1000));
}

TEST(OtlpSender, APartialSuccessIsTaken) {
	OtlpAnswer answer = answer_to({200, "", partial_success(17, "no room\n")});
	EXPECT_EQ(answer.outcome, OtlpOutcome::kTaken);
	EXPECT_EQ(answer.rejected, 17);
	EXPECT_EQ(answer.reason, "no room ");
}

TEST(OtlpSender, GarbageBehindAGoodStatusIsNoReasonToSendAgain) {
	for (const std::string &body :
		 {std::string("<html>"), std::string("\x0a\x7f"), std::string("\x0a\x02\x08\xff"),
		  std::string(100, '\xff'), std::string(1 << 20, 'x')}) {
		OtlpAnswer answer = answer_to({200, "", body});
		EXPECT_EQ(answer.outcome, OtlpOutcome::kTaken) << body.substr(0, 20);
		EXPECT_EQ(answer.rejected, 0);
	}
	EXPECT_EQ(answer_to({200, "", std::string("\x0a\x0b\x08") + std::string(9, '\xff') + '\x01'})
				  .rejected,
			  0);
}

TEST(OtlpSender, WhoDoesNotAnswerIsAskedAgain) {
	ReceiverAnswer broken;
	broken.is_broken_off = true;
	EXPECT_EQ(answer_to(broken).outcome, OtlpOutcome::kTryAgain);
	ReceiverAnswer noise;
	noise.has_no_head = true;
	noise.body = std::string(1000, '\x01');
	EXPECT_EQ(answer_to(noise).outcome, OtlpOutcome::kTryAgain);
	std::string nobody;
	{
		Receiver receiver([](const Posted &) { return ReceiverAnswer(); });
		nobody = receiver.url();
	}
	OtlpAnswer answer = OtlpSender({nobody}, OtlpSignal::kTraces).send("x");
	EXPECT_EQ(answer.outcome, OtlpOutcome::kTryAgain);
	EXPECT_NE(answer.reason, "");
	/* No certificate that anybody trusts, as none is spoken there. */
	Receiver receiver([](const Posted &) { return ReceiverAnswer(); });
	std::string secure = "https" + receiver.url().substr(4);
	OtlpEndpoint endpoint{secure};
	endpoint.time = std::chrono::milliseconds(300);
	EXPECT_EQ(OtlpSender(endpoint, OtlpSignal::kTraces).send("x").outcome, OtlpOutcome::kTryAgain);
}

TEST(OtlpSender, EndsWhatIsUnderWay) {
	std::atomic<bool> is_asked{false};
	std::atomic<bool> is_over{false};
	Receiver receiver([&](const Posted &) {
		is_asked = true;
		for (int i = 0; i < 600 && !is_over; i++) {
			std::this_thread::sleep_for(std::chrono::milliseconds(50));
		}
		return ReceiverAnswer();
	});
	OtlpSender sender({receiver.url()}, OtlpSignal::kTraces);
	std::thread ending([&] {
		while (!is_asked) {
			std::this_thread::sleep_for(std::chrono::milliseconds(1));
		}
		sender.end();
	});
	EXPECT_EQ(sender.send("x").outcome, OtlpOutcome::kTryAgain);
	EXPECT_EQ(sender.send("y").outcome, OtlpOutcome::kTryAgain);
	is_over = true;
	ending.join();
}

TEST(Gzip, ComesBackAsItWas) {
	for (const std::string &text :
		 {std::string(), std::string("x"), std::string(3000000, 'y'), std::string("\0\xff", 2)}) {
		EXPECT_EQ(gunzip(gzip(text)), text);
	}
	EXPECT_LT(gzip(std::string(100000, 'x')).size(), 1000u);
}

} // namespace
