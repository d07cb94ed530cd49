/* Base64 and UTF-8. */
#include <gtest/gtest.h>

#include "util/base64.h"
#include "util/utf8.h"

using kaq::decode_base64;
using kaq::replace_invalid_utf8;

TEST(Base64, KnownTexts) {
	EXPECT_EQ("", decode_base64(""));
	EXPECT_EQ("f", decode_base64("Zg=="));
	EXPECT_EQ("fo", decode_base64("Zm8="));
	EXPECT_EQ("foo", decode_base64("Zm9v"));
	EXPECT_EQ("foobar", decode_base64("Zm9vYmFy"));
	EXPECT_EQ(std::string("\0\xff\xfe", 3), decode_base64("AP/+"));
}

TEST(Base64, EveryCharacterOfTheAlphabetCounts) {
	std::string bytes;
	for (int i = 0; i < 256; i++) {
		bytes += static_cast<char>(i);
	}
	EXPECT_EQ(
		bytes,
		decode_base64("AAECAwQFBgcICQoLDA0ODxAREhMUFRYXGBkaGxwdHh8gISIjJCUmJygpKissLS4vMDEyMzQ1Njc4"
					  "OTo7PD0+P0BBQkNERUZHSElKS0xNTk9QUVJTVFVWV1hZWltcXV5fYGFiY2RlZmdoaWprbG1ub3Bx"
					  "cnN0dXZ3eHl6e3x9fn+AgYKDhIWGh4iJiouMjY6PkJGSk5SVlpeYmZqbnJ2en6ChoqOkpaanqKmq"
					  "q6ytrq+wsbKztLW2t7i5uru8vb6/wMHCw8TFxsfIycrLzM3Oz9DR0tPU1dbX2Nna29zd3t/g4eLj"
					  "5OXm5+jp6uvs7e7v8PHy8/T19vf4+fr7/P3+/w=="));
}

TEST(Base64, WhatIsNoBase64IsRefused) {
	for (const char *text : {"Z", "Zg", "Zg=", "Zm9", "Zm9v\n", "Zm 9", "Zm9-", "====", "=Zm9",
							 "Zm=v", "Zg==Zm9v", "Zm9v=", "\xff\xff\xff\xff"}) {
		EXPECT_FALSE(decode_base64(text)) << text;
	}
}

TEST(Utf8, ValidTextStaysAsItIs) {
	std::string text = "a\x7f\xC2\x80\xDF\xBF\xE0\xA0\x80\xED\x9F\xBF\xEE\x80\x80\xEF\xBF\xBF"
					   "\xF0\x90\x80\x80\xF4\x8F\xBF\xBF";
	EXPECT_EQ(text, replace_invalid_utf8(text));
	EXPECT_EQ("", replace_invalid_utf8(""));
}

TEST(Utf8, EachByteThatBeginsNoSequenceIsReplaced) {
	const std::string mark = "\xEF\xBF\xBD";
	EXPECT_EQ("a" + mark + "b", replace_invalid_utf8("a\x80"
													 "b"));
	EXPECT_EQ(mark + mark, replace_invalid_utf8("\xC0\x80"));
	EXPECT_EQ(mark + mark + mark, replace_invalid_utf8("\xE0\x9F\x80"));
	EXPECT_EQ(mark + mark + mark, replace_invalid_utf8("\xED\xA0\x80"));
	EXPECT_EQ(mark + mark + mark + mark, replace_invalid_utf8("\xF4\x90\x80\x80"));
	EXPECT_EQ(mark, replace_invalid_utf8("\xFF"));
}

TEST(Utf8, CutSequenceIsReplaced) {
	const std::string mark = "\xEF\xBF\xBD";
	EXPECT_EQ(mark, replace_invalid_utf8("\xC3"));
	EXPECT_EQ(mark + mark, replace_invalid_utf8("\xE2\x82"));
	EXPECT_EQ(mark + "x", replace_invalid_utf8("\xC3x"));
	EXPECT_EQ(mark + mark + mark + "x", replace_invalid_utf8("\xF0\x9F\x98x"));
}
