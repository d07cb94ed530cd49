#include "analysis/summary.h"

#include <gtest/gtest.h>

using kaq::Span;
using kaq::Summary;
using kaq::Transaction;

class Summarised : public testing::Test {
protected:
	Transaction transaction;

	void SetUp() override {
		transaction.name = "/cart/7";
		transaction.start = 1000;
		transaction.end = 1500;
		add(-1, 500).id = "root";
	}

	Span &add(int parent, int64_t duration) {
		Span &span = transaction.spans.emplace_back();
		span.parent = parent;
		span.start = 1000;
		span.end = 1000 + duration;
		return span;
	}

	Span &add_query(int parent, int64_t duration) {
		Span &span = add(parent, duration);
		span.component = "PDO";
		span.query = "SELECT 1";
		return span;
	}

	Span &add_call(int parent, int64_t duration) {
		Span &span = add(parent, duration);
		span.component = "HTTP";
		span.is_external = true;
		return span;
	}
};

TEST_F(Summarised, NameIsTheHandshakesIfThereIsOne) {
	EXPECT_EQ("/cart/7", summarise(transaction).name);
	transaction.normalised_name = "/cart/*";
	EXPECT_EQ("/cart/*", summarise(transaction).name);
	EXPECT_EQ("/cart/7", summarise(transaction).path);
	EXPECT_EQ("root", summarise(transaction).id);
	EXPECT_EQ(500, summarise(transaction).duration);
}

TEST_F(Summarised, QueriesAndCallsAreCountedWithTheirTime) {
	add_query(0, 10);
	add(0, 400);
	add_query(2, 20);
	add_call(2, 100);
	Summary summary = summarise(transaction);
	EXPECT_EQ(5, summary.spans);
	EXPECT_EQ(2, summary.queries);
	EXPECT_EQ(30, summary.query_time);
	EXPECT_EQ(1, summary.calls);
	EXPECT_EQ(100, summary.external_time);
}

TEST_F(Summarised, TimeWithinACallCountsOnce) {
	add_query(0, 50);
	add_query(1, 40);
	add(2, 30);
	add_query(3, 20);
	Summary summary = summarise(transaction);
	EXPECT_EQ(3, summary.queries);
	EXPECT_EQ(50, summary.query_time);
}

TEST_F(Summarised, OptionCallsAreNoCalls) {
	add_call(0, 1).is_external = false;
	EXPECT_EQ(0, summarise(transaction).calls);
}

TEST_F(Summarised, StatusOrASeriousFailureMakesItFailed) {
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
