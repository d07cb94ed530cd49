#include "util/header_line.h"

#include <ctype.h>
#include <stdlib.h>
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

namespace {

/* The text, and frees it; "(null)" for null. */
std::string take(char *text) {
	std::string copy = text ? text : "(null)";
	free(text);
	return copy;
}

} // namespace

TEST(HeaderFormat, NameColonBlankValue) {
	EXPECT_EQ("X-Skelvor-Id: abc", take(header_format_name_value("X-Skelvor-Id", "abc", 0)));
}

TEST(HeaderFormat, LineEndIsAddedForAnyFlagButZero) {
	for (int flag : {1, 2, -1}) {
		EXPECT_EQ("a: b\r\n", take(header_format_name_value("a", "b", flag))) << flag;
	}
}

TEST(HeaderFormat, PartsAreTakenAsTheyAre) {
	EXPECT_EQ(": ", take(header_format_name_value("", "", 0)));
	EXPECT_EQ(" %s%n:  %d ", take(header_format_name_value(" %s%n", " %d ", 0)));
	EXPECT_EQ("\xc3\xa4: {\"x\":1}", take(header_format_name_value("\xc3\xa4", "{\"x\":1}", 0)));
}

TEST(HeaderFormat, LongValueIsNotCut) {
	std::string value(100000, 'v');
	EXPECT_EQ("n: " + value, take(header_format_name_value("n", value.c_str(), 0)));
}

TEST(HeaderFormat, NullNameOrValueGivesNull) {
	EXPECT_EQ(nullptr, header_format_name_value(nullptr, "b", 0));
	EXPECT_EQ(nullptr, header_format_name_value("a", nullptr, 1));
	EXPECT_EQ(nullptr, header_format_name_value(nullptr, nullptr, 0));
}

TEST(HeaderEncodedValue, IsFoundWhateverItsCaseAndPlace) {
	EXPECT_EQ("abc", take(header_extract_encoded_value("X-Id", "X-Id: abc")));
	EXPECT_EQ("abc", take(header_extract_encoded_value("X-Id", "\r\nfoo\r\nx-ID: abc\r\nbar: 1")));
	EXPECT_EQ("abc", take(header_extract_encoded_value("X-ID", "my-x-id: abc")));
}

TEST(HeaderEncodedValue, FirstOccurrenceCounts) {
	EXPECT_EQ("1", take(header_extract_encoded_value("k", "k: 1\r\nk: 2")));
}

TEST(HeaderEncodedValue, ColonsAndBlanksBehindTheKeyArePassedOver) {
	for (const char *text : {"kabc", "k:abc", "k abc", "k\tabc", "k : \t:: abc"}) {
		EXPECT_EQ("abc", take(header_extract_encoded_value("k", text))) << text;
	}
}

TEST(HeaderEncodedValue, RunKeepsEveryCharacterOfAnEncodedValue) {
	const std::string run = "AZaz09+/=_-.,:;%~!*'(){}\"[] \tx";
	EXPECT_EQ(run, take(header_extract_encoded_value("k", ("k: " + run).c_str())));
}

TEST(HeaderEncodedValue, RunEndsAtAnyOtherByte) {
	for (int byte = 1; byte < 256; byte++) {
		bool belongs =
			(byte < 128 && isalnum(byte)) || strchr("+/=_-.,:;%~!*'(){}\"[] \t", byte) != nullptr;
		std::string text = std::string("k: a") + (char)byte + "b";
		EXPECT_EQ(belongs ? text.substr(3) : "a",
				  take(header_extract_encoded_value("k", text.c_str())))
			<< byte;
	}
}

TEST(HeaderEncodedValue, EmptyRunGivesNull) {
	for (const char *text : {"k", "k:", "k: \t", "k: \r\nabc", "k: <a>"}) {
		EXPECT_EQ(nullptr, header_extract_encoded_value("k", text)) << text;
	}
}

TEST(HeaderEncodedValue, AbsentOrNullKeyGivesNull) {
	EXPECT_EQ(nullptr, header_extract_encoded_value("key", "k: abc"));
	EXPECT_EQ(nullptr, header_extract_encoded_value("key", ""));
	EXPECT_EQ(nullptr, header_extract_encoded_value(nullptr, "k: abc"));
	EXPECT_EQ(nullptr, header_extract_encoded_value("k", nullptr));
	EXPECT_EQ(nullptr, header_extract_encoded_value(nullptr, nullptr));
}

TEST(HeaderEncodedValue, EmptyKeyStandsAtTheBeginning) {
	EXPECT_EQ("abc", take(header_extract_encoded_value("", ": abc\n")));
}
