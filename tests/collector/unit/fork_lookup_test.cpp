/* What the processes of a fork report comes to what they did. */
#include "ingest/fork_lookup.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <optional>
#include <random>

#include "requests.h"
#include "store/figure_sums.h"
#include "store/record.h"

namespace {

using namespace kaq;

constexpr int64_t kNow = 1795264027000;

/*
 * A job makes a call and a statement for each piece of work, and forks a process for it, which runs
 * another statement. `piece` is that of the child; -1: the parent, with so many pieces.
 */
Transaction process(int piece, int pieces) {
	Request request("job.php", false);
	request.connect("mysql:host=db1;dbname=jobs").open("Job::run");
	for (int i = 0; i <= (piece < 0 ? pieces - 1 : piece); i++) {
		request.query("SELECT next FROM job", 2).call("http://queue/", 3, 503);
		request.open("Job::start").fails("E", "m", "Warning").close().works(1);
	}
	if (piece >= 0) {
		request.query("UPDATE job SET done = 1", 5 + piece);
	}
	Transaction transaction = request.close().done();
	transaction.application = "Jobs";
	transaction.thread = 1000 + piece;
	return transaction;
}

class ForkLookupTest : public testing::Test {
protected:
	void put(const Transaction &transaction) {
		Record record = record_of(transaction, forks_->repeated(transaction));
		sums_.add(record, kNow);
	}

	/* By the first word of the text, which is empty for transactions. */
	std::map<std::string, Figures> figures() {
		std::map<std::string, Figures> figures;
		for (const FigurePeriod &period : sums_.take()) {
			for (const auto &[hash, row] : period.rows) {
				FigureKind kind = row.key.kind;
				std::string text = kind == FigureKind::kFailure       ? "failure"
								   : kind == FigureKind::kApplication ? "application"
																	  : row.key.text;
				figures[text.substr(0, text.find(' '))].add(row.figures);
			}
		}
		return figures;
	}

	std::optional<ForkLookup> forks_{std::in_place};
	FigureSums sums_{{}};
};

TEST_F(ForkLookupTest, WhatHappenedBeforeTheForkCountsOnceInAnyOrder) {
	std::mt19937 random(7);
	for (int round = 0; round < 20; round++) {
		constexpr int kPieces = 20;
		std::vector<int> order;
		for (int piece = -1; piece < kPieces; piece++) {
			order.push_back(piece);
		}
		if (round == 1) {
			std::reverse(order.begin(), order.end());
		} else if (round > 1) {
			std::shuffle(order.begin(), order.end(), random);
		}

		forks_.emplace();
		for (int piece : order) {
			put(process(piece, kPieces));
		}
		std::map<std::string, Figures> sums = figures();
		EXPECT_EQ(sums["SELECT"].count, kPieces) << round;
		EXPECT_EQ(sums["SELECT"].total, 2 * kPieces);
		EXPECT_EQ(sums["UPDATE"].count, kPieces);
		EXPECT_EQ(sums["queue"].count, kPieces);
		EXPECT_EQ(sums["queue"].failed, kPieces);
		EXPECT_EQ(sums["failure"].count, kPieces);
		EXPECT_EQ(sums[""].count, kPieces + 1);
		EXPECT_EQ(sums[""].queries, 2 * kPieces);
		EXPECT_EQ(sums[""].calls, kPieces);
		EXPECT_EQ(sums[""].external_time, 3 * kPieces);
		EXPECT_EQ(sums["application"].queries, 2 * kPieces);
		EXPECT_EQ(sums[""].query_time, 1 + 2 * kPieces + 5 * kPieces + kPieces * (kPieces - 1) / 2);
	}
}

TEST_F(ForkLookupTest, TheConnectionBeforeTheForkStillTellsTheServer) {
	put(process(-1, 2));
	figures();
	put(process(1, 2));
	std::vector<FigurePeriod> periods = sums_.take();
	ASSERT_EQ(periods.size(), 1u);
	for (const auto &[hash, row] : periods[0].rows) {
		if (row.key.kind == FigureKind::kStatement) {
			EXPECT_EQ(row.key.text, "UPDATE job SET done = ?");
			EXPECT_EQ(row.key.details[1], "db1");
		}
	}
}

TEST_F(ForkLookupTest, OtherRequestsRepeatNothing) {
	Transaction one = process(-1, 3);
	EXPECT_TRUE(forks_->repeated(one).empty());
	Transaction other = process(-1, 3);
	other.trace_id = "another";
	other.thread = 7;
	EXPECT_TRUE(forks_->repeated(other).empty());
	/* Of the same process there is no child. */
	std::vector<bool> again = forks_->repeated(one);
	EXPECT_EQ(std::count(again.begin(), again.end(), true), 0);
	one.is_web = true;
	one.thread = 8;
	EXPECT_TRUE(forks_->repeated(one).empty());
}

TEST_F(ForkLookupTest, RemembersABoundedNumberOfSpans) {
	ForkLookup small(1000);
	Transaction first = process(0, 1);
	small.repeated(first);
	for (int i = 0; i < 500; i++) {
		Transaction other = process(0, 1);
		std::string id = "trace" + std::to_string(i);
		other.trace_id = id;
		EXPECT_TRUE(small.repeated(other).empty());
		other.thread++;
		EXPECT_FALSE(small.repeated(other).empty());
	}
	first.thread++;
	EXPECT_TRUE(small.repeated(first).empty());
}

} // namespace
