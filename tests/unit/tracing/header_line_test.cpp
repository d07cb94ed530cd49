#include "tracing/header_line.h"

#include <string.h>
#include <string>

#include <gtest/gtest.h>

namespace {

struct Split {
	char name[128] = "(name)";
	char value[256] = "(value)";

	explicit Split(const std::string &line) {
		kaq_header_to_keyvalue(line.c_str(), name, sizeof name, value, sizeof value);
	}
};

} // namespace

TEST(HeaderLine, NameAndValue) {
	Split split("Content-Type: text/html");
	EXPECT_STREQ("Content-Type", split.name);
	EXPECT_STREQ("text/html", split.value);
}

TEST(HeaderLine, FirstColonSeparates) {
	Split split("Location: http://localhost:8080/");
	EXPECT_STREQ("Location", split.name);
	EXPECT_STREQ("http://localhost:8080/", split.value);
}

TEST(HeaderLine, TrailingCrLfIsKeptIsMeant) {
	Split split("Content-Type: text/html\r\n");
	EXPECT_STREQ("text/html\r\n", split.value);
}

TEST(HeaderLine, TrailingBlanksAreKeptIsMeant) {
	EXPECT_STREQ("a \t", Split("X: a \t").value);
}

TEST(HeaderLine, AllWhiteSpaceBehindTheColonIsSkipped) {
	EXPECT_STREQ("v", Split("X: \t\n\v\f\r v").value);
	EXPECT_STREQ("v", Split("X:v").value);
}

TEST(HeaderLine, NameIsTakenAsItIs) {
	EXPECT_STREQ(" x-Y ", Split(" x-Y : v").name);
}

TEST(HeaderLine, ValueOfNothingButLineEndIsEmpty) {
	Split split("X-Empty:\r\n");
	EXPECT_STREQ("X-Empty", split.name);
	EXPECT_STREQ("", split.value);
}

TEST(HeaderLine, ColonAloneGivesTwoEmptyTexts) {
	Split split(":");
	EXPECT_STREQ("", split.name);
	EXPECT_STREQ("", split.value);
}

TEST(HeaderLine, LineWithoutAColonLeavesBothAlone) {
	for (const char *line : {"HTTP/1.1 200 OK\r\n", "\r\n", "x"}) {
		Split split(line);
		EXPECT_STREQ("(name)", split.name);
		EXPECT_STREQ("(value)", split.value);
	}
}

TEST(HeaderLine, EmptyLineLeavesBothAlone) {
	Split split("");
	EXPECT_STREQ("(name)", split.name);
	EXPECT_STREQ("(value)", split.value);
}

TEST(HeaderLine, LongNameIsCut) {
	EXPECT_EQ(std::string(127, 'n'), Split(std::string(127, 'n') + ": v").name);
	EXPECT_EQ(std::string(127, 'n'), Split(std::string(128, 'n') + ": v").name);
	Split split(std::string(200, 'n') + ": v");
	EXPECT_EQ(std::string(127, 'n'), split.name);
	EXPECT_STREQ("v", split.value);
}

TEST(HeaderLine, LongValueIsCut) {
	EXPECT_EQ(std::string(255, 'v'), Split("X: " + std::string(255, 'v')).value);
	EXPECT_EQ(std::string(255, 'v'), Split("X: " + std::string(256, 'v')).value);
	EXPECT_EQ(std::string(255, 'v'), Split("X: " + std::string(300, 'v')).value);
}

TEST(HeaderLine, BytesAbove127AreNoWhiteSpace) {
	EXPECT_STREQ("\xa0\x85v", Split("X: \xa0\x85v").value);
}

TEST(HeaderLine, SmallestBuffersGetTerminatorsOnly) {
	char name[1] = {'x'};
	char value[1] = {'x'};
	kaq_header_to_keyvalue("A: b", name, 1, value, 1);
	EXPECT_EQ('\0', name[0]);
	EXPECT_EQ('\0', value[0]);
}

TEST(HeaderLine, NullPointersAndZeroSizesDoNothing) {
	char name[4] = "abc";
	char value[4] = "def";
	kaq_header_to_keyvalue(nullptr, name, 4, value, 4);
	kaq_header_to_keyvalue("A: b", nullptr, 4, value, 4);
	kaq_header_to_keyvalue("A: b", name, 4, nullptr, 4);
	kaq_header_to_keyvalue("A: b", name, 0, value, 4);
	kaq_header_to_keyvalue("A: b", name, 4, value, 0);
	EXPECT_STREQ("abc", name);
	EXPECT_STREQ("def", value);
}
