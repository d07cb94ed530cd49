/* Handshakes by the rules of the configuration. */
#include "ingest/rules_policy.h"

#include <gtest/gtest.h>

using kaq::HandshakeAnswer;
using kaq::HandshakeCount;
using kaq::HandshakeRequest;
using kaq::kWholeShare;
using kaq::MonitorRule;

class Rules : public testing::Test {
protected:
	kaq::HandshakeCounter counter;
	kaq::OverloadControl overload;
	kaq::RulesSettings settings;
	std::unique_ptr<kaq::RulesPolicy> policy;

	HandshakeAnswer ask(const std::string &path, const std::string &application = "Shop") {
		if (!policy) {
			policy = std::make_unique<kaq::RulesPolicy>(settings, counter, overload);
		}
		HandshakeRequest request;
		request.application = application;
		request.host = "web1";
		request.port = "80";
		request.transaction = path;
		request.takes_snippet = true;
		return policy->answer(request);
	}

	std::vector<HandshakeCount> counts() {
		counter.publish(kaq::HandshakeCounter::Clock::now());
		return counter.take();
	}
};

static MonitorRule rule(const std::string &application, const std::string &transaction,
						uint32_t share) {
	MonitorRule rule;
	rule.application = application;
	rule.transaction = transaction;
	rule.share = share;
	return rule;
}

TEST_F(Rules, WithoutRulesEverythingIsMonitoredUnderItsOwnName) {
	HandshakeAnswer answer = ask("/cart/7");
	EXPECT_TRUE(answer.is_monitored);
	EXPECT_EQ("", answer.transaction);
	EXPECT_EQ("", answer.snippet);
	EXPECT_EQ(1, answer.sql_stack_seconds);
	EXPECT_EQ(16u, answer.instance_id.size());
	EXPECT_EQ("/cart/*", counts().at(0).name);
}

/* Rules know it as it is. */
TEST_F(Rules, SecretsAreCountedUnderNoName) {
	settings.monitor = {rule("*token=abc*", "*", 0)};
	HandshakeAnswer answer = ask("/reset/token=abcdef", "Shop token=abcdef");
	EXPECT_FALSE(answer.is_monitored);
	EXPECT_EQ(std::string::npos, answer.application_id.find("abcdef"));
	HandshakeCount count = counts().at(0);
	EXPECT_EQ("Shop token=[hidden, 5 to 8 bytes]", count.application);
	EXPECT_EQ("/reset/token=[hidden, 5 to 8 bytes]", count.name);
}

TEST_F(Rules, WhatNamesNobodyIsNotCounted) {
	ask("", "");
	EXPECT_TRUE(counts().empty());
	ask("/", "");
	EXPECT_EQ(1u, counts().size());
}

TEST_F(Rules, TheFirstThatMatchesCounts) {
	settings.monitor = {rule("Shop", "/health*", 0), rule("Sh?p", "*", kWholeShare),
						rule("*", "*", 0)};
	settings.monitor[1].sql_stack_seconds = 5;
	settings.monitor[1].snippet = "<script>";
	EXPECT_FALSE(ask("/health/db").is_monitored);
	HandshakeAnswer answer = ask("/cart");
	EXPECT_TRUE(answer.is_monitored);
	EXPECT_EQ(5, answer.sql_stack_seconds);
	EXPECT_EQ("<script>", answer.snippet);
	EXPECT_FALSE(ask("/cart", "Blog").is_monitored);
}

TEST_F(Rules, TheSnippetIsForThoseThatTakeIt) {
	settings.monitor = {rule("*", "*", kWholeShare)};
	settings.monitor[0].snippet = "<script>";
	EXPECT_EQ("<script>", ask("/").snippet);
	HandshakeRequest request;
	EXPECT_EQ("", policy->answer(request).snippet);
}

TEST_F(Rules, AShareIsExact) {
	settings.monitor = {rule("*", "*", kWholeShare / 10)};
	for (int i = 1; i <= 1000; i++) {
		EXPECT_EQ(i % 10 == 0, ask("/cart/" + std::to_string(i)).is_monitored) << i;
	}
	HandshakeCount count = counts().at(0);
	EXPECT_EQ("Shop", count.application);
	EXPECT_EQ("/cart/*", count.name);
	EXPECT_EQ(16u, count.instance.size());
	EXPECT_EQ(1000u, count.asked);
	EXPECT_EQ(100u, count.monitored);
}

TEST_F(Rules, OnlyARuleWithAFixedNameNamesTheTransaction) {
	settings.names = {
		{"Shop", "/p/*", "product", {}}, {"", "/front", "front", {"page"}}, {"", "/q", "", {"a"}}};
	EXPECT_EQ("product", ask("/p/7").transaction);
	EXPECT_EQ("", ask("/p/7", "Blog").transaction);
	EXPECT_EQ("", ask("/front").transaction);
	EXPECT_EQ("", ask("/q").transaction);
	EXPECT_EQ("product", counts().at(0).name);
}

TEST_F(Rules, SecretsOfPathsAreNotCountedBy) {
	ask("/a/token=abcdef/b?password=abcdef");
	HandshakeCount count = counts().at(0);
	EXPECT_EQ(std::string::npos, count.name.find("abcdef"));
	EXPECT_EQ(0u, count.name.find("/a/token="));
}

/* Otherwise many patterns with many stars would take as long as a visitor likes. */
TEST_F(Rules, OfALongPathOnlyTheBeginningIsLookedAt) {
	settings.monitor = {rule("*", "*b", 0)};
	EXPECT_FALSE(ask(std::string(1023, 'a') + "b").is_monitored);
	EXPECT_TRUE(ask(std::string(1024, 'a') + "b").is_monitored);
}

TEST_F(Rules, TheCollectorsOwnHandshakesAreNotCounted) {
	settings.monitor = {rule("*", "*", 0)};
	EXPECT_TRUE(ask("/", std::string(kaq::kProbeApplication)).is_monitored);
	EXPECT_TRUE(counts().empty());
}

TEST_F(Rules, LoadLowersWhatIsMonitored) {
	ask("/");
	overload.look(1, true, kaq::OverloadControl::Clock::now());
	int monitored = 0;
	for (int i = 0; i < 100; i++) {
		monitored += ask("/").is_monitored;
	}
	EXPECT_EQ(50, monitored);
	EXPECT_EQ(50u, counts().at(0).shed);
}

TEST_F(Rules, WhatIsSuspendedIsCountedAndNotMonitored) {
	ask("/");
	std::string instance = counts().at(0).instance;
	settings.suspensions = {{"Shop", "another", 0, ""}, {"Blog", "", 0, ""}};
	policy.reset();
	EXPECT_TRUE(ask("/").is_monitored);
	EXPECT_FALSE(ask("/", "Blog").is_monitored);
	settings.suspensions = {{"Shop", instance, 0, ""}};
	policy.reset();
	counts();
	EXPECT_FALSE(ask("/").is_monitored);
	EXPECT_TRUE(ask("/", "Blog").is_monitored);
	EXPECT_EQ(1u, counts().at(0).asked);
	settings.suspensions = {{"", "", 0, ""}};
	policy.reset();
	EXPECT_FALSE(ask("/", "Blog").is_monitored);
}

using kaq::OverloadControl;
using Change = OverloadControl::Change;

class Overload : public testing::Test {
protected:
	OverloadControl control;
	OverloadControl::Clock::time_point now = OverloadControl::Clock::now();

	/* Looks every 100 ms for a time, and returns the share at its end. */
	double look(double fill, int milliseconds, bool may_lower = true) {
		for (int i = 0; i < milliseconds; i += 100) {
			control.look(fill, may_lower, now);
			now += std::chrono::milliseconds(100);
		}
		return static_cast<double>(control.share()) / kWholeShare;
	}
};

TEST_F(Overload, TheShareIsWholeWithoutPressure) {
	EXPECT_EQ(1, look(0.49, 20000));
	EXPECT_EQ(0u, control.times_lowered());
}

TEST_F(Overload, ItIsHalvedAsLongAsPressureLasts) {
	EXPECT_EQ(Change::kLowered, control.look(0.6, true, now));
	EXPECT_EQ(0.5, look(0.6, 900));
	EXPECT_EQ(0.25, look(0.6, 1000));
	EXPECT_EQ(2u, control.times_lowered());
	EXPECT_DOUBLE_EQ(0.007812, look(0.9, 60000));
}

TEST_F(Overload, ItStaysBetweenTheThresholds) {
	EXPECT_EQ(0.5, look(0.6, 500));
	EXPECT_EQ(0.5, look(0.3, 60000));
}

TEST_F(Overload, ItRisesStepByStepWhenAllIsCalm) {
	EXPECT_EQ(0.25, look(0.6, 1500));
	EXPECT_EQ(0.25, look(0.05, 4900));
	EXPECT_EQ(0.25, look(0.2, 100));
	EXPECT_EQ(0.25, look(0.05, 4900));
	EXPECT_EQ(0.5, look(0.05, 500));
	EXPECT_EQ(0.5, look(0.05, 4000));
	EXPECT_EQ(1, look(0.05, 1500));
}

TEST_F(Overload, FromItsLeastItComesBackToTheWhole) {
	look(1, 30000);
	EXPECT_EQ(1, look(0, 60000));
}

TEST_F(Overload, ItIsLeftAloneWhereTheSettingsSaySo) {
	EXPECT_EQ(1, look(1, 5000, false));
	look(1, 5000);
	EXPECT_EQ(1, look(1, 100, false));
}
