#include <gtest/gtest.h>

#include <sys/resource.h>

#include <fstream>

#include "sqlite_store_fixture.h"

namespace {

using namespace kaq;
using namespace kaq_test;

std::string all_bytes_below(const std::string &directory) {
	std::string bytes;
	for (const auto &entry : std::filesystem::recursive_directory_iterator(directory)) {
		std::ifstream file(entry.path(), std::ios::binary);
		bytes.append(std::istreambuf_iterator<char>(file), {});
	}
	return bytes;
}

TEST_F(SqliteStoreTest, GivesBackWhatWasPut) {
	Record one = record(1, kNow - 500);
	one.summary.cpu = 17;
	one.summary.memory = 4 << 20;
	one.summary.spans = 160;
	one.summary.queries = 61;
	one.summary.calls = 2;
	one.summary.failures = 3;
	one.summary.query_time = 40;
	one.summary.external_time = 30;
	one.summary.path = "/cart/7?x='\"%";
	one.summary.is_failed = true;
	one.serving = Serving::kThreads;
	one.verdict = {"61 times the same statement", 480, {"repeated-statement", "slow-call"}};
	put(one, R"({"a":1})");
	store().flush();
	std::optional<RequestRow> found = store().request(id_of(1));
	ASSERT_TRUE(found);
	const Summary &summary = found->summary;
	EXPECT_EQ(summary.id, id_of(1));
	EXPECT_EQ(summary.trace_id, one.summary.trace_id);
	EXPECT_EQ(summary.application, "shop");
	EXPECT_EQ(summary.name, "/cart");
	EXPECT_EQ(summary.path, one.summary.path);
	EXPECT_EQ(summary.method, "GET");
	EXPECT_EQ(summary.start, kNow - 500);
	EXPECT_EQ(summary.duration, 100);
	EXPECT_EQ(summary.cpu, 17);
	EXPECT_EQ(summary.memory, 4 << 20);
	EXPECT_EQ(summary.status, 200);
	EXPECT_EQ(summary.spans, 160);
	EXPECT_EQ(summary.queries, 61);
	EXPECT_EQ(summary.calls, 2);
	EXPECT_EQ(summary.failures, 3);
	EXPECT_EQ(summary.query_time, 40);
	EXPECT_EQ(summary.external_time, 30);
	EXPECT_TRUE(summary.is_web);
	EXPECT_TRUE(summary.is_failed);
	EXPECT_EQ(found->host, "shop.example");
	EXPECT_EQ(found->instance, "i1");
	EXPECT_EQ(found->serving, Serving::kThreads);
	EXPECT_EQ(found->verdict.sentence, one.verdict.sentence);
	EXPECT_EQ(found->verdict.gain, 480);
	EXPECT_EQ(found->verdict.kinds, one.verdict.kinds);
	EXPECT_TRUE(found->has_document);
	EXPECT_EQ(store().document(id_of(1)), R"({"a":1})");
}

TEST_F(SqliteStoreTest, IsReadableWithinASecondWithoutBeingTold) {
	put(record(1, kNow));
	auto end = std::chrono::steady_clock::now() + std::chrono::seconds(1);
	while (!store().request(id_of(1)) && std::chrono::steady_clock::now() < end) {
		std::this_thread::sleep_for(std::chrono::milliseconds(20));
	}
	EXPECT_TRUE(store().request(id_of(1)));
}

TEST_F(SqliteStoreTest, FindsARequestByTheBeginOfItsIdentifier) {
	for (int i = 1; i <= 50; i++) {
		put(record(i, kNow + i));
	}
	store().flush();
	EXPECT_EQ(store().request(id_of(7).substr(0, 8))->summary.id, id_of(7));
	EXPECT_EQ(store().trace_id((id_of(9) + id_of(-9)).substr(0, 20)), id_of(9) + id_of(-9));
	EXPECT_FALSE(store().request(id_of(7).substr(0, 3)));
	EXPECT_FALSE(store().request("' OR 1=1 --"));
	EXPECT_FALSE(store().request("ffffffff00000000"));
	EXPECT_FALSE(store().document("ffffffff00000000"));
}

TEST_F(SqliteStoreTest, ATraceIsInTheOrderOfItsStartsAcrossFiles) {
	settings_.file_time = 10 * kMinute;
	for (int i = 3; i > 0; i--) {
		Record one = record(i, kNow + i);
		one.summary.trace_id = "61c0ffee61c0ffee61c0ffee61c0ffee";
		put(one);
		store().flush();
		now_ += 20 * kMinute;
	}
	put(record(9, kNow));
	store().flush();
	EXPECT_GE(files().size(), 3u);
	EXPECT_EQ(ids(store().trace("61c0ffee61c0ffee61c0ffee61c0ffee")),
			  (std::vector<std::string>{id_of(1), id_of(2), id_of(3)}));
}

TEST_F(SqliteStoreTest, SearchIsNewestFirstAndSaysIfThereIsMore) {
	settings_.file_time = kMinute;
	for (int i = 0; i < 10; i++) {
		put(record(i + 1, kNow + i * kMinute));
		store().flush();
		now_ += kMinute;
	}
	Search search;
	search.limit = 4;
	Found found = store().search(search);
	EXPECT_EQ(ids(found.rows), (std::vector<std::string>{id_of(10), id_of(9), id_of(8), id_of(7)}));
	EXPECT_TRUE(found.has_more);
	search.limit = 10;
	found = store().search(search);
	EXPECT_EQ(found.rows.size(), 10u);
	EXPECT_FALSE(found.has_more);
	EXPECT_FALSE(found.is_partial);
	search.filter.range = {kNow + 2 * kMinute, kNow + 4 * kMinute};
	EXPECT_EQ(ids(store().search(search).rows), (std::vector<std::string>{id_of(4), id_of(3)}));
}

TEST_F(SqliteStoreTest, SearchForTheSlowestLooksAtAllFiles) {
	settings_.file_time = kMinute;
	for (int i = 0; i < 6; i++) {
		Record one = record(i + 1, kNow + i);
		one.summary.duration = (i * 5) % 6 * 100;
		put(one);
		store().flush();
		now_ += kMinute;
	}
	Search search;
	search.order = Search::Order::kSlowest;
	search.limit = 3;
	std::vector<int64_t> durations;
	for (const RequestRow &row : store().search(search).rows) {
		durations.push_back(row.summary.duration);
	}
	EXPECT_EQ(durations, (std::vector<int64_t>{500, 400, 300}));
}

TEST_F(SqliteStoreTest, SearchEndsWhenItsTimeIsUp) {
	for (int i = 0; i < 30000; i++) {
		put(record(i, kNow + i), "");
	}
	store().flush();
	Search search;
	search.time_limit = -1;
	search.filter.condition = {TextIs{TextField::kPath, "*x*y*"}};
	EXPECT_TRUE(store().search(search).is_partial);
	search.time_limit = 60000;
	EXPECT_FALSE(store().search(search).is_partial);
}

TEST_F(SqliteStoreTest, AFileEndsWithItsHourOrItsSize) {
	put(record(1, kNow));
	store().flush();
	now_ += kHour - 1;
	put(record(2, kNow));
	store().flush();
	EXPECT_EQ(files().size(), 1u);
	now_ += 1;
	put(record(3, kNow));
	store().flush();
	EXPECT_EQ(files().size(), 2u);
	close();
	settings_.file_bytes = 1;
	put(record(4, kNow));
	store().flush();
	EXPECT_EQ(files().size(), 3u);
}

TEST_F(SqliteStoreTest, GoesOnWithTheSameFileAfterARestart) {
	put(record(1, kNow));
	close();
	put(record(2, kNow));
	store().flush();
	EXPECT_EQ(files().size(), 1u);
	EXPECT_TRUE(store().request(id_of(1)));
	EXPECT_TRUE(store().request(id_of(2)));
	Search search;
	search.filter.condition = {TextIs{TextField::kApplication, "shop"}};
	EXPECT_EQ(store().search(search).rows.size(), 2u);
}

TEST_F(SqliteStoreTest, TheOldestFilesMakeRoom) {
	settings_.file_time = kMinute;
	settings_.most_bytes = 1;
	for (int i = 0; i < 5; i++) {
		put(record(i + 1, now_));
		store().flush();
		now_ += kMinute;
	}
	put(record(6, now_));
	settle();
	EXPECT_EQ(files().size(), 1u);
	EXPECT_TRUE(store().request(id_of(6)));
	EXPECT_FALSE(store().request(id_of(1)));
}

TEST_F(SqliteStoreTest, WhatIsTooOldGoes) {
	settings_.age = 3 * kHour;
	for (int i = 0; i < 6; i++) {
		put(record(i + 1, now_));
		store().flush();
		now_ += kHour;
	}
	put(record(7, now_));
	settle();
	EXPECT_FALSE(store().request(id_of(1)));
	EXPECT_FALSE(store().request(id_of(2)));
	EXPECT_TRUE(store().request(id_of(5)));
	EXPECT_TRUE(store().request(id_of(7)));
}

TEST_F(SqliteStoreTest, PinnedRequestsStayAndAreFoundOnce) {
	settings_.file_time = kMinute;
	settings_.most_bytes = 1;
	Record one = record(1, now_);
	one.texts = {{TextKind::kStatement, "SELECT a FROM product"}};
	one.serving = Serving::kOneAtATime;
	put(one, R"({"kept":true})");
	EXPECT_TRUE(store().pin(id_of(1)));
	EXPECT_TRUE(store().pin(one.summary.trace_id));
	EXPECT_FALSE(store().pin("ffffffff00000000"));
	Search search;
	search.filter.condition = {Words{WordField::kStatement, {"from", "product"}, false}};
	EXPECT_EQ(store().search(search).rows.size(), 1u);
	for (int i = 2; i < 5; i++) {
		now_ += kMinute;
		put(record(i, now_));
		store().flush();
	}
	settle();
	EXPECT_EQ(files().size(), 1u);
	ASSERT_EQ(store().search(search).rows.size(), 1u);
	EXPECT_TRUE(store().search(search).rows[0].is_pinned);
	EXPECT_EQ(store().search(search).rows[0].serving, Serving::kOneAtATime);
	EXPECT_EQ(store().document(id_of(1)), R"({"kept":true})");
	close();
	EXPECT_TRUE(store().request(id_of(1))->is_pinned);
	EXPECT_TRUE(store().unpin(id_of(1)));
	EXPECT_FALSE(store().request(id_of(1)));
	EXPECT_FALSE(store().unpin(id_of(1)));
}

TEST_F(SqliteStoreTest, WhatIsForgottenIsGoneFromTheDisk) {
	for (int i = 1; i <= 20; i++) {
		Record one = record(i, now_);
		one.summary.path = i % 2 ? "/wanted" : "/plantedpath";
		one.texts = {{TextKind::kFunction, i % 2 ? "wantedfunction" : "plantedfunction"},
					 {TextKind::kFunction, "sharedfunction"}};
		one.host = i % 2 ? "shop.example" : "plantedhost";
		put(one, i % 2 ? "{}" : R"({"x":"planteddocument"})");
	}
	store().flush();
	store().pin(id_of(2));
	EXPECT_NE(all_bytes_below(settings_.directory).find("planted"), std::string::npos);
	Filter filter;
	filter.condition = {TextIs{TextField::kPath, "/planted*"}};
	EXPECT_EQ(store().forget(filter), 10) << "the pinned one has a copy, and is one request";
	Search search;
	EXPECT_EQ(store().search(search).rows.size(), 10u);
	search.filter.condition = {Words{WordField::kFunction, {"sharedfunction"}, false}};
	EXPECT_EQ(store().search(search).rows.size(), 10u);
	EXPECT_EQ(all_bytes_below(settings_.directory).find("planted"), std::string::npos);
	put(record(21, now_));
	store().flush();
	EXPECT_TRUE(store().request(id_of(21)));
	close();
	EXPECT_EQ(all_bytes_below(settings_.directory).find("planted"), std::string::npos);
}

TEST_F(SqliteStoreTest, ADamagedFileIsPutAsideAndTheRestGoesOn) {
	settings_.file_time = kMinute;
	put(record(1, now_));
	store().flush();
	now_ += kMinute;
	put(record(2, now_));
	close();
	std::string oldest = files().front();
	std::filesystem::remove(oldest + "-wal");
	std::ofstream(oldest, std::ios::binary) << std::string(100000, 'x');
	EXPECT_FALSE(store().request(id_of(1)));
	EXPECT_TRUE(store().request(id_of(2)));
	ASSERT_EQ(store().status().damages.size(), 1u);
	EXPECT_NE(store().status().damages[0].find("damaged"), std::string::npos);
}

TEST_F(SqliteStoreTest, ATruncatedNewestFileIsReplaced) {
	for (int i = 1; i < 300; i++) {
		put(record(i, now_), std::string(500, 'a'));
	}
	close();
	std::string newest = files().back();
	std::filesystem::resize_file(newest, std::filesystem::file_size(newest) / 2);
	put(record(1000, now_));
	store().flush();
	EXPECT_TRUE(store().request(id_of(1000)));
	EXPECT_EQ(store().status().requests_lost, 0);
}

TEST_F(SqliteStoreTest, DamagedFiguresAreBegunAnew) {
	put(record(1, now_));
	close();
	std::string path = settings_.directory + "/figures.sqlite";
	std::filesystem::remove(path + "-wal");
	std::ofstream(path, std::ios::binary) << std::string(100000, 'x');
	put(record(2, now_));
	store().flush();
	put(record(3, now_));
	store().flush();
	std::vector<FigureRow> rows = store().figures({});
	ASSERT_EQ(rows.size(), 1u);
	EXPECT_EQ(rows[0].figures.count, 2);
	EXPECT_EQ(store().status().damages.size(), 1u);
}

TEST_F(SqliteStoreTest, AFullDiskLosesCountedRequestsAndNothingElse) {
	put(record(1, now_));
	store().flush();
	rlimit limit;
	getrlimit(RLIMIT_FSIZE, &limit);
	rlimit small = {200 * 1024, limit.rlim_max};
	signal(SIGXFSZ, SIG_IGN);
	setrlimit(RLIMIT_FSIZE, &small);
	for (int i = 2; i <= 41; i++) {
		Record one = record(i, now_);
		one.document.assign(20000, static_cast<char>(i));
		store().put(std::move(one));
	}
	store().flush();
	setrlimit(RLIMIT_FSIZE, &limit);
	EXPECT_EQ(store().status().requests_lost, 40);
	EXPECT_FALSE(store().status().is_writing);
	put(record(42, now_));
	store().flush();
	EXPECT_TRUE(store().status().is_writing);
	EXPECT_TRUE(store().request(id_of(1)));
	EXPECT_TRUE(store().request(id_of(42)));
	EXPECT_EQ(store().figures({}).at(0).figures.count, 42);
}

TEST_F(SqliteStoreTest, FiguresOfMinutesWithoutAFileAreWrittenWhenThereIsOne) {
	store();
	std::string path = settings_.directory + "/figures.sqlite";
	std::filesystem::create_directory(path);
	for (int i = 0; i < 100; i++) {
		put(record(i, now_));
		store().put_asked(now_, {{"shop", "/cart", 2, 1}});
		store().flush();
		now_ += i % 10 ? 0 : kMinute;
	}
	EXPECT_FALSE(store().status().is_writing);
	std::filesystem::remove(path);
	store().flush();
	EXPECT_EQ(store().figures({}).at(0).figures.count, 100);
	EXPECT_EQ(store().asked({}, "").at(0).asked, 200);
}

TEST_F(SqliteStoreTest, WorksOnWhenTheClockStepsBack) {
	put(record(1, now_));
	store().flush();
	now_ -= 10 * kHour;
	put(record(2, now_));
	store().flush();
	EXPECT_TRUE(store().request(id_of(1)));
	EXPECT_TRUE(store().request(id_of(2)));
	now_ += 20 * kHour;
	put(record(3, now_));
	store().flush();
	EXPECT_EQ(store().search({}).rows.size(), 3u);
}

TEST_F(SqliteStoreTest, MarksAreToldInOrder) {
	store().add_mark({kNow + 5, "", "release 2"});
	store().add_mark({kNow + 1, "shop", "release 1"});
	std::vector<Mark> marks = store().marks({kNow, kNow + 10});
	ASSERT_EQ(marks.size(), 2u);
	EXPECT_EQ(marks[0].text, "release 1");
	EXPECT_EQ(marks[0].application, "shop");
	EXPECT_EQ(marks[1].time, kNow + 5);
	EXPECT_TRUE(store().marks({kNow + 6, kNow + 10}).empty());
}

TEST_F(SqliteStoreTest, OpenForReadingItChangesNothing) {
	put(record(1, now_));
	close();
	settings_.is_read_only = true;
	EXPECT_TRUE(store().request(id_of(1)));
	EXPECT_EQ(store().figures({}).size(), 1u);
	EXPECT_THROW(store().pin(id_of(1)), StoreError);
	EXPECT_THROW(store().forget({}), StoreError);
}

TEST_F(SqliteStoreTest, FiguresThatAreAboutToBeMadeAreNone) {
	std::filesystem::create_directory(settings_.directory);
	settings_.is_read_only = true;
	SQLite::Database(settings_.directory + "/figures.sqlite",
					 SQLite::OPEN_READWRITE | SQLite::OPEN_CREATE)
		.exec("PRAGMA journal_mode = WAL");
	EXPECT_TRUE(store().figures({}).empty());
	EXPECT_TRUE(store().asked({}, "").empty());
}

TEST_F(SqliteStoreTest, ADirectoryThatCannotBeMadeIsSaid) {
	settings_.directory = "/dev/null/store";
	EXPECT_THROW(store(), StoreError);
}

} // namespace
