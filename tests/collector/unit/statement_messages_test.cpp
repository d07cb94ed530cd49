#include "analysis/statement_messages.h"

#include <gtest/gtest.h>

static std::string plain(const std::string &message) {
	std::string cleaned = message;
	kaq::without_quoted_values(message, cleaned);
	return cleaned;
}

TEST(StatementMessages, LiteralsOfQuotedStatements) {
	EXPECT_EQ("error 1064 for query INSERT INTO u (pw) VALUES (?) made by wp",
			  plain("error 1064 for query INSERT INTO u (pw) VALUES ('X') made by wp"));
	EXPECT_EQ("LINE 1: SELECT * FROM u WHERE pw = ? AND",
			  plain("LINE 1: SELECT * FROM u WHERE pw = 'X' AND"));
	EXPECT_EQ("Uncaught E: UPDATE u SET a = ?\nStack trace:\n#0 a(3): f('y')",
			  plain("Uncaught E: UPDATE u SET a = 'X' /* c */\nStack trace:\n#0 a(3): f('y')"));
	EXPECT_EQ("(delete from u where id = ?", plain("(delete from u where id = 7"));
}

TEST(StatementMessages, ValuesWithoutQuotes) {
	EXPECT_EQ("gone (Connection: mysql, SQL: insert into `u` (`a`) values ?",
			  plain("gone (Connection: mysql, SQL: insert into `u` (`a`) values (X, Y))"));
	EXPECT_EQ("(SQL: select * from u where ?", plain("(SQL: select * from u where a = X limit 1)"));
}

TEST(StatementMessages, ValuesThatDatabasesTell) {
	EXPECT_EQ("right syntax to use near '?' at line 1",
			  plain("right syntax to use near 'X' AND b = 'Y'' at line 1"));
	EXPECT_EQ("Duplicate entry '?' for key 'u.email'",
			  plain("Duplicate entry 'anna@x' for key 'u.email'"));
	EXPECT_EQ("Incorrect integer value: '?' for column 'a'",
			  plain("Incorrect integer value: 'X' for column 'a'"));
	EXPECT_EQ("DETAIL:  Key (a)=(?) already exists.",
			  plain("DETAIL:  Key (a)=(X) already exists."));
	EXPECT_EQ("Failing row contains (?).", plain("Failing row contains (1, X, null)."));
	EXPECT_EQ("with 'x' with params [?]:\n\nmore",
			  plain("with 'x' with params [\"X\", 5]:\n\nmore"));
}

TEST(StatementMessages, OthersStay) {
	for (const char *message :
		 {"", "Please select 5 items from the list, don't wait", "no stock of 'x'",
		  "Selected 'a' FROM b", "You can't update 3 rows, set b", "SELECT 1", "Unknown column 'a'",
		  "call near 'x'", "SELECT a FROM b"}) {
		std::string cleaned = "untouched";
		EXPECT_FALSE(kaq::without_quoted_values(message, cleaned)) << message;
		EXPECT_EQ("untouched", cleaned);
	}
}

TEST(StatementMessages, HostileOnesEnd) {
	for (const char *piece : {"SELECT ", "select FROM ", " near '", ")=(", "SQL: select from "}) {
		std::string text;
		while (text.size() < 400000) {
			text += piece;
		}
		EXPECT_LT(0u, plain(text).size());
	}
}
