#include <gtest/gtest.h>

#include "ingest/request_metrics.h"

namespace {

using namespace kaq;

Summary summary(const std::string &name, int64_t duration, bool is_failed = false) {
	Summary summary;
	summary.application = "shop";
	summary.name = name;
	summary.duration = duration;
	summary.is_failed = is_failed;
	return summary;
}

TEST(RequestMetricsTest, CountByTransaction) {
	RequestMetrics metrics;
	metrics.add(summary("/a", 5));
	metrics.add(summary("/a", 6, true));
	metrics.add(summary("/b", 30001));
	auto all = metrics.requests();
	ASSERT_EQ(2u, all.size());
	RequestSeries a = all.at({"shop", "/a"});
	EXPECT_EQ(2u, a.requests);
	EXPECT_EQ(1u, a.failed);
	EXPECT_EQ(11u, a.milliseconds);
	EXPECT_EQ(1u, a.buckets[0]); /* to 5 ms */
	EXPECT_EQ(1u, a.buckets[1]); /* to 10 ms */
	RequestSeries b = all.at({"shop", "/b"});
	EXPECT_EQ(1u, b.requests);
	for (uint64_t count : b.buckets) {
		EXPECT_EQ(0u, count);
	}
}

TEST(RequestMetricsTest, CountWhatIsTooMuchAsOne) {
	RequestMetrics metrics({2, 1, 100});
	for (const char *name : {"/a", "/b", "/c", "/d", "/a"}) {
		metrics.add(summary(name, 1));
	}
	auto all = metrics.requests();
	ASSERT_EQ(3u, all.size());
	EXPECT_EQ(2u, all.at({"shop", "/a"}).requests);
	EXPECT_EQ(2u, all.at({"(other)", "(other)"}).requests);
	metrics.add({{"shop", "/a", "i", 10, 5, 1}, {"blog", "/", "i", 2, 2, 0}});
	metrics.add({{"shop", "/b", "i", 1, 1, 0}, {"wiki", "/", "i", 3, 0, 0}});
	auto asked = metrics.asked();
	ASSERT_EQ(2u, asked.size());
	EXPECT_EQ(11u, asked.at("shop").asked);
	EXPECT_EQ(6u, asked.at("shop").monitored);
	EXPECT_EQ(1u, asked.at("shop").shed);
	EXPECT_EQ(5u, asked.at("(other)").asked);
}

std::map<std::string, uint64_t> by_method(const RequestMetrics &metrics) {
	std::map<std::string, uint64_t> counts;
	for (const auto &[key, series] : metrics.series()) {
		counts[key.method + " " + std::to_string(key.status)] += series.requests;
	}
	return counts;
}

Summary web_request(const std::string &method, int64_t status) {
	Summary one = summary("/a", 1);
	one.is_web = true;
	one.method = method;
	one.status = status;
	return one;
}

/* A visitor chooses the method. */
TEST(RequestMetricsTest, TellMethodsAndStatusesApart) {
	RequestMetrics metrics;
	metrics.add(web_request("GET", 200));
	metrics.add(web_request("GET", 404));
	metrics.add(web_request("POST", 200));
	metrics.add(web_request("BREW", 200));
	metrics.add(web_request("get", 200));
	EXPECT_EQ(by_method(metrics),
			  (std::map<std::string, uint64_t>{
				  {"GET 200", 1}, {"GET 404", 1}, {"POST 200", 1}, {"_OTHER 200", 2}}));
	EXPECT_EQ(5u, metrics.requests().at({"shop", "/a"}).requests);
}

TEST(RequestMetricsTest, TellThemApartNoMoreWhereThereAreTooMany) {
	RequestMetrics metrics({500, 100, 2});
	for (int64_t status : {200, 201, 202, 203, 200}) {
		metrics.add(web_request("GET", status));
	}
	EXPECT_EQ(by_method(metrics),
			  (std::map<std::string, uint64_t>{{"GET 200", 2}, {"GET 201", 1}, {" 0", 2}}));
}

} // namespace
