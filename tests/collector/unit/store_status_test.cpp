/* What a store tells about itself, and what it may be told while it runs. */
#include <gtest/gtest.h>

#include "sqlite_store_fixture.h"

namespace {

using namespace kaq;
using namespace kaq_test;

using StoreStatusTest = SqliteStoreTest;

/* Requests and documents of each part, as the store tells them and as they are. */
using Rows = std::vector<std::pair<int64_t, int64_t>>;

Rows rows_of(const StoreStatus &status) {
	Rows rows;
	for (const StoreStatus::Part &part : status.parts) {
		rows.emplace_back(part.requests, part.documents);
	}
	return rows;
}

Rows counted_rows(SqliteSettings settings) {
	settings.is_read_only = true;
	return rows_of(SqliteStore(settings).status());
}

TEST_F(StoreStatusTest, KnowsHowManyRowsThereAreWhateverHappensToThem) {
	settings_.file_time = kMinute;
	auto expect = [this](const Rows &rows) {
		store().flush();
		EXPECT_EQ(rows_of(store().status()), rows);
		EXPECT_EQ(counted_rows(settings_), rows);
	};
	put(record(1, now_));
	put(record(2, now_), "");
	expect({{2, 1}});
	now_ += kMinute;
	put(record(3, now_));
	put(record(4, now_));
	expect({{2, 1}, {2, 2}});
	close();
	expect({{2, 1}, {2, 2}});
	put(record(5, now_));
	expect({{2, 1}, {3, 3}});
	store().pin(id_of(1));
	expect({{1, 1}, {2, 1}, {3, 3}});
	store().pin(id_of(2));
	expect({{2, 1}, {2, 1}, {3, 3}});
	store().unpin(id_of(1));
	expect({{1, 0}, {2, 1}, {3, 3}});
	Filter fourth;
	fourth.condition = {TextIs{TextField::kId, id_of(4)}};
	EXPECT_EQ(store().forget(fourth), 1);
	expect({{1, 0}, {2, 1}, {2, 2}});
	put(record(6, now_));
	expect({{1, 0}, {2, 1}, {3, 3}});
}

/* They are counted once: what a third party removes behind the store's back is not noticed. */
TEST_F(StoreStatusTest, TakesOverSizesAndTimesWhileItRuns) {
	settings_.file_time = kMinute;
	for (int i = 1; i <= 5; i++) {
		put(record(i, now_));
		store().flush();
		now_ += kMinute;
	}
	EXPECT_EQ(files().size(), 5u);
	SqliteSettings other = settings_;
	other.directory = "/elsewhere";
	other.age = 3 * kMinute;
	other.most_bytes = 100 << 20;
	other.figures.most_bytes = 50 << 20;
	store().use(other);
	settle();
	EXPECT_EQ(store().status().most_bytes, 100 << 20);
	EXPECT_EQ(store().status().most_figure_bytes, 50 << 20);
	EXPECT_LT(files().size(), 5u);
	EXPECT_FALSE(store().request(id_of(1)));
	EXPECT_TRUE(store().request(id_of(5)));
	other.file_time = kHour;
	other.age = 24 * kHour;
	store().use(other);
	store().flush();
	size_t count = files().size();
	for (int i = 6; i <= 8; i++) {
		put(record(i, now_));
		store().flush();
		now_ += kMinute;
	}
	EXPECT_EQ(files().size(), count);
}

TEST_F(StoreStatusTest, CountsRowsOnce) {
	settings_.file_time = kMinute;
	put(record(1, now_));
	store().flush();
	now_ += kMinute;
	put(record(2, now_));
	close();
	ASSERT_EQ(rows_of(store().status()), (Rows{{1, 1}, {1, 1}}));
	for (const std::string &file : files()) {
		SQLite::Database(file, SQLite::OPEN_READWRITE).exec("DELETE FROM requests");
	}
	ASSERT_EQ(counted_rows(settings_), (Rows{{0, 1}, {0, 1}}));
	EXPECT_EQ(rows_of(store().status()), (Rows{{1, 1}, {1, 1}}));
}

} // namespace
