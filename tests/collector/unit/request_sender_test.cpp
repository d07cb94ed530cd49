/* Which requests are sent, as what, and for how long it is tried. */
#include "export/request_sender.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include "destination_fixture.h"

namespace {

using namespace kaq;
using namespace kaq_test;

/* A cursor of its own: logs go on where logs have ended. */
TEST_F(DestinationTest, LogsAreSentOfRequestsThatHaveFailures) {
	std::vector<std::string> paths;
	Receiver receiver([&](const Posted &posted) {
		std::lock_guard lock(mutex_);
		paths.push_back(posted.head.substr(0, posted.head.find(" HTTP")));
		return ReceiverAnswer();
	});
	DestinationSettings settings = settings_to(receiver);
	destination_ =
		std::make_unique<Destination>(store(), settings, OtlpSignal::kLogs, settings_.directory);
	put_request();
	Record failed = record(++number_, now_);
	failed.summary.failures = 1;
	put(failed, payload(R"("t_name":"\/cart","s_time":1000,"e_time":1250,"transaction_type":1)",
						R"({"st":1000,"et":1250,"mo":0,"fn":"main","cn":"PHP","si":")" + id_of(7) +
							R"(","ie":1,"ei":[{"err_clz":"E","filename":"a","level":"Error",)"
							R"("str":"no","linenumber":7,"time":1100}]})"));
	store().flush();
	ASSERT_TRUE(comes_true([this] { return destination_->status().waiting == 0; }));
	EXPECT_TRUE(comes_true([this] { return destination_->status().requests == 1; }));
	EXPECT_EQ(destination_->status().items, 1u);
	destination_.reset();
	EXPECT_EQ(paths, std::vector<std::string>{"POST /v1/logs"});
	EXPECT_EQ(access((settings_.directory + "/export-test.logs").c_str(), R_OK), 0);
}

TEST_F(DestinationTest, GivesUpWhenThePatienceHasEnded) {
	Receiver receiver([](const Posted &) { return ReceiverAnswer{503}; });
	put_request();
	store().flush();
	DestinationSettings settings = settings_to(receiver);
	settings.patience = milliseconds(100);
	RequestSender sender(store(), settings, OtlpSignal::kTraces, StorePlace(),
						 [](const StorePlace &, bool) {});
	EXPECT_FALSE(sender.look());
	EXPECT_EQ(sender.status().trouble, "it answered with status 503");
	EXPECT_EQ(sender.status().requests, 0u);
}

TEST_F(DestinationTest, ARangeOfTimeIsSentAlone) {
	Receiver receiver(taking_all());
	std::string first = put_request();
	std::string second = put_request(1, [](Summary &summary) { summary.start += 5000; });
	store().flush();
	DestinationSettings settings = settings_to(receiver);
	settings.range = {now_ + 1, TimeRange::kForever};
	RequestSender sender(store(), settings, OtlpSignal::kTraces, StorePlace(),
						 [](const StorePlace &, bool) {});
	while (sender.look()) {
	}
	EXPECT_EQ(arrived(), (std::map<std::string, int>{{second, 1}}));
}

} // namespace
