#include "util/key_table.h"

#include <gtest/gtest.h>

#include <string>

namespace {

using kaq::KeyTable;

TEST(KeyTable, FindsEachOfItsKeysAndNoOther) {
	const KeyTable<int> table = {{"a", 1}, {"b", 2}, {"ab", 3}, {"abc", 4}, {"adc", 5}};
	ASSERT_NE(nullptr, table.find("ab"));
	EXPECT_EQ(1, *table.find("a"));
	EXPECT_EQ(2, *table.find("b"));
	EXPECT_EQ(3, *table.find("ab"));
	EXPECT_EQ(4, *table.find("abc"));
	EXPECT_EQ(5, *table.find("adc")) << "which has its first place in common with another";
	EXPECT_EQ(nullptr, table.find("aec"));
	EXPECT_EQ(nullptr, table.find("c"));
	EXPECT_EQ(nullptr, table.find(""));
}

TEST(KeyTable, TellsKeysOfOneLengthApart) {
	std::string names;
	for (char each = '!'; each < '!' + 63; each++) {
		names += each;
	}
	auto name = [&](size_t at) { return std::string_view(names).substr(at, 1); };
	const KeyTable<int> table = {
		{name(0), 0},   {name(1), 1},   {name(2), 2},   {name(3), 3},
		{name(4), 4},   {name(5), 5},   {name(6), 6},   {name(7), 7},
		{name(8), 8},   {name(9), 9},   {name(10), 10}, {name(11), 11},
		{name(12), 12}, {name(13), 13}, {name(14), 14}, {name(62), 62},
	};
	for (size_t i = 0; i < 15; i++) {
		ASSERT_NE(nullptr, table.find(name(i)));
		EXPECT_EQ(static_cast<int>(i), *table.find(name(i)));
	}
	EXPECT_EQ(62, *table.find(name(62)));
	EXPECT_EQ(nullptr, table.find(name(61)));
}

} // namespace
