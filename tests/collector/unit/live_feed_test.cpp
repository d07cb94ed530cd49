#include "http/live_feed.h"

#include <gtest/gtest.h>

#include "store/request_view.h"

using namespace kaq;

namespace {

Filter only(const std::string &application) {
	return {{}, {TextIs{TextField::kApplication, application}}};
}

class Feed : public testing::Test {
protected:
	LiveFeed feed;
	int woken = 0;
	int written = 0;

	std::shared_ptr<LiveFeed::Listener> listen(const Filter &filter = {}) {
		return feed.listen([this] { woken++; }, filter);
	}

	void publish(const std::string &application) {
		Summary summary;
		summary.application = application;
		feed.publish(SummaryView(summary), [this, &application] {
			written++;
			return application;
		});
	}

	static std::vector<std::string> taken(LiveFeed::Listener &listener, uint64_t lost = 0) {
		uint64_t told = 99;
		std::vector<std::string> texts;
		for (const SharedText &text : listener.take(told)) {
			texts.push_back(*text);
		}
		EXPECT_EQ(lost, told);
		return texts;
	}
};

using Texts = std::vector<std::string>;

} // namespace

TEST_F(Feed, TellsEachListenerWhatItAskedFor) {
	auto all = listen();
	auto shop = listen(only("shop"));
	publish("Shop");
	publish("Forum");
	EXPECT_EQ((Texts{"Shop", "Forum"}), taken(*all));
	EXPECT_EQ((Texts{"Shop"}), taken(*shop));
	EXPECT_EQ(2, written);
	EXPECT_EQ(2, woken);
}

TEST_F(Feed, WritesNothingThatNobodyWantsToKnow) {
	auto shop = listen(only("shop"));
	publish("Forum");
	EXPECT_EQ(0, written);
	EXPECT_EQ(0, woken);
	EXPECT_TRUE(taken(*shop).empty());
}

TEST_F(Feed, WakesOnceUntilItIsTaken) {
	auto all = listen();
	publish("a");
	publish("b");
	EXPECT_EQ(1, woken);
	EXPECT_EQ(2u, taken(*all).size());
	publish("c");
	EXPECT_EQ(2, woken);
}

TEST_F(Feed, LosesTheOldestAndTellsHowMany) {
	auto all = listen();
	for (int i = 0; i < 1003; i++) {
		publish(std::to_string(i));
	}
	EXPECT_EQ("3", taken(*all, 3).front());
	publish("x");
	EXPECT_EQ((Texts{"x"}), taken(*all));
}

TEST_F(Feed, ForgetsListenersThatAreGone) {
	auto all = listen();
	EXPECT_TRUE(feed.has_listeners());
	all.reset();
	publish("a");
	EXPECT_FALSE(feed.has_listeners());
	EXPECT_EQ(0, written);
}
