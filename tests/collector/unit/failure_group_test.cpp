#include "analysis/failure_group.h"

#include <gtest/gtest.h>

using kaq::Failure;
using kaq::FailureGroup;
using kaq::group_of;
using kaq::without_variables;

Failure failure(std::string_view type, std::string_view message,
				std::string_view file = "/srv/shop/Cart.php", int64_t line = 12) {
	Failure made;
	made.type = type;
	made.message = message;
	made.file = file;
	made.line = line;
	return made;
}

TEST(WithoutVariables, LeavesWhatTheMessageSays) {
	for (auto [message, rest] : {
			 std::pair{"no stock of article 17", "no stock of article *"},
			 {"Undefined index: price", "Undefined index: price"},
			 {"Unknown column 'u.mail' in 'field list'", "Unknown column '*' in '*'"},
			 {"Table \"shop.x\" doesn't exist", "Table \"*\" doesn't exist"},
			 {"SQLSTATE[42S02]: Base table not found: 1146",
			  "SQLSTATE[42S02]: Base table not found: *"},
			 {"user 550e8400-e29b-41d4-a716-446655440000 is gone.", "user * is gone."},
			 {"cannot mail anna@shop.example!", "cannot mail *!"},
			 {"object at 0x7ffe10 of deadbeef01", "object at * of *"},
			 {"fopen(/var/cache/9f86d081/page7.html): failed",
			  "fopen(/var/cache/*/page7.html): failed"},
			 {"order12345 of 2024-05-01   failed\n", "order* of * failed"},
			 {"utf8 and md5 stay", "utf8 and md5 stay"},
			 {"it's \"not ended", "it's \"not ended"},
			 {"", ""},
		 }) {
		EXPECT_EQ(rest, without_variables(message));
	}
}

TEST(WithoutVariables, IsBounded) {
	EXPECT_GE(512u, without_variables(std::string(100000, '"')).size());
	EXPECT_GE(512u, without_variables(std::string(100000, 'x')).size());
	std::string wide;
	for (int i = 0; i < 1000; i++) {
		wide += "\u20ac";
	}
	EXPECT_EQ(510u, without_variables(wide).size());
}

TEST(Group, IsOfClassPlaceAndMessage) {
	FailureGroup group = group_of(failure("DomainException", "no stock of 17"));
	EXPECT_EQ("DomainException", group.type);
	EXPECT_EQ("/srv/shop/Cart.php:12", group.place);
	EXPECT_EQ("no stock of *", group.message);
	EXPECT_EQ("DomainException: no stock of * (Cart.php:12)", group.readable());
	EXPECT_EQ(32u, group.key.size());
	EXPECT_EQ(group.key, group_of(failure("DomainException", "no stock of 18")).key);
	EXPECT_NE(group.key, group_of(failure("RangeException", "no stock of 17")).key);
	EXPECT_NE(group.key, group_of(failure("DomainException", "no price of 17")).key);
	EXPECT_NE(group.key,
			  group_of(failure("DomainException", "no stock of 17", "/srv/shop/Cart.php", 13)).key);
}

TEST(Group, OutlivesARelease) {
	EXPECT_EQ(group_of(failure("E", "m", "/srv/releases/20240501093000/Cart.php")).key,
			  group_of(failure("E", "m", "/srv/releases/20240613101500/Cart.php")).key);
}

TEST(Group, UncaughtExceptionIsTheException) {
	std::string message = "Uncaught DomainException: no stock of 17 in /srv/shop/Cart.php:12\n"
						  "Stack trace:\n#0 /srv/shop/index.php(3): Cart->add()\n  thrown";
	FailureGroup uncaught = group_of(failure("ERROR", message));
	FailureGroup thrown = group_of(failure("DomainException", "no stock of 17"));
	EXPECT_EQ(thrown.key, uncaught.key);
	EXPECT_TRUE(uncaught.is_uncaught);
	EXPECT_FALSE(thrown.is_uncaught);
}

TEST(Group, UncaughtExceptionWithoutAMessageOrWithCauses) {
	EXPECT_EQ(group_of(failure("LogicException", "")).key,
			  group_of(failure("ERROR", "Uncaught LogicException in /srv/shop/Cart.php:12\n"
										"Stack trace:\n#0 {main}\n  thrown"))
				  .key);
	EXPECT_EQ(group_of(failure("Outer", "b")).key,
			  group_of(failure("ERROR", "Uncaught Inner: a in /srv/x.php:1\nStack trace:\n#0 {main}"
										"\n\nNext Outer: b in /srv/shop/Cart.php:12\n"
										"Stack trace:\n#0 {main}\n  thrown"))
				  .key);
}

TEST(Group, ErrorReadsWithoutItsClass) {
	EXPECT_EQ("Undefined variable (Cart.php:12)",
			  group_of(failure("ERROR", "Undefined variable")).readable());
	EXPECT_EQ("Undefined variable",
			  group_of(failure("ERROR", "Undefined variable", "")).readable());
}

TEST(Group, IsBounded) {
	std::string longest(100000, 'x');
	FailureGroup group = group_of(failure(longest, longest, longest));
	EXPECT_GE(256u, group.type.size());
	EXPECT_GE(600u, group.place.size());
	EXPECT_GE(512u, group.message.size());
}
