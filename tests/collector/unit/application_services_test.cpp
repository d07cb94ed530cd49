#include <gtest/gtest.h>

#include "figure_services.h"
#include "model/document.h"
#include "requests.h"

namespace {

using namespace kaq;
using namespace kaq_test;
using nlohmann::json;

class ApplicationServicesTest : public FigureServicesTest {
protected:
	void put_one(const std::string &application, const std::string &name, int64_t start,
				 int64_t duration, const std::string &host = "shop.example") {
		Record one = record(++number_, start);
		one.summary.application = application;
		one.summary.name = name;
		one.summary.duration = duration;
		one.summary.is_failed = duration >= 1000;
		one.host = host;
		put_record(one);
	}

	void put_random(int64_t count) {
		for (int64_t i = 0; i < count; i++) {
			put_one(random(0, 2) == 0 ? "blog" : "shop", "/page" + std::to_string(random(0, 3)),
					kNow - random(kMinute, 50 * kMinute), random_duration(),
					random(0, 1) == 0 ? "a.example" : "b.example");
		}
		settle();
	}

	/* Durations of the records that pass. */
	template <typename Test> std::vector<int64_t> durations_of(Test test) const {
		std::vector<int64_t> durations;
		for (const Record &one : records_) {
			if (test(one)) {
				durations.push_back(one.summary.duration);
			}
		}
		return durations;
	}

	int64_t number_ = 0;
};

TEST_F(ApplicationServicesTest, TellWhatTheRecordsTell) {
	put_random(2000);
	json answer = ask("/api/v1/applications", {{"step", "300000"}});
	ASSERT_EQ(2u, answer.at("applications").size());
	for (const json &row : answer.at("applications")) {
		std::string name = row.at("application");
		SCOPED_TRACE(name);
		auto is_own = [&name](const Record &one) { return one.summary.application == name; };
		expect_percentiles(row, durations_of(is_own));
		EXPECT_EQ(durations_of(is_own).size(), row.at("requests"));
		for (const json &point : row.at("points")) {
			int64_t begin = point.at("time_ms");
			EXPECT_EQ(0, begin % 300000);
			std::vector<int64_t> within = durations_of([&](const Record &one) {
				int64_t start = one.summary.start;
				return is_own(one) && start >= begin && start < begin + 300000;
			});
			ASSERT_EQ(within.size(), point.at("count"));
			expect_percentiles(point, within);
			auto failed = std::count_if(within.begin(), within.end(),
										[](int64_t duration) { return duration >= 1000; });
			EXPECT_EQ(failed, point.at("failed"));
		}
	}
}

TEST_F(ApplicationServicesTest, TheLongestTimeComesFirst) {
	put_one("a", "/", kNow - kMinute, 10);
	put_one("b", "/", kNow - kMinute, 900);
	put_one("c", "/", kNow - kMinute, 100);
	settle();
	json answer = ask("/api/v1/applications", {{"limit", "2"}});
	EXPECT_EQ("b", answer.at("applications").at(0).at("application"));
	EXPECT_EQ("c", answer.at("applications").at(1).at("application"));
	EXPECT_EQ(2u, answer.at("applications").size());
	EXPECT_TRUE(answer.at("more"));
}

TEST_F(ApplicationServicesTest, APointHasItsApdex) {
	put_one("a", "/", kNow - 2 * kMinute, 100);
	put_one("a", "/", kNow - 2 * kMinute, 1500);
	settle();
	json points = ask("/api/v1/curve", {{"app", "a"}, {"step", "60000"}}).at("points");
	ASSERT_EQ(1u, points.size());
	EXPECT_DOUBLE_EQ(0.75, points.at(0).at("apdex"));
	points = ask("/api/v1/curve", {{"app", "a"}, {"step", "60000"}, {"apdex", "50"}}).at("points");
	EXPECT_DOUBLE_EQ(0.25, points.at(0).at("apdex"));
}

TEST_F(ApplicationServicesTest, AHostNarrowsTransactions) {
	put_random(1500);
	json top = ask("/api/v1/top", {{"host", "a.example"}}).at("transactions");
	ASSERT_FALSE(top.empty());
	for (const json &row : top) {
		std::vector<int64_t> expected = durations_of([&row](const Record &one) {
			return one.host == "a.example" && one.summary.name == row.at("transaction") &&
				   one.summary.application == row.at("application");
		});
		EXPECT_EQ(expected.size(), row.at("requests"));
		expect_percentiles(row, expected);
	}
	EXPECT_TRUE(ask("/api/v1/top", {{"host", "c.example"}}).at("transactions").empty());
}

TEST_F(ApplicationServicesTest, AQueryNarrowsTransactionsAndTheirCurves) {
	put_random(1500);
	auto is_slow = [](const Record &one) {
		return one.summary.duration > 300 && one.summary.application == "shop" &&
			   one.host == "b.example";
	};
	Parameters narrow = {{"q", "app:shop >300ms"}, {"host", "b.example"}};
	json top = ask("/api/v1/top", narrow);
	EXPECT_EQ(durations_of(is_slow).size(), top.at("total").at("requests"));
	EXPECT_FALSE(top.at("partial"));
	json points = ask("/api/v1/curve", narrow).at("points");
	size_t count = 0;
	for (const json &point : points) {
		count += point.at("count").get<size_t>();
	}
	EXPECT_EQ(durations_of(is_slow).size(), count);
	EXPECT_EQ(400, answer("/api/v1/top", {{"q", "nothing:"}}).status);
}

TEST_F(ApplicationServicesTest, WhatIsPinnedCountsOnce) {
	put_one("a", "/", kNow - kMinute, 100);
	settle();
	ASSERT_TRUE(store().pin(records_.front().summary.id));
	EXPECT_EQ(1, ask("/api/v1/top", {{"q", "app:a"}}).at("total").at("requests"));
	EXPECT_EQ(1, ask("/api/v1/hosts").at("hosts").at(0).at("requests"));
}

TEST_F(ApplicationServicesTest, RowsHaveCurves) {
	put_random(1000);
	json top = ask("/api/v1/top", {{"step", "600000"}});
	EXPECT_EQ(600000, top.at("step_ms"));
	for (const json &row : top.at("transactions")) {
		int64_t count = 0;
		int64_t total = 0;
		for (const json &step : row.at("curve")) {
			EXPECT_EQ(0, step.at(0).get<int64_t>() % 600000);
			count += step.at(1).get<int64_t>();
			total += step.at(4).get<int64_t>();
		}
		EXPECT_EQ(row.at("recorded"), count);
		EXPECT_NEAR(row.at("mean_ms").get<double>() * static_cast<double>(count),
					static_cast<double>(total), 1);
	}
	EXPECT_FALSE(ask("/api/v1/top").at("transactions").at(0).contains("curve"));
}

TEST_F(ApplicationServicesTest, GroupsHaveCurvesOfAllTheirTransactions) {
	for (const char *name : {"/a", "/b"}) {
		Record one = record(++number_, kNow - kMinute);
		one.summary.name = name;
		StatementFacts fact;
		fact.text = "SELECT ?";
		fact.count = 3;
		fact.total = fact.longest = 30;
		fact.durations = {10, 10, 10};
		one.facts.statements.push_back(fact);
		put_record(one);
	}
	settle();
	json rows = ask("/api/v1/queries", {{"step", "60000"}}).at("statements");
	ASSERT_EQ(1u, rows.size());
	ASSERT_EQ(1u, rows.at(0).at("curve").size());
	EXPECT_EQ(6, rows.at(0).at("curve").at(0).at(1));
	EXPECT_EQ(60, rows.at(0).at("curve").at(0).at(4));
}

TEST_F(ApplicationServicesTest, DurationsAreInTheirBuckets) {
	for (int64_t duration : {0, 1, 4, 12, 12, 25, 250, 6000}) {
		put_one("a", "/", kNow - kMinute, duration);
	}
	settle();
	json answer = ask("/api/v1/durations", {{"app", "a"}});
	EXPECT_EQ(8, answer.at("count"));
	std::map<std::pair<int64_t, int64_t>, int64_t> found;
	for (const json &bucket : answer.at("buckets")) {
		found[{bucket.at("from_ms"), bucket.at("to_ms")}] = bucket.at("count");
	}
	std::map<std::pair<int64_t, int64_t>, int64_t> expected = {
		{{0, 1}, 1},   {{1, 2}, 1},     {{3, 5}, 1},      {{10, 15}, 2},
		{{20, 30}, 1}, {{200, 300}, 1}, {{5000, 7000}, 1}};
	EXPECT_EQ(expected, found);
	EXPECT_TRUE(ask("/api/v1/durations", {{"app", "b"}}).at("buckets").empty());
}

TEST_F(ApplicationServicesTest, HostsAreNamedByApplication) {
	put_one("a", "/", kNow - kMinute, 1, "one.example");
	put_one("a", "/", kNow - kMinute, 1, "one.example");
	put_one("b", "/", kNow - kMinute, 1, "two.example");
	put_one("b", "/", kNow - 2 * kHour, 1, "old.example");
	settle();
	json hosts = ask("/api/v1/hosts").at("hosts");
	ASSERT_EQ(2u, hosts.size());
	EXPECT_EQ((json{{"application", "a"}, {"host", "one.example"}, {"requests", 2}}), hosts.at(0));
	EXPECT_EQ((json{{"application", "b"}, {"host", "two.example"}, {"requests", 1}}), hosts.at(1));
	EXPECT_EQ(1u, ask("/api/v1/hosts", {{"app", "b"}}).at("hosts").size());
}

/* A call of 40 ms with two statements of 10, then 20 ms of code. */
TEST_F(ApplicationServicesTest, AProfileAddsUpTheStoredRequests) {
	for (int64_t i = 0; i < 3; i++) {
		Request request("/cart");
		request.open("Cart::items");
		request.query("SELECT a FROM item WHERE id=1", 10);
		request.query("SELECT a FROM item WHERE id=2", 10);
		Transaction transaction = request.runs("sort", 20).close().runs("render", 20).done();
		Record one = record(++number_, kNow - kMinute * (i + 1));
		one.summary.duration = transaction.duration();
		put(one, to_document(transaction));
	}
	settle();
	json answer = ask("/api/v1/profile", {{"app", "shop"}, {"txn", "/cart"}});
	EXPECT_EQ(3, answer.at("requests"));
	std::map<std::string, json> rows;
	for (const json &row : answer.at("rows")) {
		rows[row.at("name")] = row;
	}
	const json &root = answer.at("rows").at(0);
	EXPECT_EQ(-1, root.at("parent"));
	EXPECT_EQ(answer.at("duration_ms"), root.at("total_ms"));
	const json &items = rows.at("Cart::items");
	EXPECT_EQ(0, items.at("parent"));
	EXPECT_EQ(3, items.at("count"));
	EXPECT_EQ(60, rows.at("render").at("total_ms"));
	json statement;
	for (const json &row : answer.at("rows")) {
		statement = row.value("detail", "") == "SELECT a FROM item WHERE id=?" ? row : statement;
	}
	ASSERT_FALSE(statement.is_null()) << answer.dump();
	EXPECT_EQ(6, statement.at("count"));
	EXPECT_EQ(60, statement.at("total_ms"));
	EXPECT_EQ("database", statement.at("layer"));
	EXPECT_EQ(60, answer.at("layers").at("database"));
	int64_t requests = 0;
	for (const json &point : answer.at("points")) {
		requests += point.at("requests").get<int64_t>();
	}
	EXPECT_EQ(3, requests);
	EXPECT_EQ(0, ask("/api/v1/profile", {{"txn", "/none"}}).at("requests"));
}

TEST_F(ApplicationServicesTest, AProfileTellsWaitingOnlyWhereItIsKnown) {
	for (Serving serving : {Serving::kOneAtATime, Serving::kThreads, Serving::kUnknown}) {
		Request request("/wait");
		Transaction transaction = request.works(30).waits(50).done();
		Record one = record(++number_, kNow - kMinute);
		one.summary.name = "/wait " + std::to_string(number_);
		one.serving = serving;
		put(one, to_document(transaction));
		settle();
		json answer = ask("/api/v1/profile", {{"txn", one.summary.name}, {"from", "2h"}});
		EXPECT_EQ(1, answer.at("requests"));
		EXPECT_EQ(serving == Serving::kOneAtATime ? 50 : 0, answer.at("waiting_ms"));
		EXPECT_EQ(80, answer.at("layers").at("code"));
	}
}

} // namespace
