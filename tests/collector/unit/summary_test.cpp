#include "analysis/summary.h"

#include <gtest/gtest.h>

#include "requests.h"

using kaq::Summary;
using kaq::Transaction;

TEST(Summarised, NameIsTheHandshakesIfThereIsOne) {
	Transaction transaction = Request("/cart/7").works(500).done();
	EXPECT_EQ("/cart/7", summarise(transaction).name);
	transaction.normalised_name = "/cart/*";
	EXPECT_EQ("/cart/*", summarise(transaction).name);
	EXPECT_EQ("/cart/7", summarise(transaction).path);
	EXPECT_EQ("span0", summarise(transaction).id);
	EXPECT_EQ(500, summarise(transaction).duration);
}

TEST(Summarised, QueriesAndCallsAreCountedWithTheirTime) {
	Request request("/");
	request.query("SELECT 1", 10).open("a").query("SELECT 2", 20).call("http://a/", 100);
	Summary summary = summarise(request.done());
	EXPECT_EQ(8, summary.spans);
	EXPECT_EQ(2, summary.queries);
	EXPECT_EQ(30, summary.query_time);
	EXPECT_EQ(1, summary.calls);
	EXPECT_EQ(100, summary.external_time);
}

TEST(Summarised, TimeWithinACallCountsOnce) {
	Request request("/");
	request.open("PDO::query", "PDO").open("PDO::query", "PDO").open("a");
	request.query("SELECT 1", 20).close().waits(10).close().waits(10).close();
	Summary summary = summarise(request.done());
	EXPECT_EQ(1, summary.queries);
	EXPECT_EQ(40, summary.query_time);
}

TEST(Summarised, TransfersCountThoughTheyLieWithinAPoll) {
	Request request("/");
	request.waits(100).open("curl_multi_exec", "HTTP").waits(1);
	request.transfer("http://a/", 90).transfer("http://b/", 80);
	Summary summary = summarise(request.done());
	EXPECT_EQ(2, summary.calls);
	EXPECT_EQ(90, summary.external_time);
}

TEST(Summarised, OnlyExecutionsAreQueries) {
	Request request("/");
	request.connect("mysql:host=a").prepare("SELECT ?", 3).execute(4).execute(4);
	request.cache("PDOStatement::fetch", 2, "PDO").last().is_external = false;
	Summary summary = summarise(request.done());
	EXPECT_EQ(2, summary.queries);
	EXPECT_EQ(14, summary.query_time);
}

TEST(Summarised, OptionCallsAreNoCalls) {
	EXPECT_EQ(0, summarise(Request("/").option("curl_setopt (10002)").done()).calls);
}

TEST(Summarised, StatusOrASeriousFailureMakesItFailed) {
	Transaction transaction = Request("/").done();
	EXPECT_FALSE(summarise(transaction).is_failed);
	transaction.status = 499;
	EXPECT_FALSE(summarise(transaction).is_failed);
	transaction.status = 500;
	EXPECT_TRUE(summarise(transaction).is_failed);
	transaction.status = 200;
	kaq::Failure failure;
	failure.level = "Warning";
	transaction.spans[0].failures = {failure};
	EXPECT_FALSE(summarise(transaction).is_failed);
	EXPECT_EQ(1, summarise(transaction).failures);
	failure.level = "Error";
	transaction.spans[0].failures.push_back(failure);
	EXPECT_TRUE(summarise(transaction).is_failed);
	EXPECT_EQ(2, summarise(transaction).failures);
}
