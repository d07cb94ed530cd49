#include "analysis/sql_text.h"

#include <gtest/gtest.h>

using kaq::first_table;
using kaq::without_literals;

static std::string plain(std::string_view statement) {
	return without_literals(statement, false);
}

TEST(WithoutLiterals, TextsAndNumbers) {
	EXPECT_EQ("SELECT * FROM t WHERE a = ? AND b = ?",
			  plain("SELECT * FROM t WHERE a = 'x' AND b = 5"));
	EXPECT_EQ("a = ? b = ? c = ?", plain("a = 1.5e-10 b = .5 c = 0x1F"));
	EXPECT_EQ("LIMIT ?", plain("LIMIT 10, 20"));
	EXPECT_EQ("? ? ?", plain("x'ff' N'a' _utf8'b'"));
	EXPECT_EQ("-?", plain("-5"));
}

TEST(WithoutLiterals, QuotesWithinTexts) {
	EXPECT_EQ("a = ? AND b = ?", plain("a = 'it''s' AND b = 12"));
	EXPECT_EQ("a = ?, b", plain(R"(a = 'it\'s, not', b)"));
	EXPECT_EQ("a = ?, b", plain(R"(a = "say ""x"" or \"y\"", b)"));
	EXPECT_EQ("a = ?, b", plain(R"(a = '\\', b)"));
}

TEST(WithoutLiterals, DoubleQuotesMayHoldNames) {
	EXPECT_EQ("SELECT \"a\" FROM \"t\" WHERE b = ?",
			  without_literals("SELECT \"a\" FROM \"t\" WHERE b = 'x'", true));
	EXPECT_EQ("SELECT `a b` FROM `t``2`", plain("SELECT `a b` FROM `t``2`"));
}

TEST(WithoutLiterals, NamesWithDigitsStay) {
	EXPECT_EQ("SELECT t1.c2 FROM wp_2_posts", plain("SELECT t1.c2 FROM wp_2_posts"));
}

TEST(WithoutLiterals, ListsBecomeOne) {
	EXPECT_EQ("a IN (?)", plain("a IN (1, 2, 3, 4)"));
	EXPECT_EQ("a IN (?)", plain("a IN (1,2,'x')"));
	EXPECT_EQ("VALUES (?)", plain("VALUES (1, 'a'), (2, 'b'), (3, 'c')"));
	EXPECT_EQ("VALUES (?)", plain("VALUES (1,'a'),(2,'b')"));
	EXPECT_EQ("f(?, x, ?)", plain("f(1, x, 2)"));
}

TEST(WithoutLiterals, PlaceholdersAreListsToo) {
	EXPECT_EQ("a IN (?)", plain("a IN (?, ?, ?)"));
}

TEST(WithoutLiterals, CommentsAndBlanks) {
	EXPECT_EQ("SELECT a FROM t", plain("SELECT  a\n\t-- it's 5\nFROM/* '1' */t ;"));
	EXPECT_EQ("SELECT a FROM t", plain("SELECT a # it's\nFROM t"));
	EXPECT_EQ("SELECT a", plain("SELECT a /* open"));
}

TEST(WithoutLiterals, OpenTextsHideTheRest) {
	EXPECT_EQ("a = ?", plain("a = 'secret"));
	EXPECT_EQ("a = ?", plain("a = 'secret\\"));
	EXPECT_EQ("a = ?", plain("a = \"secret"));
	EXPECT_EQ("", plain(""));
}

TEST(WithoutLiterals, DollarsQuoteTexts) {
	EXPECT_EQ("SELECT ?", plain("SELECT $$it's X$$"));
	EXPECT_EQ("pw = ? WHERE a = ?", plain("pw = $a$X $b$ $$ Y$a$ WHERE a = 1"));
	EXPECT_EQ("a = ?", plain("a = $$X"));
	EXPECT_EQ("a = $1 AND b$c = $2", plain("a = $1 AND b$c = $2"));
}

TEST(WithoutLiterals, OracleNamesTheEndOfATextItself) {
	EXPECT_EQ("SELECT ? FROM dual", plain("SELECT q'[it's X]' FROM dual"));
	EXPECT_EQ("SELECT ?, b", plain("SELECT Nq'!it's X!', b"));
	EXPECT_EQ("SELECT ?", plain("SELECT Q'{it's X"));
	EXPECT_EQ("SELECT ?", plain("SELECT q'"));
}

TEST(WithoutLiterals, CommentsMayBeNested) {
	EXPECT_EQ("SELECT ? FROM t", plain("SELECT 1 /* a /* b */ X */ FROM t"));
	EXPECT_EQ("SELECT a FROM t", plain("SELECT /* a /* b */ a FROM t /* c */"));
	EXPECT_EQ("a b c", plain("a /* /* */ b /*/*/ c"));
}

/* A backslash is an escape, or the last character of the text: that a path ends with. */
TEST(WithoutLiterals, BackslashesAreReadEitherWay) {
	EXPECT_EQ("SET dir = ?", plain(R"(SET dir = 'C:\', pw = 'my X')"));
	EXPECT_EQ("SET dir = ?", plain(R"(SET dir = 'C:\', note = 'my X here' WHERE a = 1)"));
	EXPECT_EQ("a = ?", plain(R"(a = "C:\", pw = "my X" AND b = 1)"));
	EXPECT_EQ("(?", plain(R"(('C:\', 'it''s X', b))"));
	EXPECT_EQ("a = ?, b = ? WHERE c = ?", plain(R"(a = 'it\'s', b = 'don\'t' WHERE c = 'x')"));
	EXPECT_EQ("a = ? WHERE c = ?", plain(R"(a = 'say \'hello\', and go' WHERE c = 'x')"));
	EXPECT_EQ("a = ? WHERE c = ?", plain(R"(a = 'the boys\' toys' WHERE c = 5)"));
	EXPECT_EQ("a = ?, b", plain(R"(a = E'C:\', X', b)"));
}

TEST(WithoutLiterals, PasswordsOfOracleHaveNoQuotes) {
	EXPECT_EQ("ALTER USER scott IDENTIFIED BY ? ACCOUNT UNLOCK",
			  plain("ALTER USER scott IDENTIFIED  BY tiger ACCOUNT UNLOCK"));
	EXPECT_EQ("ORDER BY tiger", plain("ORDER BY tiger"));
}

TEST(WithoutLiterals, OperatorsAreNoComments) {
	EXPECT_EQ("SELECT a #>> ? FROM t", plain("SELECT a #>> '{b}' FROM t"));
}

TEST(HasPlaces, OfEachKind) {
	for (const char *text :
		 {"a = ?", "a = $1", "a = :name", "a = :1", "a = @name", "a IN (?, 2)"}) {
		EXPECT_TRUE(kaq::has_places(text)) << text;
	}
}

TEST(HasPlaces, NotInLiterals) {
	for (const char *text : {"", "a = 'what?'", "a = '12:30'", "a::int", "a = '$1'", "@@max",
							 "a = 1 -- ?", "`a?`", "a@'host'", "a$1"}) {
		EXPECT_FALSE(kaq::has_places(text)) << text;
	}
}

TEST(WithoutLiterals, IsStable) {
	for (const char *statement :
		 {"SELECT * FROM t WHERE a IN (1, 2)", "INSERT INTO t VALUES (1), (2)", "a = 'x' -- y",
		  "UPDATE `t` SET a = 5 WHERE b LIKE '%x%'"}) {
		std::string once = plain(statement);
		EXPECT_EQ(once, plain(once));
	}
}

TEST(FirstTable, IsFoundInUsualStatements) {
	EXPECT_EQ("t", first_table("SELECT a, b FROM t WHERE c = 1"));
	EXPECT_EQ("t", first_table("insert into t (a) values (1)"));
	EXPECT_EQ("t", first_table("UPDATE LOW_PRIORITY t SET a = 1"));
	EXPECT_EQ("t", first_table("DELETE FROM `t`"));
	EXPECT_EQ("t", first_table("CREATE TABLE IF NOT EXISTS t (a INT)"));
	EXPECT_EQ("inner_t", first_table("SELECT * FROM (SELECT * FROM inner_t) x"));
	EXPECT_EQ("", first_table("SET NAMES utf8"));
	EXPECT_EQ("", first_table("SELECT 1"));
	EXPECT_EQ("", first_table("SELECT * FROM"));
}
