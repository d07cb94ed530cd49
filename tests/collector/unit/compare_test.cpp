#include "analysis/compare.h"

#include <gtest/gtest.h>

#include <numeric>

#include "requests.h"

using kaq::Change;
using kaq::compare;
using kaq::Difference;
using kaq::Profile;
using kaq::profile_of;
using kaq::Transaction;
using kaq::typical_profile;

/* A cart with so many items, of which each takes so long, and what else there is. */
Transaction cart(int items, int64_t ms, std::string_view more = "", int64_t more_ms = 0) {
	Request request("/cart");
	request.works(5).open("Cart::show");
	for (int i = 0; i < items; i++) {
		request.query("SELECT * FROM item WHERE id = " + std::to_string(i), ms);
	}
	request.close();
	if (!more.empty()) {
		request.runs(more, more_ms);
	}
	return request.done();
}

TEST(Profile, CountsCallsByPlace) {
	Request request("/");
	request.works(3).open("a").works(2).query("SELECT 1", 4).query("SELECT 2", 6);
	request.call("https://api/users/7?x", 10).close().open("a").query("SELECT 3", 1).close();
	request.query("SELECT 4", 1);
	Profile profile = profile_of(request.done());
	EXPECT_EQ(27, profile.duration);
	ASSERT_EQ(8u, profile.rows.size());
	EXPECT_EQ("main", profile.rows[0].name);
	EXPECT_EQ(-1, profile.rows[0].parent);
	EXPECT_EQ(3, profile.rows[0].own);
	EXPECT_EQ(27, profile.rows[0].total);
	EXPECT_EQ("a", profile.rows[1].name);
	EXPECT_EQ(2, profile.rows[1].count);
	EXPECT_EQ(2, profile.rows[1].own);
	EXPECT_EQ(23, profile.rows[1].total);
	EXPECT_EQ("SELECT ?", profile.rows[2].detail);
	EXPECT_EQ(3, profile.rows[2].count);
	EXPECT_EQ(11, profile.rows[2].total);
	EXPECT_EQ(1, profile.rows[2].parent);
	EXPECT_EQ("curl_init", profile.rows[3].name);
	EXPECT_EQ("SELECT ?", profile.rows.back().detail);
	EXPECT_EQ(0, profile.rows.back().parent);
}

TEST(Profile, AddressAndPreparedStatementAreDetails) {
	Request request("/");
	request.prepare("SELECT a FROM b WHERE c = 1").execute(3);
	request.open("curl_multi_exec", "HTTP").transfer("https://API/users/7?x", 2);
	Profile profile = profile_of(request.done());
	ASSERT_EQ(5u, profile.rows.size());
	EXPECT_EQ("SELECT a FROM b WHERE c = ?", profile.rows[1].detail);
	EXPECT_EQ("SELECT a FROM b WHERE c = ?", profile.rows[2].detail);
	EXPECT_EQ("", profile.rows[3].detail);
	EXPECT_EQ("api/users/*", profile.rows[4].detail);
}

TEST(Compare, SaysWhetherCountOrDurationGrew) {
	std::vector<Difference> by_count = compare(profile_of(cart(3, 4)), profile_of(cart(50, 4)));
	ASSERT_EQ(1u, by_count.size());
	EXPECT_EQ(Change::kCount, by_count[0].change);
	EXPECT_EQ(188, by_count[0].growth);
	EXPECT_EQ(3, by_count[0].count_before);
	EXPECT_EQ(50, by_count[0].count_after);
	EXPECT_EQ("main > Cart::show", by_count[0].path);
	EXPECT_EQ("SELECT * FROM item WHERE id = ?", by_count[0].detail);
	std::vector<Difference> by_duration = compare(profile_of(cart(3, 4)), profile_of(cart(4, 90)));
	ASSERT_EQ(1u, by_duration.size());
	EXPECT_EQ(Change::kDuration, by_duration[0].change);
	EXPECT_EQ(348, by_duration[0].growth);
	EXPECT_EQ(12, by_duration[0].own_before);
	EXPECT_EQ(360, by_duration[0].total_after);
}

TEST(Compare, AddedAndRemovedCallsComeByTheirTime) {
	Profile before = profile_of(cart(3, 4, "Tax::old", 30));
	std::vector<Difference> all = compare(before, profile_of(cart(4, 4, "Tax::new", 80)));
	ASSERT_EQ(3u, all.size());
	EXPECT_EQ("Tax::new", all[0].name);
	EXPECT_EQ(Change::kAdded, all[0].change);
	EXPECT_EQ(80, all[0].growth);
	EXPECT_EQ("main", all[0].path);
	EXPECT_EQ("Tax::old", all[1].name);
	EXPECT_EQ(Change::kRemoved, all[1].change);
	EXPECT_EQ(-30, all[1].growth);
	EXPECT_EQ(4, all[2].growth);
	EXPECT_EQ("removed", change_name(all[1].change));
}

TEST(Compare, GrowthsAddUpToTheDifferenceOfTheRequests) {
	Transaction one = cart(7, 3, "Tax::of", 11), other = cart(19, 5, "Tips::of", 8);
	std::vector<Difference> all = compare(profile_of(one), profile_of(other));
	int64_t sum =
		std::accumulate(all.begin(), all.end(), int64_t{0},
						[](int64_t total, const Difference &each) { return total + each.growth; });
	EXPECT_EQ(other.duration() - one.duration(), sum);
	EXPECT_TRUE(compare(profile_of(one), profile_of(one)).empty());
}

TEST(Typical, IsTheMedianOfEachRow) {
	Transaction a = cart(3, 4), b = cart(5, 4), c = cart(40, 4, "Rare::thing", 500);
	Profile typical = typical_profile({&a, &b, &c});
	EXPECT_EQ(b.duration(), typical.duration);
	ASSERT_EQ(3u, typical.rows.size());
	EXPECT_EQ(5, typical.rows[2].count);
	EXPECT_EQ(20, typical.rows[2].own);
	std::vector<Difference> all = compare(typical, profile_of(c));
	ASSERT_EQ(2u, all.size());
	EXPECT_EQ("Rare::thing", all[0].name);
	EXPECT_EQ(140, all[1].growth);
	EXPECT_EQ(5, all[1].count_before);
}

/* A row that every other one has stays, with its parents. */
TEST(Typical, ParentsOfARowAreThere) {
	Transaction a = cart(3, 4), b = cart(0, 0);
	Request bare("/cart");
	Transaction c = bare.works(1).done();
	for (const auto &list : {std::vector<const Transaction *>{&a, &c}, {&c, &a}, {&a, &b, &c}}) {
		Profile typical = typical_profile(list);
		for (size_t i = 1; i < typical.rows.size(); i++) {
			EXPECT_LE(0, typical.rows[i].parent);
			EXPECT_GT(static_cast<int32_t>(i), typical.rows[i].parent);
		}
	}
}

TEST(Profile, IsBounded) {
	Request request("/");
	for (size_t i = 0; i < kaq::kMostProfileRows + 500; i++) {
		request.runs("f" + std::to_string(i), 1);
	}
	Transaction wide = request.done();
	Profile profile = profile_of(wide);
	EXPECT_EQ(kaq::kMostProfileRows, profile.rows.size());
	EXPECT_EQ(501, profile.rows[0].own);
	Request deep("/");
	for (int i = 0; i < 20000; i++) {
		deep.open(std::string(600, 'x'));
	}
	Profile typical = typical_profile({&wide});
	std::vector<Difference> all = compare(typical, profile_of(deep.done()));
	EXPECT_EQ(kaq::kMostDifferences, all.size());
	for (const Difference &each : all) {
		EXPECT_GE(1024u, each.path.size());
	}
}
