#include "ingest/pipeline.h"

#include <gtest/gtest.h>

#include <future>
#include <stdexcept>
#include <vector>

using kaq::BudgetedBuffer;
using kaq::MemoryBudget;
using kaq::Notice;
using kaq::PayloadError;
using kaq::Pipeline;
using kaq::Transaction;

/* {"apm":{"application_info":{},"transaction_info":{"t_name":"/a"},"method_info":
 * {"span_info":[{"si":"b"}]}}} */
static const std::string kLine =
	"eyJhcG0iOnsiYXBwbGljYXRpb25faW5mbyI6e30sInRyYW5zYWN0aW9uX2luZm8iOnsidF9uYW1lIjoiL2EifSwi"
	"bWV0aG9kX2luZm8iOnsic3Bhbl9pbmZvIjpbeyJzaSI6ImIifV19fX0=\n";

class Lines : public testing::Test {
protected:
	MemoryBudget budget{16 << 20};
	std::vector<std::string> names;
	std::vector<std::string> normalised;
	std::unique_ptr<Pipeline> pipeline = std::make_unique<Pipeline>(
		kaq::PipelineSettings(), [this](const std::shared_ptr<const Transaction> &transaction) {
			names.emplace_back(transaction->name);
			normalised.emplace_back(transaction->normalised_name);
		});

	bool send(const std::string &bytes) {
		BudgetedBuffer buffer(budget);
		EXPECT_TRUE(buffer.append(bytes));
		return pipeline->accept(std::move(buffer));
	}

	/* Waits until all that was sent has been read. */
	const kaq::PipelineCounts &settle(uint64_t wanted) {
		const auto &counts = pipeline->counts();
		auto seen = [&counts] {
			uint64_t all = counts.transactions + counts.incomplete;
			for (const auto &each : counts.notices) {
				all += each;
			}
			for (const auto &each : counts.errors) {
				all += each;
			}
			return all;
		};
		for (int i = 0; i < 1000 && seen() < wanted; i++) {
			std::this_thread::sleep_for(std::chrono::milliseconds(5));
		}
		EXPECT_EQ(wanted, seen());
		return counts;
	}
};

TEST_F(Lines, TransactionsReachTheSinkInOrder) {
	ASSERT_TRUE(send(kLine + kLine));
	ASSERT_TRUE(send(kLine));
	EXPECT_EQ(3u, settle(3).transactions);
	pipeline.reset();
	EXPECT_EQ((std::vector<std::string>{"/a", "/a", "/a"}), names);
	EXPECT_EQ(size_t(16) << 20, budget.left());
}

TEST_F(Lines, NoticesAreCountedByKind) {
	ASSERT_TRUE(send("message:\tRequest ended. No data collected since instance is disabled\n"
					 "message:\tNo request URI Found\nmessage:\tsomething else\n"
					 "message:\tTracking disabled for instance with application name \"a\"\n"
					 "message:\tNo request URI Found\n"));
	const auto &counts = settle(5);
	EXPECT_EQ(1u, counts.notices[static_cast<size_t>(Notice::kNotMonitored)]);
	EXPECT_EQ(2u, counts.notices[static_cast<size_t>(Notice::kNoUri)]);
	EXPECT_EQ(1u, counts.notices[static_cast<size_t>(Notice::kPortFilter)]);
	EXPECT_EQ(1u, counts.notices[static_cast<size_t>(Notice::kOther)]);
}

TEST_F(Lines, RefusalsAreCountedByReason) {
	ASSERT_TRUE(send("garbage\ne30=\nZm9v\n\n" + kLine.substr(0, 20)));
	const auto &counts = settle(5);
	EXPECT_EQ(1u, counts.errors[static_cast<size_t>(PayloadError::kNotBase64)]);
	EXPECT_EQ(1u, counts.errors[static_cast<size_t>(PayloadError::kNotATransaction)]);
	EXPECT_EQ(2u, counts.errors[static_cast<size_t>(PayloadError::kNotJson)]);
	EXPECT_EQ(1u, counts.incomplete);
}

TEST_F(Lines, WhatIsQueuedAtTheEndIsStillRead) {
	for (int i = 0; i < 200; i++) {
		ASSERT_TRUE(send(kLine));
	}
	pipeline.reset();
	EXPECT_EQ(200u, names.size());
}

TEST_F(Lines, SecretsAreGoneBeforeTheSinkSeesThem) {
	/* Of the name "/user/token=abcdef/o7" and the query string "token=abcdef". */
	ASSERT_TRUE(
		send("eyJhcG0iOnsiYXBwbGljYXRpb25faW5mbyI6e30sInRyYW5zYWN0aW9uX2luZm8iOnsidF9uYW1lIjoi"
			 "L3VzZXIvdG9rZW49YWJjZGVmL283IiwiaHR0cF9xdWVyeV9zdHIiOiJ0b2tlbj1hYmNkZWYifSwibWV0"
			 "aG9kX2luZm8iOnsic3Bhbl9pbmZvIjpbeyJzaSI6ImIifV19fX0=\n"));
	pipeline.reset();
	ASSERT_EQ(1u, names.size());
	EXPECT_EQ(std::string::npos, names[0].find("abcdef"));
	EXPECT_EQ(std::string::npos, normalised[0].find("abcdef"));
}

TEST_F(Lines, RequestsGetTheirNames) {
	/* Of the name "/user/7". */
	ASSERT_TRUE(
		send("eyJhcG0iOnsiYXBwbGljYXRpb25faW5mbyI6e30sInRyYW5zYWN0aW9uX2luZm8iOnsidF9uYW1lIjoi"
			 "L3VzZXIvNyJ9LCJtZXRob2RfaW5mbyI6eyJzcGFuX2luZm8iOlt7InNpIjoiYiJ9XX19fQ==\n"));
	pipeline.reset();
	EXPECT_EQ((std::vector<std::string>{"/user/7"}), names);
	EXPECT_EQ((std::vector<std::string>{"/user/*"}), normalised);
}

/* Whatever a payload does to its reader, the next one is read. */
TEST(Pipeline, APayloadThatFailsIsCountedAndForgotten) {
	MemoryBudget budget(1 << 20);
	int told = 0;
	auto sink = [&told](const std::shared_ptr<const Transaction> &) {
		if (++told == 1) {
			throw std::runtime_error("no memory");
		}
	};
	Pipeline pipeline({}, sink);
	BudgetedBuffer bytes(budget);
	ASSERT_TRUE(bytes.append(kLine + kLine));
	ASSERT_TRUE(pipeline.accept(std::move(bytes)));
	for (int i = 0; i < 1000 && pipeline.counts().transactions < 2; i++) {
		std::this_thread::sleep_for(std::chrono::milliseconds(5));
	}
	EXPECT_EQ(2u, pipeline.counts().transactions);
	EXPECT_EQ(1u, pipeline.counts().failed);
}

/* The first request is not done before the second one is: only two threads can do that. */
TEST(Pipeline, EachSinkHasAThreadOfItsOwn) {
	std::promise<void> second_came;
	std::atomic<int> told{0};
	auto sink = [&](const std::shared_ptr<const Transaction> &) {
		if (++told == 2) {
			second_came.set_value();
		} else {
			EXPECT_EQ(std::future_status::ready,
					  second_came.get_future().wait_for(std::chrono::seconds(30)));
		}
	};
	MemoryBudget budget(1 << 20);
	{
		Pipeline pipeline({}, std::vector<Pipeline::Sink>{sink, sink});
		for (int i = 0; i < 2; i++) {
			BudgetedBuffer bytes(budget);
			ASSERT_TRUE(bytes.append(kLine));
			ASSERT_TRUE(pipeline.accept(std::move(bytes)));
		}
	}
	EXPECT_EQ(2, told);
}
