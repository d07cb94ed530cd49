#include <gtest/gtest.h>

#include <string>

#include "util/budgeted_buffer.h"

using kaq::BudgetedBuffer;
using kaq::MemoryBudget;

TEST(BudgetedBuffer, HoldsWhatWasAppended) {
	MemoryBudget budget(1 << 20);
	BudgetedBuffer buffer(budget);
	std::string all;
	for (int i = 0; i < 100; i++) {
		std::string piece(static_cast<size_t>(i) * 13, static_cast<char>('a' + i % 26));
		ASSERT_TRUE(buffer.append(piece));
		all += piece;
	}
	EXPECT_EQ(all, buffer.bytes());
	EXPECT_LE(budget.left(), (1 << 20) - all.size());
}

TEST(BudgetedBuffer, GivesEverythingBack) {
	MemoryBudget budget(1 << 20);
	{
		BudgetedBuffer buffer(budget);
		ASSERT_TRUE(buffer.append(std::string(100000, 'x')));
		BudgetedBuffer other(budget);
		ASSERT_TRUE(other.append("y"));
		other = std::move(buffer);
		EXPECT_EQ(100000u, other.bytes().size());
		BudgetedBuffer third(std::move(other));
		EXPECT_EQ(100000u, third.bytes().size());
	}
	EXPECT_EQ(size_t(1) << 20, budget.left());
}

/* Whoever reads 64 KiB at a time gets as far as the budget, but for one piece. */
TEST(BudgetedBuffer, OneCanHaveTheWholeBudget) {
	MemoryBudget budget(10 << 20);
	BudgetedBuffer buffer(budget);
	const std::string piece(1 << 16, 'x');
	size_t all = 0;
	while (buffer.append(piece)) {
		all += piece.size();
	}
	EXPECT_EQ(size_t{10} << 20, all);
	EXPECT_EQ(std::string(all, 'x'), buffer.bytes());
	buffer.clear();
	EXPECT_EQ(size_t{10} << 20, budget.left());
}

TEST(BudgetedBuffer, RefusesWhatTheBudgetDoesNotHaveAndKeepsTheRest) {
	MemoryBudget budget(40000);
	BudgetedBuffer buffer(budget);
	ASSERT_TRUE(buffer.append(std::string(10000, 'x')));
	EXPECT_FALSE(buffer.append(std::string(50000, 'y')));
	EXPECT_EQ(std::string(10000, 'x'), buffer.bytes());
	BudgetedBuffer other(budget);
	EXPECT_FALSE(other.append(std::string(30000, 'z')));
	buffer.clear();
	EXPECT_TRUE(other.append(std::string(10000, 'z')));
}
