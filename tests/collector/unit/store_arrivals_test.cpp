/* Requests in the order in which they arrived. */
#include <gtest/gtest.h>

#include <fstream>

#include "sqlite_store_fixture.h"

namespace {

using namespace kaq;
using namespace kaq_test;

class StoreArrivalsTest : public SqliteStoreTest {
protected:
	Arrivals read(size_t most_rows = 1000, size_t most_bytes = 1 << 20) {
		ArrivalSearch search;
		search.after = place_;
		search.wants = [this](const RequestRow &row) { return row.summary.status != unwanted_; };
		search.most_rows = most_rows;
		search.most_bytes = most_bytes;
		Arrivals found = store().arrivals(search);
		place_ = found.next;
		return found;
	}

	/* Its start says nothing about when it arrives. */
	void put_one(int64_t number, const std::string &document = "{}") {
		put(record(number, now_ - number * 1000), document);
	}

	/* In a file of its own. */
	void put_in_new_file(int64_t number) {
		now_ += 2 * kHour;
		put_one(number);
		store().flush();
	}

	static std::vector<std::string> ids_in(const Arrivals &found) {
		std::vector<std::string> ids;
		for (const Arrivals::Request &each : found.requests) {
			ids.push_back(each.row.summary.id);
		}
		return ids;
	}

	static std::vector<std::string> ids_of_all(const std::vector<int64_t> &numbers) {
		std::vector<std::string> ids;
		for (int64_t number : numbers) {
			ids.push_back(id_of(number));
		}
		return ids;
	}

	StorePlace place_;
	int64_t unwanted_ = -1;
};

TEST_F(StoreArrivalsTest, ComeInTheirOrderAndOnce) {
	EXPECT_TRUE(read().requests.empty());
	put_one(3);
	put_one(1);
	store().flush();
	Arrivals found = read();
	EXPECT_EQ(ids_in(found), ids_of_all({3, 1}));
	EXPECT_EQ(found.requests[0].document, "{}");
	EXPECT_FALSE(found.has_more);
	EXPECT_TRUE(read().requests.empty());
	put_one(2);
	store().flush();
	EXPECT_EQ(ids_in(read()), ids_of_all({2}));
}

TEST_F(StoreArrivalsTest, GoOnInTheNextFile) {
	put_one(1);
	store().flush();
	put_in_new_file(2);
	put_in_new_file(3);
	EXPECT_EQ(files().size(), 3u);
	EXPECT_EQ(ids_in(read(2)), ids_of_all({1, 2}));
	EXPECT_EQ(ids_in(read()), ids_of_all({3}));
	EXPECT_FALSE(read().has_more);
}

TEST_F(StoreArrivalsTest, ABoundEndsWhatIsReadAtOnce) {
	for (int64_t i = 1; i <= 5; i++) {
		put_one(i, std::string(1000, 'x'));
	}
	store().flush();
	Arrivals found = read(2);
	EXPECT_EQ(found.requests.size(), 2u);
	EXPECT_TRUE(found.has_more);
	found = read(1000, 1001);
	EXPECT_EQ(found.requests.size(), 2u);
	EXPECT_TRUE(found.has_more);
	found = read();
	EXPECT_EQ(found.requests.size(), 1u);
	EXPECT_FALSE(found.has_more);
}

TEST_F(StoreArrivalsTest, APlaceIsBehindItsRequest) {
	for (int64_t i = 1; i <= 3; i++) {
		put_one(i);
	}
	store().flush();
	Arrivals found = read();
	place_ = found.requests[0].place;
	EXPECT_EQ(ids_in(read()), ids_of_all({2, 3}));
}

TEST_F(StoreArrivalsTest, WhatIsNotWantedOrHasNoDocumentIsPassed) {
	put_one(1, "");
	Record unwanted = record(2, now_);
	unwanted.summary.status = 404;
	put(unwanted);
	put_one(3);
	store().flush();
	unwanted_ = 404;
	EXPECT_EQ(ids_in(read()), ids_of_all({3}));
}

TEST_F(StoreArrivalsTest, AFileThatIsGoneIsAGap) {
	put_one(1);
	store().flush();
	read();
	put_in_new_file(2);
	std::string first = files().front();
	settings_.age = kHour;
	store().use(settings_);
	now_ += kHour;
	settle();
	ASSERT_NE(files().front(), first);
	Arrivals found = read();
	EXPECT_TRUE(found.has_gap);
	EXPECT_EQ(ids_in(found), ids_of_all({2}));
	EXPECT_FALSE(read().has_gap);
}

TEST_F(StoreArrivalsTest, WhatWasForgottenDoesNotHideWhatComes) {
	put_one(1);
	put_one(2);
	store().flush();
	EXPECT_EQ(read().requests.size(), 2u);
	Filter all;
	EXPECT_EQ(store().forget(all), 2);
	EXPECT_TRUE(read().requests.empty());
	close();
	put_one(3);
	store().flush();
	EXPECT_EQ(ids_in(read()), ids_of_all({3}));
}

TEST_F(StoreArrivalsTest, ADamagedFileIsPassed) {
	put_one(1);
	store().flush();
	put_in_new_file(2);
	std::string first = files().front();
	close();
	std::ofstream(first, std::ios::binary) << std::string(8192, 'x');
	EXPECT_EQ(ids_in(read()), ids_of_all({2}));
}

TEST_F(StoreArrivalsTest, WhatIsPinnedComesOnce) {
	put_one(1);
	store().flush();
	ASSERT_TRUE(store().pin(id_of(1)));
	store().flush();
	EXPECT_EQ(ids_in(read()), ids_of_all({1}));
	EXPECT_TRUE(read().requests.empty());
}

TEST_F(StoreArrivalsTest, TheLastPlaceIsBehindAll) {
	place_ = store().last_place();
	put_one(1);
	store().flush();
	EXPECT_EQ(store().requests_after(place_), 1);
	EXPECT_EQ(ids_in(read()), ids_of_all({1}));
	put_in_new_file(2);
	put_one(3);
	store().flush();
	EXPECT_EQ(store().requests_after(place_), 2);
	EXPECT_EQ(store().requests_after(StorePlace()), 3);
	place_ = store().last_place();
	EXPECT_TRUE(read().requests.empty());
	EXPECT_EQ(store().requests_after(place_), 0);
}

} // namespace
