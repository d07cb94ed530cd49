#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <map>
#include <random>

#include "records.h"
#include "store/figure_file.h"
#include "store/schema.h"

namespace {

using namespace kaq;
using kaq_test::Directory;
using kaq_test::record;

constexpr int64_t kMinute = 60 * 1000;
constexpr int64_t kHour = 60 * kMinute;
constexpr int64_t kDay = 24 * kHour;
/* Begin of an hour. */
constexpr int64_t kNow = 472222 * kHour;

class FiguresTest : public testing::Test {
protected:
	FiguresTest() : path_(directory_.path() + "/figures.sqlite"), file_(path_) {
	}

	void put(Record one) {
		sums_.add(one, now_);
	}

	void write() {
		file_.write(sums_.take(), {});
	}

	std::map<std::string, Figures> read(const FigureSearch &search) {
		std::map<std::string, Figures> by_name;
		for (FigureRow &row : read_figures(*open_to_read(path_), search)) {
			std::string name =
				search.kind == FigureKind::kTransaction ? row.key.transaction : row.key.text;
			by_name[name].add(row.figures);
		}
		return by_name;
	}

	Directory directory_;
	std::string path_;
	FigureFile file_;
	FigureSums sums_{{}};
	int64_t now_ = kNow;
};

TEST_F(FiguresTest, AddUpWhatRequestsTell) {
	Record one = record(1, kNow);
	one.summary.cpu = 3;
	one.summary.memory = 100;
	one.summary.queries = 4;
	one.summary.query_time = 5;
	one.summary.calls = 6;
	one.summary.external_time = 7;
	put(one);
	write();
	one.summary.id = "slowest";
	one.summary.start += 5;
	one.summary.duration = 900;
	one.summary.memory = 50;
	one.summary.is_failed = true;
	put(one);
	write();
	Figures sum = read({})["/cart"];
	EXPECT_EQ(sum.requests, 2);
	EXPECT_EQ(sum.count, 2);
	EXPECT_EQ(sum.failed, 1);
	EXPECT_EQ(sum.total, 1000);
	EXPECT_EQ(sum.longest, 900);
	EXPECT_EQ(sum.cpu, 6);
	EXPECT_EQ(sum.memory, 100);
	EXPECT_EQ(sum.queries, 8);
	EXPECT_EQ(sum.query_time, 10);
	EXPECT_EQ(sum.calls, 12);
	EXPECT_EQ(sum.external_time, 14);
	EXPECT_EQ(sum.first, kNow);
	EXPECT_EQ(sum.last, kNow + 5);
	EXPECT_EQ(sum.example, "slowest");
	EXPECT_EQ(sum.durations.count(), 2u);
}

TEST_F(FiguresTest, AnApplicationIsTheSumOfItsTransactions) {
	for (int64_t i = 0; i < 100; i++) {
		Record one = record(i, kNow + i * 7 * kMinute);
		one.summary.application = i % 3 == 0 ? "blog" : "shop";
		one.summary.name = "/page" + std::to_string(i % 7);
		one.summary.duration = i * i;
		one.summary.is_failed = i % 5 == 0;
		now_ = one.summary.start;
		put(one);
		write();
	}
	for (const char *application : {"blog", "shop"}) {
		FigureSearch search;
		search.application = application;
		Figures sum;
		for (const auto &[name, figures] : read(search)) {
			sum.add(figures);
		}
		search.kind = FigureKind::kApplication;
		std::map<std::string, Figures> found = read(search);
		ASSERT_EQ(found.size(), 1u);
		const Figures &all = found.begin()->second;
		EXPECT_GT(all.count, 30);
		EXPECT_EQ(all.count, sum.count);
		EXPECT_EQ(all.failed, sum.failed);
		EXPECT_EQ(all.total, sum.total);
		EXPECT_EQ(all.longest, sum.longest);
		EXPECT_EQ(all.example, sum.example);
		EXPECT_EQ(all.first, sum.first);
		EXPECT_EQ(all.last, sum.last);
		for (double share : {0.1, 0.5, 0.95}) {
			EXPECT_EQ(all.durations.percentile(share), sum.durations.percentile(share));
		}
	}
}

TEST_F(FiguresTest, StatementsHostsAndFailuresAreCountedWithTheirDetails) {
	Record one = record(1, kNow);
	StatementFacts statement;
	statement.text = "SELECT ?";
	statement.component = "PDO";
	statement.server = "db1";
	statement.database = "shop";
	statement.caller = "Cart::items";
	statement.count = 3;
	statement.failed = 1;
	statement.total = 60;
	statement.longest = 30;
	statement.durations = {10, 20, 30};
	one.facts.statements = {statement};
	HostFacts host;
	host.host = "api.example";
	host.count = 2;
	host.total = 40;
	host.longest = 30;
	host.durations = {10, 30};
	one.facts.hosts = {host};
	FailureFacts failure;
	failure.key = "k1";
	failure.type = "LogicException";
	failure.place = "/a.php:3";
	failure.message = "no *";
	failure.level = "Error";
	failure.count = 2;
	failure.is_serious = true;
	one.facts.failures = {failure};
	put(one);
	write();
	auto database = open_to_read(path_);
	FigureSearch search;
	search.kind = FigureKind::kStatement;
	std::vector<FigureRow> rows = read_figures(*database, search);
	ASSERT_EQ(rows.size(), 1u);
	EXPECT_EQ(rows[0].key.application, "shop");
	EXPECT_EQ(rows[0].key.transaction, "/cart");
	EXPECT_EQ(rows[0].key.text, "SELECT ?");
	EXPECT_EQ(rows[0].key.details,
			  (std::array<std::string, 4>{"PDO", "db1", "shop", "Cart::items"}));
	EXPECT_EQ(rows[0].figures.requests, 1);
	EXPECT_EQ(rows[0].figures.count, 3);
	EXPECT_EQ(rows[0].figures.failed, 1);
	EXPECT_EQ(rows[0].figures.total, 60);
	EXPECT_EQ(rows[0].figures.durations.count(), 3u);
	EXPECT_EQ(rows[0].figures.example, one.summary.id);
	search.kind = FigureKind::kHost;
	rows = read_figures(*database, search);
	ASSERT_EQ(rows.size(), 1u);
	EXPECT_EQ(rows[0].key.text, "api.example");
	EXPECT_EQ(rows[0].figures.longest, 30);
	search.kind = FigureKind::kFailure;
	rows = read_figures(*database, search);
	ASSERT_EQ(rows.size(), 1u);
	EXPECT_EQ(rows[0].key.details[2], "no *");
	EXPECT_EQ(rows[0].figures.count, 2);
	EXPECT_EQ(rows[0].figures.failed, 1);
}

TEST_F(FiguresTest, EveryRangeHasExactlyTheRequestsOfItsMinutes) {
	std::mt19937_64 random(5);
	std::vector<Record> records;
	for (int i = 0; i < 3000; i++) {
		auto start = kNow - 5 * kHour + static_cast<int64_t>(random() % (6 * kHour));
		records.push_back(record(i, start));
		records.back().summary.duration = static_cast<int64_t>(random() % 1000);
		records.back().summary.name = "/" + std::to_string(random() % 7);
		now_ = kNow + kHour;
		put(records.back());
		if (i % 250 == 0) {
			write();
		}
	}
	write();
	for (int i = 0; i < 60; i++) {
		FigureSearch search;
		auto from = kNow - 6 * kHour + static_cast<int64_t>(random() % (400)) * kMinute;
		search.range = {from, from + static_cast<int64_t>(random() % 400) * kMinute};
		std::map<std::string, std::vector<int64_t>> expected;
		for (const Record &one : records) {
			if (search.range.has(one.summary.start)) {
				expected[one.summary.name].push_back(one.summary.duration);
			}
		}
		std::map<std::string, Figures> found = read(search);
		ASSERT_EQ(found.size(), expected.size()) << i;
		for (auto &[name, durations] : expected) {
			std::sort(durations.begin(), durations.end());
			EXPECT_EQ(found[name].count, static_cast<int64_t>(durations.size()));
			auto exact = static_cast<double>(
				durations[static_cast<size_t>(std::ceil(durations.size() * 0.95)) - 1]);
			EXPECT_NEAR(static_cast<double>(found[name].durations.percentile(0.95)), exact,
						exact * 0.01 + 0.5);
		}
	}
}

TEST_F(FiguresTest, ACurveHasAPointForEachStepThatHasAny) {
	now_ = kNow + kHour;
	for (int64_t start : {0L, 1L, kMinute, 5 * kMinute, 9 * kMinute, 11 * kMinute}) {
		put(record(start + 1, kNow + start));
	}
	write();
	auto points = read_curve(*open_to_read(path_), {}, 5 * kMinute);
	ASSERT_EQ(points.size(), 3u);
	EXPECT_EQ(points[0].time, kNow);
	EXPECT_EQ(points[0].figures.count, 3);
	EXPECT_EQ(points[1].time, kNow + 5 * kMinute);
	EXPECT_EQ(points[1].figures.count, 2);
	EXPECT_EQ(points[2].figures.count, 1);
	points = read_curve(*open_to_read(path_), {}, kHour);
	ASSERT_EQ(points.size(), 1u);
	EXPECT_EQ(points[0].figures.count, 6);
}

TEST_F(FiguresTest, ConditionsNameApplicationsTransactionsAndTexts) {
	Record other = record(1, kNow);
	other.summary.application = "blog";
	put(other);
	put(record(2, kNow));
	write();
	FigureSearch search;
	search.application = "blog";
	EXPECT_EQ(read(search)["/cart"].count, 1);
	search.application = "";
	EXPECT_EQ(read(search)["/cart"].count, 2);
	search.transaction = "/none";
	EXPECT_TRUE(read(search).empty());
}

TEST_F(FiguresTest, HoursStandForMinutesThatAreGone) {
	now_ = kNow + 4 * kHour;
	for (int64_t hour = 0; hour < 4; hour++) {
		for (int64_t minute : {1, 30, 59}) {
			put(record(hour * 100 + minute, kNow + hour * kHour + minute * kMinute));
		}
	}
	write();
	FigureRetention retention;
	retention.minutes = 2 * kHour;
	file_.retain(retention, kNow + 4 * kHour);
	FigureSearch search;
	EXPECT_EQ(read(search)["/cart"].count, 12);
	search.range = {kNow + 10 * kMinute, kNow + 20 * kMinute};
	EXPECT_EQ(read(search)["/cart"].count, 3) << "the whole hour, since nothing smaller is left";
	search.range = {kNow + 10 * kMinute, kNow + 2 * kHour + 31 * kMinute};
	EXPECT_EQ(read(search)["/cart"].count, 8);
	search.range = {kNow + 2 * kHour + 30 * kMinute, kNow + 3 * kHour + 2 * kMinute};
	EXPECT_EQ(read(search)["/cart"].count, 3);
	retention.hours = kHour;
	file_.retain(retention, kNow + 4 * kHour);
	EXPECT_EQ(read({})["/cart"].count, 3);
}

TEST_F(FiguresTest, AreNeverMoreThanTheirCap) {
	FigureRetention retention;
	retention.most_bytes = 600 * 1024;
	for (int64_t minute = 0; minute < 360; minute += 3) {
		now_ = kNow + minute * kMinute;
		for (int64_t name = 0; name < 50; name++) {
			Record one = record(name, kNow + minute * kMinute);
			one.summary.name = "/" + std::to_string(name);
			put(one);
		}
		write();
		file_.retain(retention, kNow + minute * kMinute);
	}
	for (int i = 0; i < 20; i++) {
		file_.retain(retention, kNow + 6 * kHour);
	}
	EXPECT_LE(bytes_of_database(path_), 700 * 1024);
	FigureSearch last;
	last.range = {kNow + 357 * kMinute, kNow + 358 * kMinute};
	EXPECT_EQ(read(last).size(), 50u) << "the newest stay";
}

TEST_F(FiguresTest, NamesThatAreTooManyAreSummedUp) {
	FigureSums sums({2, 3});
	for (int i = 0; i < 10; i++) {
		Record one = record(i, kNow);
		one.summary.name = "/" + std::to_string(i);
		sums.add(one, kNow);
		EXPECT_EQ(one.summary.name, i < 3 ? "/" + std::to_string(i) : "(other)");
	}
	EXPECT_EQ(sums.renamed(), 7);
	for (int i = 0; i < 4; i++) {
		Record one = record(i, kNow);
		one.summary.application = "app" + std::to_string(i);
		one.summary.name = "/1";
		sums.add(one, kNow);
		EXPECT_EQ(one.summary.application, i < 1 ? "app0" : "(other)");
	}
	file_.write(sums.take(), {});
	EXPECT_EQ(read({})["(other)"].count, 7);
}

TEST_F(FiguresTest, StatementsThatAreTooManyAreSummedUp) {
	FigureSums sums({10, 1});
	for (int i = 0; i < 30; i++) {
		Record one = record(i, kNow);
		StatementFacts fact;
		fact.text = "SELECT c" + std::to_string(i);
		fact.count = 1;
		one.facts.statements = {fact};
		sums.add(one, kNow);
	}
	file_.write(sums.take(), {});
	FigureSearch search;
	search.kind = FigureKind::kStatement;
	std::map<std::string, Figures> rows = read(search);
	EXPECT_EQ(rows.size(), 11u);
	EXPECT_EQ(rows["(other)"].count, 20);
}

TEST(NameCap, ANameThatStaysAwayMakesRoom) {
	NameCap cap(2);
	int64_t now = kNow;
	EXPECT_TRUE(cap.admit("a", now));
	EXPECT_TRUE(cap.admit("b", now));
	EXPECT_FALSE(cap.admit("c", now));
	now += kDay;
	EXPECT_TRUE(cap.admit("a", now));
	EXPECT_FALSE(cap.admit("c", now));
	now += kDay;
	EXPECT_TRUE(cap.admit("c", now));
	EXPECT_TRUE(cap.admit("a", now));
	EXPECT_FALSE(cap.admit("b", now));
}

TEST_F(FiguresTest, StartsThatCannotBeCountAsNow) {
	put(record(1, kNow + 3 * kDay));
	put(record(2, -5));
	put(record(3, INT64_MAX));
	write();
	FigureSearch search;
	search.range = {kNow, kNow + kMinute};
	EXPECT_EQ(read(search)["/cart"].count, 3);
}

TEST_F(FiguresTest, WhatCouldNotBeWrittenIsAddedToWhatComesNext) {
	put(record(1, kNow));
	std::vector<FigurePeriod> taken = sums_.take();
	put(record(2, kNow));
	sums_.put_back(taken);
	write();
	EXPECT_EQ(read({})["/cart"].count, 2);
	for (int64_t minute = 0; minute < 70; minute++) {
		now_ = kNow + minute * kMinute;
		Record one = record(minute, now_);
		one.summary.name = "/late";
		put(one);
		sums_.put_back(sums_.take());
	}
	std::vector<FigurePeriod> kept = sums_.take();
	ASSERT_EQ(kept.size(), FigureSums::kMostMinutes);
	EXPECT_EQ(kept.back().time, kNow + 69 * kMinute) << "the newest stay";
}

TEST_F(FiguresTest, RowsThatWaitAreBoundedHoweverTheTimesAreSpread) {
	constexpr size_t kRequests = FigureSums::kMostRows + 5000;
	for (size_t i = 0; i < kRequests; i++) {
		int64_t minute = static_cast<int64_t>(i) % 300000;
		Record one = record(static_cast<int64_t>(i), kNow - minute * kMinute);
		now_ = kNow;
		put(one);
	}
	size_t rows = 0;
	int64_t requests = 0;
	for (const FigurePeriod &period : sums_.take()) {
		rows += period.rows.size();
		for (const auto &[hash, row] : period.rows) {
			requests += row.key.kind == FigureKind::kTransaction ? row.figures.requests : 0;
		}
	}
	EXPECT_LE(rows, FigureSums::kMostRows + 10);
	EXPECT_EQ(requests, static_cast<int64_t>(kRequests)) << "and none is left out";
	put(record(1, kNow));
	EXPECT_EQ(sums_.take().size(), 1u) << "there is room again";
}

TEST_F(FiguresTest, AskedCountsAddUp) {
	file_.write({}, {{{kNow, "shop", "/cart"}, {15, 3}}});
	file_.write({}, {{{kNow + kMinute, "blog", "/"}, {7, 7}}, {{kNow, "shop", "/cart"}, {1, 1}}});
	auto counts = read_asked(*open_to_read(path_), {kNow, kNow + kMinute}, "");
	ASSERT_EQ(counts.size(), 1u);
	EXPECT_EQ(counts[0].asked, 16);
	EXPECT_EQ(counts[0].monitored, 4);
	EXPECT_EQ(read_asked(*open_to_read(path_), {}, "blog").size(), 1u);
	EXPECT_EQ(read_asked(*open_to_read(path_), {}, "").size(), 2u);
}

/* As the figures are, and no row is counted twice or lost. */
TEST_F(FiguresTest, AskedCountsAreSummedUpByTheHourWhereTheMinutesAreGone) {
	AskedSums asked;
	for (int64_t minute = 0; minute < 4 * 60; minute++) {
		asked[{kNow + minute * kMinute, "shop", "/cart"}] = {10, 1};
		asked[{kNow + minute * kMinute, "shop", "/"}] = {1, 1};
	}
	file_.write({}, asked);
	FigureRetention retention;
	retention.minutes = 2 * kHour;
	auto rows = [this] {
		return open_to_read(path_)->execAndGet("SELECT count(*) FROM asked").getInt64();
	};
	auto asked_in = [this](int64_t from, int64_t to) {
		int64_t sum = 0;
		for (const AskedCount &each : read_asked(*open_to_read(path_), {from, to}, "shop")) {
			sum += each.asked;
		}
		return sum;
	};
	EXPECT_EQ(asked_in(kNow + 30 * kMinute, kNow + 4 * kHour), 11 * 210);
	file_.retain(retention, kNow + 4 * kHour);
	EXPECT_EQ(rows(), 2 * (2 + 120));
	EXPECT_EQ(asked_in(0, kNow + 100 * kHour), 11 * 240);
	EXPECT_EQ(asked_in(kNow, kNow + kHour), 11 * 60);
	EXPECT_EQ(asked_in(kNow + 30 * kMinute, kNow + 40 * kMinute), 11 * 60) << "the whole hour";
	EXPECT_EQ(asked_in(kNow + 3 * kHour, kNow + 3 * kHour + 5 * kMinute), 11 * 5);
	/* What comes late is added to what is there. */
	file_.write({}, {{{kNow + 5 * kMinute, "shop", "/cart"}, {100, 0}}});
	file_.retain(retention, kNow + 4 * kHour);
	EXPECT_EQ(rows(), 2 * (2 + 120));
	EXPECT_EQ(asked_in(kNow, kNow + kHour), 11 * 60 + 100);
	retention.hours = 3 * kHour;
	file_.retain(retention, kNow + 4 * kHour + 2);
	EXPECT_EQ(asked_in(0, kNow + 100 * kHour), 11 * 180);
}

TEST_F(FiguresTest, AskedCountsAreNeverMoreThanTheCapEither) {
	FigureRetention retention;
	retention.most_bytes = 1024 * 1024;
	for (int64_t hour = 0; hour < 10; hour++) {
		AskedSums asked;
		for (int64_t minute = 0; minute < 60; minute++) {
			for (int64_t name = 0; name < 60; name++) {
				asked[{kNow + hour * kHour + minute * kMinute, "shop",
					   "/some/page/number/" + std::to_string(name)}] = {1, 1};
			}
		}
		file_.write({}, asked);
		now_ = kNow + hour * kHour;
		put(record(hour, now_));
		write();
	}
	int64_t end = kNow + 10 * kHour;
	ASSERT_GT(bytes_of_database(path_), 1500 * 1024);
	for (int i = 0; i < 5; i++) {
		file_.retain(retention, end);
	}
	EXPECT_LE(bytes_of_database(path_), 1024 * 1024);
	EXPECT_EQ(read({})["/cart"].count, 10) << "the hours stay";
	int64_t asked = 0;
	for (const AskedCount &each : read_asked(*open_to_read(path_), {0, end}, "shop")) {
		asked += each.asked;
	}
	EXPECT_EQ(asked, 10 * 60 * 60);
	FigureSearch last;
	last.range = {end - kHour, end - kHour + kMinute};
	EXPECT_EQ(read(last)["/cart"].count, 1);
}

} // namespace
