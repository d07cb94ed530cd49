/* How requests are counted at their handshakes, and how a share of them is counted out. */
#include "ingest/handshake_counts.h"

#include <gtest/gtest.h>

#include <atomic>
#include <thread>

using kaq::HandshakeCount;
using kaq::HandshakeCounter;
using kaq::kWholeShare;
using kaq::ShareCounter;

static constexpr size_t kManyNames = 1000;

static HandshakeCount request(const std::string &application, const std::string &name,
							  const std::string &instance = "i") {
	HandshakeCount count;
	count.application = application;
	count.name = name;
	count.instance = instance;
	return count;
}

class Counter : public testing::Test {
protected:
	HandshakeCounter counter;
	ShareCounter begin;

	bool ask(const HandshakeCount &asked, uint32_t share = kWholeShare,
			 uint32_t load_share = kWholeShare, size_t most_names = kManyNames) {
		return counter.is_monitored(asked, most_names, share, load_share, begin);
	}

	std::vector<HandshakeCount> publish_and_take(std::chrono::hours later = {}) {
		counter.publish(HandshakeCounter::Clock::now() + later);
		return counter.take();
	}
};

TEST(ShareCounter, ATenthIsEveryTenth) {
	ShareCounter counter;
	for (int i = 1; i <= 1000; i++) {
		EXPECT_EQ(i % 10 == 0, counter.next(kWholeShare / 10)) << i;
	}
}

TEST(ShareCounter, EachShareIsExact) {
	for (uint32_t share : {0u, 1u, 333333u, 500000u, 999999u, kWholeShare}) {
		ShareCounter counter;
		uint32_t chosen = 0;
		for (uint32_t i = 0; i < kWholeShare; i++) {
			chosen += counter.next(share);
		}
		EXPECT_EQ(share, chosen);
	}
}

TEST_F(Counter, CountsByApplicationNameAndInstance) {
	ask(request("a", "/x"));
	ask(request("a", "/x"));
	ask(request("a", "/y"));
	ask(request("b", "/x"));
	ask(request("a", "/x", "j"));
	std::vector<HandshakeCount> counts = publish_and_take();
	ASSERT_EQ(4u, counts.size());
	EXPECT_EQ(2u, counts[0].asked);
	EXPECT_EQ(2u, counts[0].monitored);
	EXPECT_EQ("/y", counts[1].name);
	EXPECT_EQ("b", counts[2].application);
	EXPECT_EQ("j", counts[3].instance);
	EXPECT_EQ(1u, counts[3].asked);
}

TEST_F(Counter, WhatWasTakenIsNotCountedAgain) {
	ask(request("a", "/x"));
	EXPECT_EQ(1u, publish_and_take().size());
	EXPECT_EQ(0u, publish_and_take().size());
	ask(request("a", "/x"));
	std::vector<HandshakeCount> counts = publish_and_take();
	ASSERT_EQ(1u, counts.size());
	EXPECT_EQ(1u, counts[0].asked);
}

TEST_F(Counter, NothingIsLostWhereNobodyTakes) {
	ask(request("a", "/x"));
	counter.publish(HandshakeCounter::Clock::now());
	ask(request("a", "/x"));
	counter.publish(HandshakeCounter::Clock::now());
	ask(request("a", "/x"));
	EXPECT_EQ(1u, counter.take().at(0).asked);
	EXPECT_EQ(2u, publish_and_take().at(0).asked);
	ask(request("a", "/x"));
	counter.publish(HandshakeCounter::Clock::now());
	ask(request("a", "/y"));
	EXPECT_EQ(2u, counter.take_rest().size());
	EXPECT_EQ(0u, counter.take_rest().size());
}

TEST_F(Counter, AShareIsExactForEachName) {
	int monitored[2] = {0, 0};
	/* Two pages that follow each other: neither is left out. */
	for (int i = 0; i < 2000; i++) {
		monitored[i % 2] += ask(request("a", i % 2 ? "/x" : "/y"), kWholeShare / 2);
	}
	EXPECT_EQ(500, monitored[0]);
	EXPECT_EQ(500, monitored[1]);
	std::vector<HandshakeCount> counts = publish_and_take();
	EXPECT_EQ(1000u, counts.at(0).asked);
	EXPECT_EQ(500u, counts.at(0).monitored);
	EXPECT_EQ(0u, counts.at(0).shed);
}

TEST_F(Counter, RareNamesTogetherGetTheirShare) {
	int monitored = 0;
	for (int i = 0; i < 1000; i++) {
		monitored += ask(request("a", "/" + std::to_string(i)), kWholeShare / 10);
	}
	EXPECT_EQ(100, monitored);
}

TEST_F(Counter, WhatLoadLeavesOutIsCountedApart) {
	for (int i = 0; i < 100; i++) {
		ask(request("a", "/x"), kWholeShare / 2, kWholeShare / 5);
	}
	HandshakeCount count = publish_and_take().at(0);
	EXPECT_EQ(100u, count.asked);
	EXPECT_EQ(10u, count.monitored);
	EXPECT_EQ(40u, count.shed);
}

TEST_F(Counter, NamesAreCapped) {
	for (int i = 0; i < 50; i++) {
		ask(request("a", "/" + std::to_string(i)), kWholeShare, kWholeShare, 10);
		ask(request("b", "/only"), kWholeShare, kWholeShare, 10);
	}
	std::vector<HandshakeCount> counts = publish_and_take();
	ASSERT_EQ(12u, counts.size());
	EXPECT_EQ("other", counts.back().name);
	EXPECT_EQ(40u, counts.back().asked);
	EXPECT_EQ(50u, counts[1].asked);
}

TEST_F(Counter, InstancesAndApplicationsAreCapped) {
	for (int i = 0; i < 100; i++) {
		ask(request("a", "/x", std::to_string(i)));
	}
	std::vector<HandshakeCount> counts = publish_and_take();
	ASSERT_EQ(65u, counts.size());
	EXPECT_EQ("other", counts.back().instance);
	EXPECT_EQ(36u, counts.back().asked);
	for (int i = 0; i < 400; i++) {
		ask(request("b" + std::to_string(i), "/x"));
	}
	counts = publish_and_take();
	EXPECT_EQ(256u, counts.size());
	EXPECT_EQ("other", counts.back().application);
	EXPECT_EQ(145u, counts.back().asked);
}

TEST_F(Counter, AltogetherTheyAreBounded) {
	for (int i = 0; i < 100000; i++) {
		ask(request("a" + std::to_string(i % 50), "/" + std::to_string(i)), kWholeShare,
			kWholeShare, 100000);
	}
	std::vector<HandshakeCount> counts = publish_and_take();
	EXPECT_EQ(32768u + 50, counts.size());
	uint64_t asked = 0;
	for (const HandshakeCount &count : counts) {
		asked += count.asked;
	}
	EXPECT_EQ(100000u, asked);
}

TEST_F(Counter, TheBoundIsOfWhatIsAskedForNow) {
	for (int i = 0; i < 40000; i++) {
		ask(request("a", "/" + std::to_string(i)), kWholeShare, kWholeShare, 100000);
	}
	publish_and_take(std::chrono::hours(2));
	ask(request("a", "/new"));
	EXPECT_EQ("/new", publish_and_take().at(0).name);
}

TEST_F(Counter, NamesThatNobodyAsksForMakeRoomInTime) {
	ask(request("a", "/old"), kWholeShare, kWholeShare, 2);
	ask(request("a", "/both"), kWholeShare / 2, kWholeShare, 2);
	for (int hour = 2; hour <= 4; hour += 2) {
		publish_and_take(std::chrono::hours(hour));
		/* It goes on where it was, and is every second one. */
		EXPECT_EQ(hour == 2, ask(request("a", "/both"), kWholeShare / 2, kWholeShare, 2));
	}
	ask(request("a", "/new"), kWholeShare, kWholeShare, 2);
	std::vector<HandshakeCount> counts = publish_and_take();
	EXPECT_EQ("/new", counts.back().name);
}

TEST_F(Counter, NothingIsLostBetweenThreads) {
	constexpr uint64_t requests = 20000;
	std::atomic<bool> is_done{false};
	std::thread asking([&] {
		for (uint64_t i = 0; i < requests; i++) {
			ask(request("a", "/" + std::to_string(i % 7)));
			if (i % 10 == 0) {
				counter.publish(HandshakeCounter::Clock::now());
			}
		}
		is_done = true;
	});
	uint64_t asked = 0;
	while (!is_done) {
		for (const HandshakeCount &count : counter.take()) {
			asked += count.asked;
		}
	}
	asking.join();
	for (const HandshakeCount &count : counter.take_rest()) {
		asked += count.asked;
	}
	EXPECT_EQ(requests, asked);
}
