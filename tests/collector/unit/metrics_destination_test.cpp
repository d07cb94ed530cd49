/* Metrics arrive where they are sent to, whatever happens there. */
#include "export/metrics_destination.h"

#include <gtest/gtest.h>

#include "otlp_decoding.h"
#include "otlp_receiver.h"

namespace {

using namespace kaq;
using namespace kaq_test;
using std::chrono::milliseconds;

/* Requests by route, of all points of a message. */
std::map<std::string, uint64_t> counts_of(const std::string &request) {
	std::map<std::string, uint64_t> counts;
	for (const Message &of_resource : Message(request).messages(1)) {
		for (const Message &metric : of_resource.message(2).messages(2)) {
			for (const Message &point : metric.message(9).messages(1)) {
				counts[attributes_of(point, 9).at("http.route")] += point.number(4);
			}
		}
	}
	return counts;
}

class MetricsDestinationTest : public testing::Test {
protected:
	void add(const std::string &name, const std::string &application = "shop") {
		Summary summary;
		summary.application = application;
		summary.name = name;
		summary.is_web = true;
		metrics_.add(summary);
	}

	Receiver::Handler answering(std::function<ReceiverAnswer(const Posted &)> answer) {
		return [this, answer = std::move(answer)](const Posted &posted) {
			std::lock_guard lock(mutex_);
			ReceiverAnswer given = answer(posted);
			posts_++;
			if (given.status == 200) {
				for (const auto &[route, count] : counts_of(posted.body)) {
					arrived_[route] = count;
				}
			}
			return given;
		};
	}

	DestinationSettings settings_to(const Receiver &receiver) {
		DestinationSettings settings;
		settings.name = "test";
		settings.endpoint.url = receiver.url();
		settings.metrics_time = milliseconds(5);
		return settings;
	}

	bool arrive(const std::map<std::string, uint64_t> &counts) {
		return comes_true([&] {
			std::lock_guard lock(mutex_);
			return arrived_ == counts;
		});
	}

	RequestMetrics metrics_;
	std::mutex mutex_; /* of the following */
	std::map<std::string, uint64_t> arrived_;
	int posts_ = 0;
};

TEST_F(MetricsDestinationTest, SumsGrow) {
	Receiver receiver(answering([](const Posted &posted) {
		EXPECT_NE(posted.head.find("POST /v1/metrics "), std::string::npos) << posted.head;
		return ReceiverAnswer();
	}));
	add("/a");
	MetricsDestination destination(metrics_, settings_to(receiver));
	EXPECT_TRUE(arrive({{"/a", 1}}));
	add("/a");
	add("/b");
	EXPECT_TRUE(arrive({{"/a", 2}, {"/b", 1}}));
	/* The answer is noted after it was given. */
	EXPECT_TRUE(comes_true([&] { return destination.status().items >= 3; }));
	EXPECT_EQ(destination.status().signal, OtlpSignal::kMetrics);
	EXPECT_EQ(destination.status().trouble, "");
}

TEST_F(MetricsDestinationTest, WhatWasLostIsInTheNext) {
	Receiver receiver(answering(
		[this](const Posted &) { return posts_ < 3 ? ReceiverAnswer{503} : ReceiverAnswer(); }));
	add("/a");
	MetricsDestination destination(metrics_, settings_to(receiver));
	EXPECT_TRUE(arrive({{"/a", 1}}));
	EXPECT_EQ(destination.status().retries, 3u);
	EXPECT_EQ(destination.status().refused, 0u);
}

TEST_F(MetricsDestinationTest, WhatIsTooLargeIsSentInHalves) {
	Receiver receiver(answering([](const Posted &posted) {
		return ReceiverAnswer{counts_of(posted.body).size() > 2 ? 413 : 200};
	}));
	std::map<std::string, uint64_t> all;
	for (int i = 0; i < 11; i++) {
		add("/" + std::to_string(i));
		all["/" + std::to_string(i)] = 1;
	}
	MetricsDestination destination(metrics_, settings_to(receiver));
	EXPECT_TRUE(arrive(all));
	EXPECT_EQ(destination.status().refused, 0u);
}

TEST_F(MetricsDestinationTest, WhatIsNotWantedIsCounted) {
	Receiver receiver(answering(
		[this](const Posted &) { return posts_ == 0 ? ReceiverAnswer{400} : ReceiverAnswer(); }));
	add("/a");
	MetricsDestination destination(metrics_, settings_to(receiver));
	EXPECT_TRUE(arrive({{"/a", 1}}));
	EXPECT_EQ(destination.status().refused, 1u);
}

TEST_F(MetricsDestinationTest, OtherApplicationsAndTransactionsAreLeftOut) {
	Receiver receiver(answering([](const Posted &) { return ReceiverAnswer(); }));
	add("/cart/a");
	add("/cart/b", "blog");
	add("/other");
	DestinationSettings settings = settings_to(receiver);
	settings.application = "sh*";
	settings.transaction = "/cart/*";
	MetricsDestination destination(metrics_, settings);
	EXPECT_TRUE(arrive({{"/cart/a", 1}}));
}

} // namespace
