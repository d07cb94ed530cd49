#include "util/kaq_strings.h"

#include <limits.h>
#include <memory>
#include <stdlib.h>
#include <string.h>
#include <string>

#include <gtest/gtest.h>

namespace {

std::string cut(const char *text, int start, int end) {
	char *copy = substr(text, start, end);
	std::string result = copy == nullptr ? "(null)" : copy;
	free(copy);
	return result;
}

/* Within a block of exactly the text's bytes, without a NUL. */
int find_in(const std::string &text, const char *needle) {
	std::unique_ptr<char[]> block(new char[text.size()]);
	memcpy(block.get(), text.data(), text.size());
	return strncaseidx(block.get(), needle, text.size());
}

} // namespace

TEST(Strcaseidx, FirstOccurrence) {
	EXPECT_EQ(0, strcaseidx("abcabc", "abc"));
	EXPECT_EQ(2, strcaseidx("xxabcabc", "abc"));
	EXPECT_EQ(3, strcaseidx("abxabc", "abc"));
	EXPECT_EQ(2, strcaseidx("aaab", "ab"));
	EXPECT_EQ(5, strcaseidx("hello!", "!"));
}

TEST(Strcaseidx, CaseDoesNotMatter) {
	EXPECT_EQ(1, strcaseidx("xHeAd", "head"));
	EXPECT_EQ(1, strcaseidx("xhead", "HEAD"));
	EXPECT_EQ(0, strcaseidx("AZ", "az"));
}

TEST(Strcaseidx, OnlyLettersAreFolded) {
	EXPECT_EQ(-1, strcaseidx("@", "`"));
	EXPECT_EQ(-1, strcaseidx("[", "{"));
	EXPECT_EQ(-1, strcaseidx("\xc4", "\xe4"));
	EXPECT_EQ(0, strcaseidx("\xc3\xa4", "\xc3\xa4"));
}

TEST(Strcaseidx, AbsentIsMinusOne) {
	EXPECT_EQ(-1, strcaseidx("abc", "abd"));
	EXPECT_EQ(-1, strcaseidx("ab", "abc"));
	EXPECT_EQ(-1, strcaseidx("", "a"));
}

TEST(Strcaseidx, EmptyNeedleIsFoundAtZeroIsMeant) {
	EXPECT_EQ(0, strcaseidx("abc", ""));
	EXPECT_EQ(0, strcaseidx("", ""));
}

TEST(Strcaseidx, NullIsMinusOne) {
	EXPECT_EQ(-1, strcaseidx(nullptr, "a"));
	EXPECT_EQ(-1, strcaseidx("a", nullptr));
}

TEST(Strncaseidx, FirstOccurrenceRegardlessOfCase) {
	EXPECT_EQ(0, find_in("abcabc", "ABC"));
	EXPECT_EQ(2, find_in("xxAbC", "aBc"));
	EXPECT_EQ(-1, find_in("xxAbC", "abd"));
}

TEST(Strncaseidx, WholeOccurrenceLiesWithinTheLength) {
	EXPECT_EQ(3, strncaseidx("xyzabc", "abc", 6));
	EXPECT_EQ(-1, strncaseidx("xyzabc", "abc", 5));
	EXPECT_EQ(-1, strncaseidx("xyzabc", "abc", 3));
}

TEST(Strncaseidx, EmptyNeedleIsMinusOneIsMeant) {
	EXPECT_EQ(-1, strncaseidx("abc", "", 3));
	EXPECT_EQ(-1, strncaseidx("", "", 0));
}

TEST(Strncaseidx, NeedleLongerThanTheLengthIsMinusOne) {
	EXPECT_EQ(-1, strncaseidx("abc", "abc", 2));
	EXPECT_EQ(-1, strncaseidx("abc", "a", 0));
}

TEST(Strncaseidx, NulBytesArePassedOver) {
	EXPECT_EQ(3, find_in(std::string("a\0bhead", 7), "HEAD"));
}

TEST(Strncaseidx, NullIsMinusOne) {
	EXPECT_EQ(-1, strncaseidx(nullptr, "a", 0));
	EXPECT_EQ(-1, strncaseidx("a", nullptr, 1));
}

TEST(Substr, EndIsExclusive) {
	EXPECT_EQ("bc", cut("abcde", 1, 3));
	EXPECT_EQ("abcde", cut("abcde", 0, 5));
	EXPECT_EQ("", cut("abcde", 2, 2));
}

TEST(Substr, StopsAtTheTextsEnd) {
	EXPECT_EQ("de", cut("abcde", 3, 100));
	EXPECT_EQ("abcde", cut("abcde", 0, INT_MAX));
}

TEST(Substr, StartAtOrBehindTheEndIsEmpty) {
	EXPECT_EQ("", cut("abc", 3, 5));
	EXPECT_EQ("", cut("abc", 100, 200));
	EXPECT_EQ("", cut("", 0, 10));
}

TEST(Substr, NegativeOrReversedIsNull) {
	EXPECT_EQ("(null)", cut("abc", -1, 2));
	EXPECT_EQ("(null)", cut("abc", 0, -1));
	EXPECT_EQ("(null)", cut("abc", 2, 1));
	EXPECT_EQ("(null)", cut(nullptr, 0, 1));
}

TEST(Strdup, CopiesOnTheHeap) {
	char text[] = "abc";
	char *copy = kaq_strdup(text);
	text[0] = 'x';
	EXPECT_STREQ("abc", copy);
	free(copy);
	char *empty = kaq_strdup("");
	EXPECT_STREQ("", empty);
	free(empty);
}

TEST(Strdup, NullInNullOut) {
	EXPECT_EQ(nullptr, kaq_strdup(nullptr));
}

TEST(CopyBounded, FitsOrIsCut) {
	char dst[4];
	kaq_copy_bounded(dst, sizeof dst, "ab");
	EXPECT_STREQ("ab", dst);
	kaq_copy_bounded(dst, sizeof dst, "abc");
	EXPECT_STREQ("abc", dst);
	kaq_copy_bounded(dst, sizeof dst, "abcd");
	EXPECT_STREQ("abc", dst);
}

TEST(CopyBounded, EmptyAndNullGiveAnEmptyText) {
	char dst[4] = "xyz";
	kaq_copy_bounded(dst, sizeof dst, "");
	EXPECT_STREQ("", dst);
	dst[0] = 'x';
	kaq_copy_bounded(dst, sizeof dst, nullptr);
	EXPECT_STREQ("", dst);
}

TEST(CopyBounded, SourceIsNotReadBehindTheCut) {
	std::unique_ptr<char[]> src(new char[3]);
	memcpy(src.get(), "abc", 3);
	char dst[4];
	kaq_copy_bounded(dst, sizeof dst, src.get());
	EXPECT_STREQ("abc", dst);
}

TEST(CopyBounded, SmallestCapacities) {
	char dst[2] = "x";
	kaq_copy_bounded(dst, 0, "abc");
	EXPECT_STREQ("x", dst);
	kaq_copy_bounded(dst, 1, "abc");
	EXPECT_STREQ("", dst);
	kaq_copy_bounded(nullptr, 5, "abc");
}
