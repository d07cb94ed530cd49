#include "query/span_lanes.h"

#include <gtest/gtest.h>

#include "traces.h"

using namespace kaq;

namespace {

/* "lane: index depth start-end, ..." */
std::vector<std::string> lanes(const Transaction &transaction) {
	std::vector<std::string> texts;
	for (const auto &lane : lanes_of(transaction)) {
		std::string &text = texts.emplace_back();
		for (const PlacedSpan &span : lane) {
			text += (text.empty() ? "" : ", ") + std::to_string(span.index) + " at " +
					std::to_string(span.depth) + " " + std::to_string(span.start) + "-" +
					std::to_string(span.end);
		}
	}
	return texts;
}

using Texts = std::vector<std::string>;

} // namespace

TEST(SpanLanes, OneAfterTheOtherIsOneLane) {
	Transaction request = request_of(0, 100);
	add_span(request, 0, 60, 90, "c");
	add_span(request, 0, 10, 60, "a");
	add_span(request, 2, 20, 30, "b");
	EXPECT_EQ((Texts{"0 at 0 0-100, 2 at 1 10-60, 3 at 2 20-30, 1 at 1 60-90"}), lanes(request));
}

TEST(SpanLanes, WhatOverlapsIsInAnotherWithAllBelowIt) {
	Transaction request = request_of(0, 100);
	add_span(request, 0, 10, 50, "a");
	add_span(request, 0, 20, 60, "b");
	add_span(request, 2, 30, 40, "below b");
	add_span(request, 0, 30, 70, "c");
	add_span(request, 0, 70, 80, "d");
	add_span(request, 0, 75, 90, "e");
	EXPECT_EQ((Texts{"0 at 0 0-100, 1 at 1 10-50, 5 at 1 70-80",
					 "2 at 0 20-60, 3 at 1 30-40, 6 at 0 75-90", "4 at 0 30-70"}),
			  lanes(request));
}

TEST(SpanLanes, ChildrenAreBroughtIntoTheirParentsTime) {
	Transaction request = request_of(100, 200);
	add_span(request, 0, 50, 120, "early");
	add_span(request, 0, 190, 250, "late");
	add_span(request, 0, 300, 310, "after");
	add_span(request, 2, 195, 100, "ends before it starts");
	EXPECT_EQ(
		(Texts{"0 at 0 100-200, 1 at 1 100-120, 2 at 1 190-200, 4 at 2 195-195, 3 at 1 200-200"}),
		lanes(request));
}

TEST(SpanLanes, AnySpansAreNestedAndEachIsThereOnce) {
	std::mt19937 random(5);
	size_t most_lanes = 0;
	for (int i = 0; i < 2000; i++) {
		Transaction request = random_request(random);
		std::vector<int> seen(request.spans.size());
		auto all = lanes_of(request);
		most_lanes = std::max(most_lanes, all.size());
		for (const auto &lane : all) {
			std::vector<PlacedSpan> open;
			int64_t last_end = lane.front().start;
			for (const PlacedSpan &span : lane) {
				seen[span.index]++;
				ASSERT_LE(span.depth, open.size());
				for (; open.size() > span.depth; open.pop_back()) {
					last_end = std::max(last_end, open.back().end);
				}
				ASSERT_GE(span.start, last_end);
				ASSERT_GE(span.end, span.start);
				if (!open.empty()) {
					ASSERT_GE(span.start, open.back().start);
					ASSERT_LE(span.end, open.back().end);
					ASSERT_EQ(open.back().index,
							  static_cast<size_t>(request.spans[span.index].parent));
				}
				last_end = span.start;
				open.push_back(span);
			}
		}
		ASSERT_EQ(std::vector<int>(request.spans.size(), 1), seen);
	}
	EXPECT_GT(most_lanes, 3u);
}

TEST(SpanLanes, DeepAndManyEnd) {
	Transaction request = request_of(0, 100);
	for (int i = 0; i < 100000; i++) {
		add_span(request, i % 2 == 0 ? i : 0, 10, 90, "x");
	}
	size_t count = 0;
	for (const auto &lane : lanes_of(request)) {
		count += lane.size();
	}
	EXPECT_EQ(100001u, count);
}

TEST(Labels, SayWhatWasCalled) {
	Span span;
	EXPECT_EQ("(no name)", span_label(span));
	span.component = "PDO";
	EXPECT_EQ("PDO", span_label(span));
	span.name = "PDO::query";
	span.host = "db1";
	EXPECT_EQ("PDO::query: db1", span_label(span));
	span.query = "SELECT ?";
	EXPECT_EQ("PDO::query: SELECT ?", span_label(span));
	std::string longer = std::string(187, 'x') + "éé";
	span.query = longer;
	EXPECT_EQ("PDO::query: " + std::string(187, 'x') + "…", span_label(span));
}

TEST(Labels, OfARequest) {
	Transaction transaction;
	transaction.application = "Shop";
	transaction.name = "job.php";
	EXPECT_EQ("Shop job.php", request_label(transaction));
	transaction.method = "GET";
	transaction.normalised_name = "/cart/*";
	EXPECT_EQ("Shop GET /cart/*", request_label(transaction));
}
