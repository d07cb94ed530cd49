#include "query/parser.h"

#include <gtest/gtest.h>

#include "random_filters.h"

using namespace kaq;

namespace {

constexpr int64_t kNow = 1800000000000;

std::string canonical(const std::string &text) {
	auto filter = parse_query(text, {kNow});
	return filter ? to_text(*filter) : "wrong: " + explain(text, filter.error());
}

} // namespace

TEST(QueryText, IsOneForManyWaysToSayIt) {
	EXPECT_EQ("", canonical("  "));
	EXPECT_EQ("app:shop duration:>300ms", canonical("APPLICATION:shop AND >300"));
	EXPECT_EQ("app:shop (is:failed OR sql:\"from product\")",
			  canonical("app:shop (is:FAILED or sql:\"FROM product\")"));
	EXPECT_EQ("-(a b) --c", canonical("NOT (a b) --c"));
	EXPECT_EQ("a b OR c -d", canonical("((a b)) OR (c not d)"));
	EXPECT_EQ("a (b c)", canonical("a (b c)"));
	EXPECT_EQ("errors:>0", canonical("has:error"));
	EXPECT_EQ("since:1799996400000 a", canonical("a since:1h"));
	EXPECT_EQ("until:1799996400000 (a OR b)", canonical("(a OR b) until:1h"));
}

TEST(QueryText, NumbersAreAsShortAsTheyWere) {
	for (const char *text : {"duration:>300ms", "duration:>=300ms", "duration:<2s",
							 "duration:<=2s",   "duration:1500ms",  "duration:100ms..2s",
							 "mem:>64MB",       "mem:>=64MB",       "mem:<1GB",
							 "mem:<=512KB",     "errors:>0",        "errors:0",
							 "queries:>=2",     "queries:2..9",     "status:404",
							 "status:5xx",      "status:>=400",     "db:<0ms",
							 "cpu:0ms",         "ext:>=0ms",        "calls:>1000000000000000"}) {
		EXPECT_EQ(text, canonical(text));
	}
}

TEST(QueryText, QuotesAndWildcards) {
	for (const char *text : {"path:/cart*", "path:\"/a b\"", "path:\"/a b/\"*", "path:\"*\"",
							 "path:\"\"", "path:\":a\"", "path:\"//a\"", "path:a:b", "fn:cart",
							 "fn:\"cart items\"", "fn:\"cart it\"*", "\"or\"", "fn:\"and\"*",
							 "app:\"say \\\"hi\\\"\"", "app:\"App\\\\Models\"*"}) {
		EXPECT_EQ(text, canonical(text));
	}
	EXPECT_EQ("fn:\"app models cart\"", canonical("fn:App\\Models\\Cart"));
	EXPECT_EQ("path:a*b", canonical("path:a***b"));
	EXPECT_EQ("path:a*b", canonical("path:a*\"\"*b"));
}

TEST(QueryText, MeansTheSameFilter) {
	RandomFilters filters(7);
	size_t longest = 0;
	for (int i = 0; i < 10000; i++) {
		Filter filter = filters.next();
		std::string text = to_text(filter);
		longest = std::max(longest, text.size());
		auto again = parse_query(text, {kNow, 1 << 20});
		ASSERT_TRUE(again) << text << "\n" << explain(text, again.error());
		ASSERT_TRUE(filter == *again) << text << "\n" << to_text(*again);
	}
	EXPECT_GT(longest, 300u);
}
