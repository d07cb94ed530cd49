#include <gtest/gtest.h>

#include <set>

#include "figure_services.h"

namespace {

using namespace kaq;
using namespace kaq_test;
using nlohmann::json;

constexpr const char *kTop = "/api/v1/top";
constexpr double kRounding = 1e-4; /* of shares and rates */

/* What the records of one transaction tell. */
struct Recomputed {
	std::vector<int64_t> durations;
	int64_t total = 0;
	int64_t failed = 0;
	int64_t queries = 0;
	int64_t query_time = 0;
	int64_t external_time = 0;
	int64_t cpu = 0;
	int64_t memory = 0;
	int64_t longest = -1;
	std::set<std::string> slowest; /* several may be as slow */

	void add(const Summary &summary) {
		if (summary.duration > longest) {
			longest = summary.duration;
			slowest.clear();
		}
		if (summary.duration == longest) {
			slowest.insert(summary.id);
		}
		durations.push_back(summary.duration);
		total += summary.duration;
		failed += summary.is_failed ? 1 : 0;
		queries += summary.queries;
		query_time += summary.query_time;
		external_time += summary.external_time;
		cpu += summary.cpu;
		memory = std::max(memory, summary.memory);
	}

	double count() const {
		return static_cast<double>(durations.size());
	}

	double apdex(double threshold) const {
		double sum = 0;
		for (int64_t duration : durations) {
			auto value = static_cast<double>(duration);
			sum += value <= threshold ? 1 : value <= 4 * threshold ? 0.5 : 0;
		}
		return sum / count();
	}
};

class TopServicesTest : public FigureServicesTest {
protected:
	void put_random(int64_t count) {
		for (int64_t i = 0; i < count; i++) {
			Record one = record(i + 1, kNow - random(kMinute, 50 * kMinute));
			one.summary.application = random(0, 3) == 0 ? "blog" : "shop";
			one.summary.name = "/page" + std::to_string(random(0, 4));
			one.summary.duration = random_duration();
			one.summary.is_failed = random(0, 9) == 0;
			one.summary.queries = random(0, 30);
			one.summary.query_time = random(0, 50);
			one.summary.external_time = random(0, 70);
			one.summary.cpu = random(0, 20);
			one.summary.memory = random(1000, 2000000);
			put_record(one);
		}
		settle();
	}

	void put_asked(const std::vector<AskedCount> &counts, int64_t time = kNow - kMinute) {
		store().put_asked(time, counts);
		settle();
	}

	void put_some(const std::string &name, int64_t count, int64_t duration) {
		for (int64_t i = 0; i < count; i++) {
			Record one = record(++number_, kNow - kMinute);
			one.summary.name = name;
			one.summary.duration = duration;
			put_record(one);
		}
		settle();
	}

	int64_t number_ = 0;
};

TEST_F(TopServicesTest, TellWhatTheRecordsTell) {
	put_random(3000);
	std::map<std::pair<std::string, std::string>, Recomputed> expected;
	double all = 0;
	for (const Record &one : records_) {
		expected[{one.summary.application, one.summary.name}].add(one.summary);
		all += static_cast<double>(one.summary.duration);
	}
	json top = ask(kTop, {{"apdex", "200"}});
	ASSERT_EQ(expected.size(), top.at("transactions").size());
	double minutes = top.at("range").at("minutes");
	for (const json &row : top.at("transactions")) {
		const Recomputed &one = expected.at({row.at("application"), row.at("transaction")});
		SCOPED_TRACE(row.dump());
		expect_percentiles(row, one.durations);
		EXPECT_EQ(one.durations.size(), row.at("requests"));
		EXPECT_EQ(one.durations.size(), row.at("recorded"));
		EXPECT_EQ(one.failed, row.at("failed"));
		EXPECT_EQ(one.memory, row.at("memory_bytes"));
		EXPECT_EQ(1u, one.slowest.count(row.at("slowest")));
		EXPECT_TRUE(row.at("monitored_share").is_null());
		for (auto [name, value] :
			 {std::pair("calls_per_minute", one.count() / minutes),
			  {"mean_ms", static_cast<double>(one.total) / one.count()},
			  {"error_share", static_cast<double>(one.failed) / one.count()},
			  {"queries_per_request", static_cast<double>(one.queries) / one.count()},
			  {"database_ms", static_cast<double>(one.query_time) / one.count()},
			  {"external_ms", static_cast<double>(one.external_time) / one.count()},
			  {"cpu_ms", static_cast<double>(one.cpu) / one.count()},
			  {"time_share", static_cast<double>(one.total) / all}}) {
			EXPECT_NEAR(value, row.at(name).get<double>(), kRounding) << name;
		}
		/* The threshold lies within a bucket, whose ends are 2 % apart. */
		EXPECT_GE(row.at("apdex").get<double>(), one.apdex(200) - kRounding);
		EXPECT_LE(row.at("apdex").get<double>(), one.apdex(200 * 1.02) + kRounding);
	}
}

TEST_F(TopServicesTest, TellNoPercentileBeyondTheLongest) {
	for (int64_t duration : {500, 777, 1000, 3119, 12345}) {
		put_some("/" + std::to_string(duration), 3, duration);
	}
	json rows = ask(kTop).at("transactions");
	ASSERT_EQ(5u, rows.size());
	for (const json &row : rows) {
		EXPECT_LE(row.at("p50_ms"), row.at("longest_ms")) << row;
		EXPECT_LE(row.at("p99_ms"), row.at("longest_ms")) << row;
	}
}

TEST_F(TopServicesTest, SumUpAllOfThem) {
	put_random(1000);
	Recomputed all;
	for (const Record &one : records_) {
		all.add(one.summary);
	}
	json total = ask(kTop, {{"limit", "1"}}).at("total");
	expect_percentiles(total, all.durations);
	EXPECT_EQ(1000, total.at("requests"));
	EXPECT_EQ(all.failed, total.at("failed"));
	EXPECT_EQ(1u, all.slowest.count(total.at("slowest")));
	EXPECT_DOUBLE_EQ(1, total.at("time_share"));
}

TEST_F(TopServicesTest, CountApdexByItsThreshold) {
	for (int64_t duration : {100, 400, 1600, 9000}) {
		put_some("/a", 1, duration);
	}
	auto apdex = [this](const Parameters &parameters) {
		return ask(kTop, parameters).at("transactions").at(0).at("apdex").get<double>();
	};
	EXPECT_DOUBLE_EQ(0.625, apdex({}));                 /* 1 1 0.5 0 */
	EXPECT_DOUBLE_EQ(0.375, apdex({{"apdex", "150"}})); /* 1 0.5 0 0 */
	EXPECT_DOUBLE_EQ(0.125, apdex({{"apdex", "50"}}));  /* 0.5 0 0 0 */
	EXPECT_EQ(400, answer(kTop, {{"apdex", "0"}}).status);
	EXPECT_EQ(400, answer(kTop, {{"apdex", "fast"}}).status);
}

TEST_F(TopServicesTest, CountRequestsAtTheirHandshakes) {
	put_some("/a", 20, 100);
	put_some("/b", 50, 10);
	put_asked({{"shop", "/a", 200, 20}, {"shop", "/b", 50, 50}, {"shop", "/health", 900, 0}});
	json top = ask(kTop);
	json a = row_of(top.at("transactions"), "transaction", "/a");
	EXPECT_EQ(200, a.at("requests"));
	EXPECT_EQ(20, a.at("recorded"));
	EXPECT_TRUE(a.at("exact"));
	EXPECT_DOUBLE_EQ(0.1, a.at("monitored_share"));
	/* All requests took 200 * 100 ms, those of the other 50 * 10. */
	EXPECT_NEAR(20000.0 / 20500, a.at("time_share").get<double>(), kRounding);
	EXPECT_NEAR(200 / top.at("range").at("minutes").get<double>(),
				a.at("calls_per_minute").get<double>(), kRounding);
	EXPECT_DOUBLE_EQ(1, row_of(top.at("transactions"), "transaction", "/b").at("monitored_share"));
	json health = row_of(top.at("transactions"), "transaction", "/health");
	EXPECT_EQ(900, health.at("requests"));
	EXPECT_EQ(0, health.at("recorded"));
	EXPECT_TRUE(health.at("p95_ms").is_null());
	EXPECT_TRUE(health.at("apdex").is_null());
	EXPECT_EQ(1150, top.at("total").at("requests"));
	json shop = row_of(top.at("applications"), "application", "shop");
	EXPECT_EQ(1150, shop.at("requests"));
	EXPECT_EQ(70, shop.at("monitored"));
}

TEST_F(TopServicesTest, ShareOutAPathOfSeveralTransactions) {
	put_some("/index.php?route=/a", 30, 100);
	put_some("/index.php?route=/b", 10, 100);
	put_some("nightly report", 10, 100);
	put_asked({{"shop", "/index.php", 400, 40}, {"shop", "/report.php", 10, 10}});
	json top = ask(kTop).at("transactions");
	json a = row_of(top, "transaction", "/index.php?route=/a");
	EXPECT_EQ(300, a.at("requests"));
	EXPECT_FALSE(a.at("exact"));
	EXPECT_DOUBLE_EQ(0.1, a.at("monitored_share"));
	EXPECT_EQ(100, row_of(top, "transaction", "/index.php?route=/b").at("requests"));
	EXPECT_EQ(10, row_of(top, "transaction", "nightly report").at("requests"));
	EXPECT_EQ(3u, top.size());
}

TEST_F(TopServicesTest, EstimateWhatHasAnotherNameThanItsPath) {
	put_some("/a", 5, 100);
	put_some("nightly report", 20, 100);
	put_asked({{"shop", "/a", 5, 5}, {"shop", "/report.php", 80, 20}});
	json top = ask(kTop).at("transactions");
	json report = row_of(top, "transaction", "nightly report");
	EXPECT_EQ(80, report.at("requests"));
	EXPECT_FALSE(report.at("exact"));
	EXPECT_DOUBLE_EQ(0.25, report.at("monitored_share"));
	EXPECT_TRUE(row_of(top, "transaction", "/a").at("exact"));
	EXPECT_EQ(2u, top.size());
}

TEST_F(TopServicesTest, TellOfWhatIsStillToBeRecorded) {
	put_some("/a", 5, 100);
	put_asked({{"shop", "/a", 5, 5}, {"shop", "/slow", 4, 2}});
	json slow = row_of(ask(kTop).at("transactions"), "transaction", "/slow");
	EXPECT_EQ(4, slow.at("requests"));
	EXPECT_EQ(0, slow.at("recorded"));
	EXPECT_DOUBLE_EQ(0.5, slow.at("monitored_share"));
	EXPECT_TRUE(slow.at("p50_ms").is_null());
}

TEST_F(TopServicesTest, NeverTellFewerRequestsThanWereRecorded) {
	put_some("/a", 20, 100);
	put_asked({{"shop", "/a", 10, 10}});
	EXPECT_EQ(20, ask(kTop).at("transactions").at(0).at("requests"));
}

TEST_F(TopServicesTest, SortByWhatIsWanted) {
	put_random(1500);
	for (auto [sort, member] : {std::pair("time", "total_ms"),
								{"requests", "requests"},
								{"p50", "p50_ms"},
								{"p95", "p95_ms"},
								{"p99", "p99_ms"},
								{"longest", "longest_ms"},
								{"errors", "error_share"},
								{"queries", "queries_per_request"},
								{"database", "database_ms"},
								{"external", "external_ms"}}) {
		json rows = ask(kTop, {{"sort", sort}}).at("transactions");
		ASSERT_EQ(10u, rows.size());
		for (size_t i = 1; i < rows.size(); i++) {
			EXPECT_GE(rows[i - 1].at(member), rows[i].at(member)) << sort;
		}
		json first = ask(kTop, {{"sort", sort}, {"limit", "3"}});
		EXPECT_TRUE(first.at("more"));
		EXPECT_EQ(json(rows.begin(), rows.begin() + 3), first.at("transactions")) << sort;
	}
	json worst = ask(kTop, {{"sort", "apdex"}}).at("transactions");
	for (size_t i = 1; i < worst.size(); i++) {
		EXPECT_LE(worst[i - 1].at("apdex"), worst[i].at("apdex"));
	}
	EXPECT_FALSE(ask(kTop, {{"limit", "10"}}).at("more"));
}

TEST_F(TopServicesTest, SayWhatItCanBeSortedBy) {
	Answer wrong = answer(kTop, {{"sort", "p59"}});
	EXPECT_EQ(400, wrong.status);
	EXPECT_EQ("sort", wrong.body.at("error").at("parameter"));
	EXPECT_EQ("did you mean p50?", wrong.body.at("error").at("hint"));
}

TEST_F(TopServicesTest, TellOfTheTransactionsThatAreAskedFor) {
	put_random(500);
	put_asked({{"shop", "/health", 7, 0}, {"blog", "/health", 8, 0}});
	auto names = [this](const Parameters &parameters) {
		std::set<std::string> names;
		json top = ask(kTop, parameters);
		for (const json &row : top.at("transactions")) {
			names.insert(row.at("application").get<std::string>() + " " +
						 row.at("transaction").get<std::string>());
		}
		return names;
	};
	EXPECT_EQ((std::set<std::string>{"blog /page3", "shop /page3"}), names({{"txn", "/page3"}}));
	EXPECT_EQ((std::set<std::string>{"blog /page3"}), names({{"txn", "/*3"}, {"app", "Blog"}}));
	EXPECT_EQ(6u, names({{"app", "shop"}}).size());
	/* An application's name is no pattern. */
	EXPECT_TRUE(names({{"app", "sh*"}}).empty());
	json one = ask(kTop, {{"app", "blog"}});
	ASSERT_EQ(1u, one.at("applications").size());
	EXPECT_EQ(8, one.at("applications").at(0).at("requests"));
	EXPECT_DOUBLE_EQ(1, one.at("total").at("time_share"));
	EXPECT_LT(ask(kTop, {{"app", "blog"}, {"txn", "/page1"}}).at("total").at("time_share"), 1);
}

TEST_F(TopServicesTest, TellOfTheRangeThatIsAskedFor) {
	Record early = record(1, kNow - 90 * kMinute);
	put(early, "");
	put_some("/late", 3, 100);
	EXPECT_EQ(1u, ask(kTop).at("transactions").size());
	EXPECT_EQ(2u, ask(kTop, {{"from", "2h"}}).at("transactions").size());
	json before = ask(kTop, {{"from", "2h"}, {"to", "1h"}});
	ASSERT_EQ(1u, before.at("transactions").size());
	EXPECT_EQ("/cart", before.at("transactions").at(0).at("transaction"));
	EXPECT_EQ(400, answer(kTop, {{"from", "1h"}, {"to", "2h"}}).status);
}

TEST_F(TopServicesTest, CountTheMinutesFromTheCollectorsFirst) {
	put_some("/a", 10, 100); /* a minute before kNow */
	now_ = kNow + 4 * kMinute;
	EXPECT_DOUBLE_EQ(5, ask(kTop).at("range").at("minutes"));
	EXPECT_DOUBLE_EQ(2, ask(kTop).at("transactions").at(0).at("calls_per_minute"));
	/* It was there before: nobody asked for an hour. */
	put_asked({{"shop", "/a", 1, 1}}, kNow - 3 * kHour);
	now_ = kNow + 4 * kMinute;
	EXPECT_DOUBLE_EQ(60, ask(kTop).at("range").at("minutes"));
}

TEST_F(TopServicesTest, TellOfNothing) {
	json top = ask(kTop);
	EXPECT_TRUE(top.at("transactions").empty());
	EXPECT_EQ(0, top.at("total").at("requests"));
	EXPECT_TRUE(top.at("total").at("p95_ms").is_null());
	EXPECT_FALSE(top.at("more"));
}

class CurveTest : public TopServicesTest {};

TEST_F(CurveTest, TellEachStep) {
	put_random(2000);
	constexpr int64_t kStep = 10 * kMinute;
	std::map<int64_t, Recomputed> expected;
	for (const Record &one : records_) {
		if (one.summary.application == "shop") {
			expected[one.summary.start - one.summary.start % kStep].add(one.summary);
		}
	}
	json curve = ask("/api/v1/curve", {{"app", "shop"}, {"step", std::to_string(kStep)}});
	EXPECT_EQ(kStep, curve.at("step_ms"));
	ASSERT_EQ(expected.size(), curve.at("points").size());
	for (const json &point : curve.at("points")) {
		const Recomputed &one = expected.at(point.at("time_ms"));
		expect_percentiles(point, one.durations);
		EXPECT_EQ(one.durations.size(), point.at("count"));
		EXPECT_EQ(one.failed, point.at("failed"));
		EXPECT_EQ(one.total, point.at("total_ms"));
		EXPECT_EQ(one.query_time, point.at("database_ms"));
	}
}

TEST_F(CurveTest, TellOfOneTransactionOrHost) {
	put_some("/a", 3, 100);
	put_some("/a/*", 4, 100);
	Record caller = record(100, kNow - kMinute);
	HostFacts host;
	host.host = "api";
	host.count = 5;
	host.durations = {1, 2, 3, 4, 5};
	caller.facts.hosts = {host};
	put_record(caller);
	settle();
	auto count = [this](const Parameters &parameters) {
		int64_t count = 0;
		json curve = ask("/api/v1/curve", parameters);
		for (const json &point : curve.at("points")) {
			count += point.at("count").get<int64_t>();
		}
		return count;
	};
	EXPECT_EQ(8, count({}));
	EXPECT_EQ(4, count({{"txn", "/a/*"}}));
	EXPECT_EQ(5, count({{"kind", "host"}, {"text", "api"}}));
	EXPECT_EQ(0, count({{"kind", "host"}, {"text", "other"}}));
}

TEST_F(CurveTest, ChooseAStepAndRefuseSuchAsCannotBe) {
	const char *path = "/api/v1/curve";
	EXPECT_EQ(kMinute, ask(path).at("step_ms"));
	EXPECT_EQ(24 * kMinute, ask(path, {{"from", "1d"}}).at("step_ms"));
	EXPECT_EQ(3 * kHour, ask(path, {{"from", "7d"}}).at("step_ms"));
	EXPECT_EQ(400, answer(path, {{"step", "61000"}}).status);
	EXPECT_EQ(400, answer(path, {{"step", "30000"}}).status);
	EXPECT_EQ(400, answer(path, {{"from", "100d"}, {"step", "60000"}}).status);
	EXPECT_EQ(400, answer(path, {{"kind", "weather"}}).status);
}

} // namespace
