#include "analysis/naming.h"

#include <gtest/gtest.h>

#include <random>

using kaq::matches_glob;
using kaq::NamingRule;
using kaq::normalised_path;
using kaq::transaction_name;

TEST(NormalisedPath, WordsStay) {
	for (const char *path : {"",
							 "/",
							 "/cart",
							 "/cart/items",
							 "/wiki/Main_Page",
							 "/a.php",
							 "/de/über-uns",
							 "/face",
							 "/deadbeef",
							 "/cafe/decade",
							 "/v1beta",
							 "/oauth2/token",
							 "/index.php/x",
							 "/a//b/",
							 "/accessibility-statement-for-everyone",
							 "/donaudampfschifffahrtsgesellschaft",
							 "/WikiPagesWithLongTitlesInCamelCase",
							 "/rechtsschutzversicherungsgesellschaften",
							 "/top-10-things-to-do-this-summer",
							 "/anticonstitutionnellement",
							 "/getElementsByTagNameNS",
							 "/electroencefalografistas",
							 "/%C3%BCber-die-gesellschaft-und-ihre-ziele"}) {
		EXPECT_EQ(path, normalised_path(path));
	}
}

TEST(NormalisedPath, WhatVariesBecomesAStar) {
	for (const char *segment :
		 {"7", "12345", "3.5", "2024-05-01", "20240501", "12:30:00", "1,000",
		  "0f8fad5b-d9cb-469f-a165-70867728950e", "d41d8cd98f00b204e9800998ecf8427e", "1a2b3c4d",
		  "anna@shop.example", "anna%40shop.example", "eyJhbGciOiJIUzI1NiJ9.abc123",
		  "x9f8Kd72mQp0vL3aT5zR", "Abcdefghijklmnopqrstuvwxyz", "eyJhbGciOiJIUzI1NiJ9abc",
		  "qWvTzKpLmXcRdYhNbGfJsA", "mzxwqkjhvbtrpdlcgfnsyw"}) {
		EXPECT_EQ("/cart/*", normalised_path(std::string("/cart/") + segment)) << segment;
		EXPECT_EQ("/*/edit", normalised_path(std::string("/") + segment + "/edit")) << segment;
	}
}

/* As many systems make them: 22 characters of which each is one of 64. */
TEST(NormalisedPath, NearlyAllRandomTokensBecomeAStar) {
	constexpr std::string_view kCharacters =
		"ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789-_";
	std::mt19937 random(1);
	int kept = 0;
	for (int i = 0; i < 10000; i++) {
		std::string token;
		while (token.size() < 22) {
			token += kCharacters[random() % kCharacters.size()];
		}
		kept += normalised_path(token) == "*" ? 0 : 1;
	}
	EXPECT_LE(kept, 100);
}

TEST(NormalisedPath, EndingOfANumberStays) {
	EXPECT_EQ("/news/*.html", normalised_path("/news/123.html"));
	EXPECT_EQ("/img/*.jpg", normalised_path("/img/d41d8cd98f00b204e9800998ecf8427e.jpg"));
}

TEST(NormalisedPath, LongPathsEnd) {
	std::string path;
	for (int i = 0; i < 100; i++) {
		path += "/a";
	}
	EXPECT_LT(normalised_path(path).size(), 40u);
	EXPECT_EQ('*', normalised_path(path).back());
}

TEST(TransactionName, PathWithoutARule) {
	EXPECT_EQ("/cart/*", transaction_name("Shop", "/cart/7", "a=1", {}));
}

TEST(TransactionName, FirstRuleThatMatchesCounts) {
	std::vector<NamingRule> rules = {{"Other", "/cart/*", "other", {}},
									 {"Sh*", "/cart/*", "cart", {}},
									 {"", "/cart/*", "late", {}}};
	EXPECT_EQ("cart", transaction_name("Shop", "/cart/7", "", rules));
	EXPECT_EQ("late", transaction_name("Forum", "/cart/7", "", rules));
	EXPECT_EQ("/list", transaction_name("Shop", "/list", "", rules));
}

TEST(TransactionName, ParametersChooseThePage) {
	const auto &usual = kaq::usual_naming_rules();
	EXPECT_EQ("/index.php?route=/table/sql",
			  transaction_name("", "/index.php", "x=1&route=%2Ftable%2Fsql&db=shop", usual));
	EXPECT_EQ("/w/index.php?title=*&action=edit",
			  transaction_name("", "/w/index.php", "title=Main&action=edit", usual));
	EXPECT_EQ("/wp-admin/admin-ajax.php?action=heartbeat",
			  transaction_name("", "/wp-admin/admin-ajax.php", "action=heartbeat", usual));
	EXPECT_EQ("/doku.php?do=edit", transaction_name("", "/doku.php", "id=start&do=edit", usual));
	EXPECT_EQ("/index.php", transaction_name("", "/index.php", "", usual));
	EXPECT_EQ("/index.php", transaction_name("", "/index.php", "xroute=1&action=", usual));
	EXPECT_EQ("/index.php?action=*", transaction_name("", "/index.php", "action=42", usual));
}

TEST(TransactionName, TitlesOfAWikiAreTheirKind) {
	const auto &usual = kaq::usual_naming_rules();
	for (auto [title, name] : {std::pair{"Special:Search", "Special:Search"},
							   {"Special%3ASearch", "Special:Search"},
							   {"Special:Contributions/Anna", "Special:Contributions/*"},
							   {"Main_Page", "*"},
							   {"Talk:Main+Page", "Talk:*"},
							   {"A/B", "*"}}) {
		EXPECT_EQ("/w/index.php?title=" + std::string(name),
				  transaction_name("", "/w/index.php", "title=" + std::string(title), usual));
	}
}

TEST(TransactionName, IsBounded) {
	std::string query = "action=" + std::string(5000, 'x');
	EXPECT_LE(transaction_name("", "/index.php", query, kaq::usual_naming_rules()).size(), 256u);
}

TEST(TransactionName, BrokenEscapesStay) {
	const auto &usual = kaq::usual_naming_rules();
	EXPECT_EQ("/index.php?action=a%", transaction_name("", "/index.php", "action=a%", usual));
	EXPECT_EQ("/index.php?action=a%2", transaction_name("", "/index.php", "action=a%2", usual));
	EXPECT_EQ("/index.php?action=a%zz", transaction_name("", "/index.php", "action=a%zz", usual));
}

TEST(Glob, StarsAndQuestionMarks) {
	EXPECT_TRUE(matches_glob("", ""));
	EXPECT_TRUE(matches_glob("", "*"));
	EXPECT_TRUE(matches_glob("abc", "*"));
	EXPECT_TRUE(matches_glob("abc", "a?c"));
	EXPECT_TRUE(matches_glob("abcabc", "*abc"));
	EXPECT_TRUE(matches_glob("abcabc", "a*c"));
	EXPECT_TRUE(matches_glob("abc", "***"));
	EXPECT_FALSE(matches_glob("abc", ""));
	EXPECT_FALSE(matches_glob("", "?"));
	EXPECT_FALSE(matches_glob("abc", "ab"));
	EXPECT_FALSE(matches_glob("abc", "b*"));
	EXPECT_FALSE(matches_glob("abd", "*c"));
}

TEST(Glob, HostilePatternsEnd) {
	std::string text(20000, 'a');
	EXPECT_FALSE(matches_glob(text, "*a*a*a*a*a*a*a*a*a*a*b"));
}
