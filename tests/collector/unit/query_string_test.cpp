#include "util/query_string.h"

#include <gtest/gtest.h>

using namespace kaq;

TEST(QueryParameter, IsTheFirstOfItsName) {
	EXPECT_EQ("1", query_parameter("a=1&b=2&a=3", "a"));
	EXPECT_EQ("2=3", query_parameter("a=1&b=2=3", "b"));
	EXPECT_EQ("%2F", query_parameter("q=%2F", "q"));
	EXPECT_EQ("", query_parameter("xa=1&a&a1=2", "a"));
	EXPECT_EQ("", query_parameter("&&", "a"));
	EXPECT_EQ("", query_parameter("", "a"));
}

TEST(PercentDecoded, BrokenEscapesStay) {
	EXPECT_EQ("/a b", percent_decoded("%2fa%20b"));
	EXPECT_EQ("/~+", percent_decoded("%2F%7e+"));
	EXPECT_EQ("100%", percent_decoded("100%"));
	EXPECT_EQ("%2", percent_decoded("%2"));
	EXPECT_EQ("%2g%g2", percent_decoded("%2g%g2"));
	EXPECT_EQ("%2F", percent_decoded("%252F"));
}

TEST(FormDecoded, PlusIsABlank) {
	EXPECT_EQ("a b+c", form_decoded("a+b%2Bc"));
}

TEST(FormParameters, AreDecodedAndTheFirstOfEachNameCounts) {
	using Parameters = std::map<std::string, std::string>;
	EXPECT_EQ((Parameters{{"a", "x y"}, {"b c", "="}, {"d", ""}}),
			  form_parameters("a=x+y&b%20c=%3D&&a=2&d"));
	EXPECT_EQ(Parameters{}, form_parameters(""));
}
