#include "json/json_members.h"

#include <gtest/gtest.h>
#include <stdlib.h>
#include <string>

/* Reads one member named "n". */
class Member : public testing::Test {
protected:
	kaq_json_member n = {"n", KAQ_JSON_OTHER, 0, 0, nullptr, 0, false};

	std::string text; /* what was read last */

	bool read(const std::string &given) {
		text = given;
		return kaq_json_read_plain(text.c_str(), &n, 1);
	}

	std::string copy() const {
		char *copied = kaq_json_copy_string(&n);
		std::string result = copied;
		free(copied);
		return result;
	}
};

TEST_F(Member, StringIsWithinTheText) {
	ASSERT_TRUE(read("{\"n\":\"some text\"}"));
	EXPECT_EQ(KAQ_JSON_STRING, n.kind);
	EXPECT_EQ(text.c_str() + 6, n.text);
	EXPECT_EQ(9u, n.length);
	EXPECT_FALSE(n.has_escapes);
	EXPECT_EQ("some text", copy());
}

TEST_F(Member, EmptyStringIsAString) {
	ASSERT_TRUE(read("{\"n\":\"\"}"));
	EXPECT_EQ(KAQ_JSON_STRING, n.kind);
	EXPECT_EQ("", copy());
}

TEST_F(Member, EscapesOfOneCharacterAreUndone) {
	ASSERT_TRUE(read(R"({"n":"\"a\\b\/c\bd\fe\nf\rg\th\\"})"));
	EXPECT_EQ("\"a\\b/c\bd\fe\nf\rg\th\\", copy());
}

TEST_F(Member, IntegersAreRead) {
	ASSERT_TRUE(read("{\"n\":920}"));
	EXPECT_EQ(KAQ_JSON_INTEGER, n.kind);
	EXPECT_EQ(920, n.integer);
	ASSERT_TRUE(read("{\"n\":0}"));
	EXPECT_EQ(0, n.integer);
	ASSERT_TRUE(read("{\"n\":999999999999999999}"));
	EXPECT_EQ(999999999999999999, n.integer);
}

TEST_F(Member, WordsAndAMissingMemberAreOfAnotherKind) {
	for (const char *given : {"{\"n\":true}", "{\"n\":false}", "{\"n\":null}", "{\"m\":1}"}) {
		n.kind = KAQ_JSON_STRING;
		ASSERT_TRUE(read(given)) << given;
		EXPECT_EQ(KAQ_JSON_OTHER, n.kind) << given;
	}
}

TEST_F(Member, LastOfOneNameCounts) {
	ASSERT_TRUE(read("{\"n\":\"text\",\"n\":5}"));
	EXPECT_EQ(KAQ_JSON_INTEGER, n.kind);
	ASSERT_TRUE(read("{\"n\":5,\"n\":null}"));
	EXPECT_EQ(KAQ_JSON_OTHER, n.kind);
}

TEST_F(Member, NamesAreComparedWhole) {
	ASSERT_TRUE(read("{\"\":1,\"nn\":2,\"N\":3}"));
	EXPECT_EQ(KAQ_JSON_OTHER, n.kind);
}

TEST_F(Member, BlanksMayStandBetween) {
	ASSERT_TRUE(read(" \t\r\n{ \t\r\n\"n\" \t\r\n: \t\r\n7 \t\r\n, \"m\" : 1 } \t\r\n"));
	EXPECT_EQ(7, n.integer);
}

TEST_F(Member, WhatIsNotPlainIsLeftToAnother) {
	for (const char *given :
		 {"", " ", "{", "{}", "{\"n\"}", "{\"n\":}", "{\"n\":1", "{\"n\":1,}", "{\"n\":1}x",
		  "{\"n\":1}{", "[1]", "5", "\"n\"", "{n:1}", "{'n':1}", "{\"n\" 1}", "{\"n\":1 \"m\":2}",
		  /* values */
		  "{\"n\":[]}", "{\"n\":{}}", "{\"n\":-1}", "{\"n\":1.5}", "{\"n\":1e3}", "{\"n\":01}",
		  "{\"n\":1000000000000000000}", "{\"n\":+1}", "{\"n\":TRUE}", "{\"n\":tru}", "{\"n\":nul",
		  "{\"n\":truex}", "{\"n\":falsey}", "{\"n\":1x}",
		  /* strings */
		  "{\"n\":\"a", "{\"n\":\"a\\", "{\"n\":\"a\\\"", "{\"n\":\"\\u0041\"}", "{\"n\":\"\\x\"}",
		  "{\"n\":\"\x1f\"}", "{\"n\":\"\x7f\"}", "{\"n\":\"\xc3\xa9\"}", "{\"n\":\"\xff\"}",
		  "{\"n\":\"a\nb\"}", "{\"\\n\":1}", "{\"n\\\"\":1}"}) {
		EXPECT_FALSE(read(given)) << given;
	}
}

TEST_F(Member, MoreMembersOrBytesAreLeftToAnother) {
	std::string many = "{\"n\":1";
	for (int i = 1; i < KAQ_PLAIN_MAX_MEMBERS; i++) {
		many += ",\"m\":1";
	}
	EXPECT_TRUE(read(many + "}"));
	EXPECT_FALSE(read(many + ",\"m\":1}"));
	std::string end = "{\"n\":1}";
	EXPECT_TRUE(read(std::string(KAQ_PLAIN_MAX_LENGTH - end.size(), ' ') + end));
	EXPECT_FALSE(read(std::string(KAQ_PLAIN_MAX_LENGTH - end.size() + 1, ' ') + end));
}

TEST(Members, EachIsFoundWhereverItStands) {
	kaq_json_member wanted[3] = {};
	wanted[0].name = "a";
	wanted[1].name = "b.c";
	wanted[2].name = "d";
	ASSERT_TRUE(kaq_json_read_plain("{\"d\":\"x\",\"e\":true,\"b.c\":4,\"a\":\"y\"}", wanted, 3));
	EXPECT_EQ('y', wanted[0].text[0]);
	EXPECT_EQ(4, wanted[1].integer);
	EXPECT_EQ('x', wanted[2].text[0]);
}
