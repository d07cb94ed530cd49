/* Alerts, by figures that the test makes up and a clock that it moves. */
#include "cli/alerts.h"

#include <gtest/gtest.h>

#include <fstream>

#include <nlohmann/json.hpp>

#include "cli/alert_file.h"
#include "records.h"

namespace {

using kaq::Alert;
using kaq::AlertEngine;
using kaq::AlertMetric;
using kaq::AlertRule;
using kaq::AskedCount;
using kaq::FigurePoint;
using kaq::FigureRow;
using kaq::Figures;
using kaq::FigureSearch;
using kaq::FigureSource;
using kaq::TimeRange;

constexpr int64_t kMinute = 60 * 1000;
constexpr int64_t kHour = 60 * kMinute;
constexpr int64_t kDay = 24 * kHour;
constexpr int64_t kNow = 1700000000LL * 1000 / kDay * kDay + 12 * kHour;

Figures figures_of(int64_t count, int64_t failed, int64_t duration) {
	Figures figures;
	figures.count = count;
	figures.requests = count;
	figures.failed = failed;
	figures.durations.add(duration, static_cast<uint64_t>(count));
	return figures;
}

class AlertsTest : public testing::Test {
protected:
	/* A rule for p95. */
	static AlertRule rule(std::optional<double> limit, std::optional<double> deviation,
						  AlertMetric metric = AlertMetric::kP95) {
		AlertRule rule;
		rule.application = "shop";
		rule.metric = metric;
		rule.limit = limit;
		rule.deviation = deviation;
		rule.minutes = std::chrono::minutes(3);
		rule.webhook = "http://127.0.0.1/hook";
		return rule;
	}

	/* A minute of requests of /cart of the shop. */
	void put(int64_t time, const Figures &figures, const std::string &name = "/cart") {
		minutes_[time / kMinute * kMinute][{"shop", name}] = figures;
	}

	void put_past(int64_t from, int64_t to, const Figures &figures) {
		for (int64_t time = from; time < to; time += kMinute) {
			put(time, figures);
		}
	}

	/* The next minute has these; what is said of it. */
	std::vector<Alert> pass(const Figures &figures) {
		put(now_, figures);
		now_ += kMinute;
		return engine_->look(now_);
	}
	std::vector<Alert> pass() {
		now_ += kMinute;
		return engine_->look(now_);
	}

	std::vector<FigureRow> rows(const FigureSearch &search) const {
		std::map<std::pair<std::string, std::string>, Figures> sums;
		for (auto at = minutes_.lower_bound(search.range.from);
			 at != minutes_.end() && at->first < search.range.to; at++) {
			for (const auto &[name, figures] : at->second) {
				bool is_wanted = search.transaction.empty() || name.second == search.transaction;
				if (is_wanted) {
					sums[name].add(figures);
				}
			}
		}
		std::vector<FigureRow> rows;
		for (const auto &[name, figures] : sums) {
			FigureRow row;
			row.key.application = name.first;
			row.key.transaction = name.second;
			row.figures = figures;
			rows.push_back(std::move(row));
		}
		return rows;
	}

	std::vector<FigurePoint> points(FigureSearch search, int64_t step) const {
		std::vector<FigurePoint> points;
		for (int64_t time = search.range.from; time < search.range.to; time += step) {
			FigureSearch part = search;
			part.range = {time, time + step};
			FigurePoint point;
			point.time = time;
			for (const FigureRow &row : rows(part)) {
				point.figures.add(row.figures);
			}
			if (point.figures.count > 0) {
				points.push_back(std::move(point));
			}
		}
		return points;
	}

	std::vector<AskedCount> asked(const TimeRange &range) const {
		std::map<std::string, int64_t> sums;
		for (auto at = asked_.lower_bound(range.from); at != asked_.end() && at->first < range.to;
			 at++) {
			sums["/cart"] += at->second;
		}
		std::vector<AskedCount> counts;
		for (const auto &[name, count] : sums) {
			counts.push_back({"shop", name, count, 0});
		}
		return counts;
	}

	/* The next engine knows what a file has kept of this one. */
	void restart(const std::vector<AlertRule> &rules) {
		kaq_test::Directory directory;
		std::string file = directory.path() + "/alerts";
		ASSERT_TRUE(kaq::write_rows(file, kaq::rows_of({engine_->memory(), {}})));
		engine_.emplace(source_);
		engine_->use(rules);
		engine_->recall(kaq::read_alerts(file).memory);
	}

	int64_t now_ = kNow;
	std::map<int64_t, std::map<std::pair<std::string, std::string>, Figures>> minutes_;
	std::map<int64_t, int64_t> asked_;
	const FigureSource source_{
		[this](const FigureSearch &search) { return rows(search); },
		[this](const FigureSearch &search, int64_t step) { return points(search, step); },
		[this](const TimeRange &range) { return asked(range); }};
	std::optional<AlertEngine> engine_{source_};
};

TEST_F(AlertsTest, AboveItsLimitForItsMinutesItIsSaidOnce) {
	engine_->use({rule(800, std::nullopt)});
	EXPECT_TRUE(pass(figures_of(10, 0, 1400)).empty());
	EXPECT_TRUE(pass(figures_of(10, 0, 1400)).empty());
	std::vector<Alert> alerts = pass(figures_of(10, 0, 1400));
	ASSERT_EQ(alerts.size(), 1u);
	EXPECT_EQ(alerts[0].since, kNow);
	EXPECT_FALSE(alerts[0].is_over);
	EXPECT_NEAR(alerts[0].value, 1400, 14);
	EXPECT_EQ(alerts[0].text.find("p95 of shop /cart is 1."), 0u) << alerts[0].text;
	EXPECT_NE(alerts[0].text.find(", above the limit of 800 ms"), std::string::npos)
		<< alerts[0].text;
	for (int i = 0; i < 10; i++) {
		EXPECT_TRUE(pass(figures_of(10, 0, 1400)).empty());
	}
}

TEST_F(AlertsTest, ItIsSaidOnceThatItIsOver) {
	engine_->use({rule(800, std::nullopt)});
	for (int i = 0; i < 3; i++) {
		pass(figures_of(10, 0, 1400));
	}
	EXPECT_TRUE(pass(figures_of(10, 0, 100)).empty());
	EXPECT_TRUE(pass(figures_of(10, 0, 1400)).empty());
	EXPECT_TRUE(pass(figures_of(10, 0, 100)).empty());
	EXPECT_TRUE(pass(figures_of(10, 0, 100)).empty());
	std::vector<Alert> alerts = pass(figures_of(10, 0, 100));
	ASSERT_EQ(alerts.size(), 1u);
	EXPECT_TRUE(alerts[0].is_over);
	EXPECT_EQ(alerts[0].text, "p95 of shop /cart is 100 ms again, after 5 m 00 s");
	EXPECT_TRUE(pass(figures_of(10, 0, 100)).empty());
	EXPECT_TRUE(pass(figures_of(10, 0, 1400)).empty());
}

TEST_F(AlertsTest, AMinuteInItsRangeBeginsAnew) {
	engine_->use({rule(800, std::nullopt)});
	for (int i = 0; i < 20; i++) {
		EXPECT_TRUE(pass(figures_of(10, 0, i % 3 == 2 ? 100 : 1400)).empty()) << i;
	}
}

TEST_F(AlertsTest, AMinuteWithoutRequestsIsNeither) {
	engine_->use({rule(800, std::nullopt)});
	pass(figures_of(10, 0, 1400));
	EXPECT_TRUE(pass().empty());
	EXPECT_EQ(pass(figures_of(10, 0, 1400)).size(), 1u);
}

TEST_F(AlertsTest, OneOrTwoRequestsShowNothing) {
	engine_->use({rule(800, std::nullopt)});
	pass(figures_of(1, 0, 1400));
	EXPECT_TRUE(pass().empty());
	EXPECT_TRUE(pass(figures_of(1, 0, 1400)).empty());
	EXPECT_EQ(pass(figures_of(1, 0, 1400)).size(), 1u);
}

TEST_F(AlertsTest, OnlyWhatTheRuleMatchesIsLookedAt) {
	AlertRule other = rule(800, std::nullopt);
	other.transaction = "/pay*";
	engine_->use({other});
	for (int i = 0; i < 3; i++) {
		put(now_, figures_of(10, 0, 1400), "/payment");
		std::vector<Alert> alerts = pass(figures_of(10, 0, 1400));
		ASSERT_EQ(alerts.size(), i == 2 ? 1u : 0u);
		if (i == 2) {
			EXPECT_EQ(alerts[0].transaction, "/payment");
		}
	}
}

TEST_F(AlertsTest, ErrorsAreAShareOfTheRequests) {
	engine_->use({rule(0.1, std::nullopt, AlertMetric::kErrorShare)});
	for (int i = 0; i < 5; i++) {
		EXPECT_TRUE(pass(figures_of(10, 1, 100)).empty());
	}
	pass(figures_of(10, 2, 100));
	pass(figures_of(10, 2, 100));
	std::vector<Alert> alerts = pass(figures_of(10, 2, 100));
	ASSERT_EQ(alerts.size(), 1u);
	EXPECT_DOUBLE_EQ(alerts[0].value, 0.2);
	EXPECT_EQ(alerts[0].text.find("the share of failed requests of shop /cart is 20 % since "), 0u)
		<< alerts[0].text;
}

TEST_F(AlertsTest, WhatIsUsualIsThatOfTheSameHoursOfEarlierDays) {
	for (int day = 1; day <= 3; day++) {
		put_past(kNow - day * kDay - kHour, kNow - day * kDay, figures_of(5, 0, 180));
		put_past(kNow - day * kDay, kNow - day * kDay + kHour, figures_of(5, 0, 220));
	}
	/* Another hour is another matter. */
	put_past(kNow - 6 * kHour, kNow - 4 * kHour, figures_of(5, 0, 5000));
	engine_->use({rule(std::nullopt, 2)});
	for (int i = 0; i < 5; i++) {
		EXPECT_TRUE(pass(figures_of(10, 0, 400)).empty());
	}
	pass(figures_of(10, 0, 500));
	pass(figures_of(10, 0, 500));
	std::vector<Alert> alerts = pass(figures_of(10, 0, 500));
	ASSERT_EQ(alerts.size(), 1u);
	EXPECT_NEAR(alerts[0].usual.low, 180, 2);
	EXPECT_NEAR(alerts[0].usual.high, 220, 3);
	EXPECT_FALSE(alerts[0].usual.is_limit);
	EXPECT_NE(alerts[0].text.find(", usually 1"), std::string::npos) << alerts[0].text;
	EXPECT_NE(alerts[0].text.find(" ms to 2"), std::string::npos) << alerts[0].text;
}

TEST_F(AlertsTest, WithoutEarlierDaysItIsTheLastDay) {
	put_past(kNow - 3 * kHour, kNow - kHour, figures_of(5, 0, 200));
	engine_->use({rule(std::nullopt, 2)});
	EXPECT_TRUE(pass(figures_of(10, 0, 500)).empty());
	EXPECT_TRUE(pass(figures_of(10, 0, 500)).empty());
	EXPECT_EQ(pass(figures_of(10, 0, 500)).size(), 1u);
}

TEST_F(AlertsTest, WhereNothingIsUsualNothingIsUnusual) {
	engine_->use({rule(std::nullopt, 2)});
	for (int i = 0; i < 20; i++) {
		EXPECT_TRUE(pass(figures_of(10, 0, 5000)).empty());
	}
}

TEST_F(AlertsTest, AMultipleOfAlmostNothingIsNothing) {
	put_past(kNow - kDay - kHour, kNow - kDay + kHour, figures_of(5, 0, 1));
	engine_->use({rule(std::nullopt, 2), rule(std::nullopt, 2, AlertMetric::kErrorShare)});
	for (int i = 0; i < 5; i++) {
		EXPECT_TRUE(pass(figures_of(1000, 20, 20)).empty());
	}
	pass(figures_of(1000, 21, 21));
	pass(figures_of(1000, 21, 21));
	EXPECT_EQ(pass(figures_of(1000, 21, 21)).size(), 2u);
}

TEST_F(AlertsTest, ARateMayAlsoFall) {
	for (int64_t time = kNow - kDay - kHour; time < kNow - kDay + kHour; time += kMinute) {
		asked_[time] = 100;
	}
	for (int64_t time = kNow - kDay; time < kNow; time += kMinute) {
		asked_[time] = 100;
	}
	engine_->use({rule(std::nullopt, 2, AlertMetric::kRate)});
	/* One in ten is recorded, and all are counted. */
	asked_[now_] = 100;
	EXPECT_TRUE(pass(figures_of(10, 0, 10)).empty());
	std::vector<Alert> alerts;
	for (int i = 0; i < 3; i++) {
		EXPECT_TRUE(alerts.empty());
		alerts = pass();
	}
	ASSERT_EQ(alerts.size(), 1u);
	EXPECT_EQ(alerts[0].value, 0);
	EXPECT_EQ(alerts[0].text.find("shop /cart has 0 requests a minute since "), 0u)
		<< alerts[0].text;
	EXPECT_NE(alerts[0].text.find(", usually 100"), std::string::npos) << alerts[0].text;
}

TEST_F(AlertsTest, AMinuteIsLookedAtOnce) {
	engine_->use({rule(800, std::nullopt)});
	put(now_, figures_of(10, 0, 1400));
	now_ += kMinute;
	for (int i = 0; i < 5; i++) {
		EXPECT_TRUE(engine_->look(now_ + i * 5000).empty());
	}
	pass(figures_of(10, 0, 1400));
	EXPECT_EQ(pass(figures_of(10, 0, 1400)).size(), 1u);
}

TEST_F(AlertsTest, AClockThatIsSetBackBeginsAnew) {
	engine_->use({rule(800, std::nullopt)});
	pass(figures_of(10, 0, 1400));
	pass(figures_of(10, 0, 1400));
	now_ -= 10 * kMinute;
	EXPECT_TRUE(pass(figures_of(10, 0, 1400)).empty());
	EXPECT_TRUE(pass(figures_of(10, 0, 1400)).empty());
	EXPECT_EQ(pass(figures_of(10, 0, 1400)).size(), 1u);
}

TEST_F(AlertsTest, RulesThatStayTheSameForgetNothing) {
	engine_->use({rule(800, std::nullopt)});
	pass(figures_of(10, 0, 1400));
	pass(figures_of(10, 0, 1400));
	engine_->use({rule(800, std::nullopt)});
	EXPECT_EQ(pass(figures_of(10, 0, 1400)).size(), 1u);
	engine_->use({rule(900, std::nullopt)});
	EXPECT_TRUE(pass(figures_of(10, 0, 1400)).empty());
}

TEST_F(AlertsTest, ARestartRepeatsNothingAndForgetsNothing) {
	AlertRule one = rule(800, std::nullopt);
	engine_->use({one});
	for (int i = 0; i < 2; i++) {
		EXPECT_TRUE(pass(figures_of(10, 0, 1400)).empty());
		restart({rule(5000, std::nullopt), one});
	}
	ASSERT_EQ(pass(figures_of(10, 0, 1400)).size(), 1u);
	for (int i = 0; i < 10; i++) {
		restart({one});
		EXPECT_TRUE(pass(figures_of(10, 0, 1400)).empty());
	}
	EXPECT_TRUE(pass(figures_of(10, 0, 100)).empty());
	restart({one});
	EXPECT_TRUE(pass(figures_of(10, 0, 100)).empty());
	restart({one});
	std::vector<Alert> alerts = pass(figures_of(10, 0, 100));
	ASSERT_EQ(alerts.size(), 1u);
	EXPECT_EQ(alerts[0].text, "p95 of shop /cart is 100 ms again, after 13 m 00 s");
}

TEST_F(AlertsTest, ARestartKeepsWhatWasUsualWhileItIsNot) {
	put_past(kNow - 3 * kHour, kNow - kHour, figures_of(5, 0, 200));
	engine_->use({rule(std::nullopt, 2)});
	for (int i = 0; i < 2; i++) {
		pass(figures_of(10, 0, 500));
	}
	ASSERT_EQ(pass(figures_of(10, 0, 500)).size(), 1u);
	put_past(now_, now_ + 10 * kHour, figures_of(10, 0, 500));
	now_ += 10 * kHour;
	restart({rule(std::nullopt, 2)});
	for (int i = 0; i < 10; i++) {
		EXPECT_TRUE(pass(figures_of(10, 0, 500)).empty());
	}
	pass(figures_of(10, 0, 200));
	pass(figures_of(10, 0, 200));
	ASSERT_EQ(pass(figures_of(10, 0, 200)).size(), 1u);
}

TEST_F(AlertsTest, ALongPauseIsNoPartOfTheMinutes) {
	engine_->use({rule(800, std::nullopt)});
	pass(figures_of(10, 0, 1400));
	pass(figures_of(10, 0, 1400));
	now_ += kHour;
	restart({rule(800, std::nullopt)});
	EXPECT_TRUE(pass(figures_of(10, 0, 1400)).empty());
	EXPECT_TRUE(pass(figures_of(10, 0, 1400)).empty());
	EXPECT_EQ(pass(figures_of(10, 0, 1400)).size(), 1u);
}

TEST_F(AlertsTest, RulesThatAreAddedOrChangedForgetNothingOfTheOthers) {
	AlertRule other = rule(0.5, std::nullopt, AlertMetric::kErrorShare);
	engine_->use({rule(800, std::nullopt)});
	pass(figures_of(10, 0, 1400));
	pass(figures_of(10, 0, 1400));
	engine_->use({other, rule(800, std::nullopt)});
	EXPECT_EQ(pass(figures_of(10, 0, 1400)).size(), 1u);
	engine_->use({rule(800, std::nullopt)});
	EXPECT_TRUE(pass(figures_of(10, 0, 1400)).empty());
}

TEST_F(AlertsTest, AFileKeepsWhateverTheyHold) {
	kaq_test::Directory directory;
	std::string file = directory.path() + "/alerts";
	kaq::KeptAlerts kept;
	kept.memory.last = kNow;
	kept.memory.states.push_back({"a\n\tb%0A+ \xff", "", "\t", 1, 2, 3, true, {0.1, 1e300}});
	kept.posts = {{"http://a/?b=%20+", "{\"a\":\n1}"}};
	ASSERT_TRUE(kaq::write_rows(file, rows_of(kept)));
	kaq::KeptAlerts read = kaq::read_alerts(file);
	EXPECT_EQ(rows_of(read), rows_of(kept));
	EXPECT_EQ(read.memory.states[0].usual.low, 0.1);
	EXPECT_EQ(read.posts[0].body, kept.posts[0].body);
	std::ofstream(file) << "state\t1\n\nlast\nlast\t7\nx\n";
	EXPECT_EQ(kaq::read_alerts(file).memory.last, 7);
	EXPECT_EQ(kaq::read_alerts(file + "2").memory.last, 0);
}

TEST_F(AlertsTest, AsItIsPosted) {
	Alert alert;
	alert.text = "x\xff";
	alert.application = "shop";
	alert.transaction = "/a&b";
	alert.value = 1400;
	alert.usual = {180, 220, false, true};
	alert.since = 5;
	nlohmann::json json = nlohmann::json::parse(kaq::to_json(alert, "http://127.0.0.1:1"));
	EXPECT_EQ(json["metric"], "p95");
	EXPECT_EQ(json["usual"]["low"], 180);
	EXPECT_EQ(json["usual"]["high"], 220);
	EXPECT_EQ(json["since_ms"], 5);
	EXPECT_EQ(json["recovered"], false);
	EXPECT_EQ(json["link"], "http://127.0.0.1:1/?app=shop&txn=%2Fa%26b&from=5");
	alert.usual = {0, 800, true, true};
	EXPECT_EQ(nlohmann::json::parse(kaq::to_json(alert, ""))["usual"]["limit"], 800);
}

} // namespace
