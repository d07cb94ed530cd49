/* What becomes of files that are damaged, of clocks that step, of what cannot be written. */
#include <gtest/gtest.h>

#include <chrono>
#include <fstream>
#include <thread>

#include "sqlite_store_fixture.h"

namespace {

using namespace kaq;
using namespace kaq_test;

constexpr std::streamoff kPage = 4096;
constexpr int64_t kRequests = 300;

class StoreFaultTest : public SqliteStoreTest {
protected:
	/* A closed file with that many requests, which no compression makes small. */
	void fill() {
		uint64_t random = 1;
		for (int64_t i = 1; i <= kRequests; i++) {
			std::string document;
			while (document.size() < 2000) {
				random = random * 6364136223846793005u + 1442695040888963407u;
				document += std::to_string(random);
			}
			put(record(i, now_ + i), document);
		}
		close();
	}

	void damage(const std::string &path, std::streamoff page) {
		std::fstream file(path, std::ios::binary | std::ios::in | std::ios::out);
		file.seekp(page * kPage);
		file << std::string(kPage, '\xff');
	}

	/* What was said last about the first damage, once that has these words. */
	std::string wait_for(const std::string &words) {
		auto end = std::chrono::steady_clock::now() + std::chrono::seconds(40);
		std::string text;
		while (std::chrono::steady_clock::now() < end) {
			std::vector<std::string> damages = store().status().damages;
			text = damages.empty() ? "" : damages[0];
			if (text.find(words) != std::string::npos) {
				break;
			}
			std::this_thread::sleep_for(std::chrono::milliseconds(50));
		}
		return text;
	}

	std::vector<std::string> asides() {
		std::vector<std::string> names;
		for (const auto &entry : std::filesystem::directory_iterator(settings_.directory)) {
			std::string name = entry.path().filename();
			if (name.rfind("damaged-", 0) == 0) {
				names.push_back(name);
			}
		}
		return names;
	}

	Found all() {
		Search search;
		search.limit = 1000;
		return store().search(search);
	}
};

TEST_F(StoreFaultTest, WhatCanBeReadOfADamagedFileIsSaved) {
	fill();
	/* One of the requests, which are few pages, and some of the documents. */
	auto pages = static_cast<std::streamoff>(std::filesystem::file_size(files().back())) / kPage;
	for (std::streamoff page = pages / 3; page < pages; page += pages / 3) {
		damage(files().back(), page);
	}
	std::string told = wait_for("could be saved");
	EXPECT_NE(told.find("could be saved"), std::string::npos) << told;
	Found found = all();
	EXPECT_GE(found.rows.size(), 200u);
	EXPECT_LE(found.rows.size(), 300u);
	EXPECT_EQ(found.damages, std::vector<std::string>{told});
	size_t documents = 0;
	for (const RequestRow &row : found.rows) {
		documents += store().document(row.summary.id) ? 1 : 0;
	}
	EXPECT_GE(documents, 200u);
	EXPECT_EQ(asides().size(), 1u);
	put(record(1000, now_));
	store().flush();
	EXPECT_TRUE(store().request(id_of(1000)));
}

TEST_F(StoreFaultTest, WhatIsLostIsToldAfterARestartAndWhereItMayBeMissed) {
	settings_.file_time = kHour;
	fill();
	std::string path = files().back();
	now_ += 2 * kHour;
	put(record(1000, now_));
	close();
	std::filesystem::resize_file(path, std::filesystem::file_size(path) / 2);
	std::string told = wait_for("could be saved");
	EXPECT_NE(told.find("lost"), std::string::npos) << told;
	EXPECT_GE(all().rows.size(), 50u) << "what is cut off takes not everything with it";
	EXPECT_EQ(asides().size(), 1u);
	close();
	EXPECT_EQ(store().status().damages.size(), 1u);
	EXPECT_EQ(all().damages.size(), 1u);
	Search later;
	later.filter.range.from = now_;
	EXPECT_TRUE(store().search(later).damages.empty());
	EXPECT_EQ(asides().size(), 1u);
}

TEST_F(StoreFaultTest, WhatWasPutAsideGoesWithItsTimeAndIsForgottenToo) {
	fill();
	std::ofstream(files().back(), std::ios::binary) << std::string(100000, 'x');
	wait_for("could be saved");
	EXPECT_EQ(asides().size(), 1u);
	Filter filter;
	filter.condition = {TextIs{TextField::kPath, "/none"}};
	EXPECT_EQ(store().forget(filter), 0);
	EXPECT_TRUE(asides().empty());
	ASSERT_EQ(store().status().damages.size(), 1u) << "that they are lost stays known";
	EXPECT_NE(store().status().damages[0].find("removed"), std::string::npos);
}

TEST_F(StoreFaultTest, NotTooManyStay) {
	for (int i = 0; i < 8; i++) {
		put(record(i + 1, now_));
		close();
		std::ofstream(files().back(), std::ios::binary) << std::string(100000, 'x');
		store().flush();
		now_ += kMinute;
	}
	EXPECT_LE(asides().size(), 5u);
	EXPECT_GE(store().status().damages.size(), 5u);
}

TEST_F(StoreFaultTest, WhoOnlyReadsLeavesTheFileWhereItIs) {
	fill();
	std::ofstream(files().back(), std::ios::binary) << std::string(100000, 'x');
	settings_.is_read_only = true;
	EXPECT_TRUE(all().rows.empty());
	EXPECT_EQ(all().damages.size(), 1u);
	EXPECT_EQ(files().size(), 1u);
	EXPECT_TRUE(asides().empty());
}

TEST_F(StoreFaultTest, ForgottenRequestsAreNoExamplesOfFigures) {
	put(record(1, now_));
	Record slow = record(2, now_);
	slow.summary.duration = 5000;
	slow.summary.path = "/secret";
	put(slow);
	store().flush();
	ASSERT_EQ(store().figures({}).at(0).figures.example, id_of(2));
	Filter filter;
	filter.condition = {TextIs{TextField::kPath, "/secret"}};
	EXPECT_EQ(store().forget(filter), 1);
	EXPECT_EQ(store().figures({}).at(0).figures.example, "");
	EXPECT_EQ(store().figures({}).at(0).figures.count, 2);
	close();
	std::ifstream file(settings_.directory + "/figures.sqlite", std::ios::binary);
	std::string bytes(std::istreambuf_iterator<char>(file), {});
	EXPECT_EQ(bytes.find(id_of(2)), std::string::npos);
}

/* A file's name stays ahead of the clock until that has caught up. */
TEST_F(StoreFaultTest, AClockThatStepsBackMakesOneFileAndNotOneForEachBatch) {
	auto put_some = [this](int64_t first) {
		for (int64_t i = first; i < first + 10; i++) {
			put(record(i, now_));
			store().flush();
		}
	};
	put_some(100);
	ASSERT_EQ(files().size(), 1u);
	now_ -= 6 * kHour;
	put_some(200);
	EXPECT_EQ(files().size(), 2u);
	now_ += 30 * kMinute;
	put_some(300);
	EXPECT_EQ(files().size(), 2u);
	now_ += 31 * kMinute;
	put_some(400);
	EXPECT_EQ(files().size(), 3u) << "an hour by the new clock";
	close();
	put_some(500);
	EXPECT_EQ(files().size(), 3u);
	Search search;
	search.limit = 1000;
	EXPECT_EQ(store().search(search).rows.size(), 50u);
}

TEST_F(StoreFaultTest, NamesWithNulsAreKeptAsTheyAre) {
	using namespace std::string_literals;
	int number = 1;
	for (const std::string &host : {"shop"s, "shop\0a"s, "shop\0b"s, "\0"s}) {
		Record one = record(number++, now_);
		one.host = one.instance = one.summary.name = one.summary.method = host;
		one.summary.application = one.summary.path = host;
		one.texts = {{TextKind::kFunction, host}};
		put(one);
	}
	store().flush();
	EXPECT_EQ(store().status().requests_lost, 0);
	ASSERT_TRUE(store().request(id_of(2)));
	EXPECT_EQ(store().request(id_of(2))->host, "shop\0a"s);
	EXPECT_EQ(store().request(id_of(3))->summary.application, "shop\0b"s);
	close();
	put(record(9, now_));
	store().flush();
	EXPECT_EQ(store().search({}).rows.size(), 5u);
}

TEST_F(StoreFaultTest, ARequestThatCannotBeWrittenTakesNoOtherWithIt) {
	put(record(1, now_));
	store().flush();
	SQLite::Database(files().back(), SQLite::OPEN_READWRITE)
		.exec("CREATE TRIGGER refuse BEFORE INSERT ON requests WHEN NEW.path = '/refused' "
			  "BEGIN SELECT RAISE(ABORT, 'refused'); END");
	close();
	for (int64_t i = 2; i < 12; i++) {
		Record one = record(i, now_);
		/* The first to have a name may be the one that is refused. */
		one.summary.name = "/" + std::to_string(i / 2);
		one.texts = {{TextKind::kFunction, "function" + std::to_string(i / 2)}};
		if (i % 2 == 0) {
			one.summary.path = "/refused";
		}
		put(one);
	}
	store().flush();
	EXPECT_EQ(store().status().requests_lost, 5);
	Search search;
	EXPECT_EQ(store().search(search).rows.size(), 6u);
	EXPECT_EQ(store().request(id_of(7))->summary.name, "/3");
	search.filter.condition = {Words{WordField::kFunction, {"function3"}, false}};
	EXPECT_EQ(ids(store().search(search).rows), (std::vector<std::string>{id_of(7)}));
	EXPECT_EQ(store().status().parts.back().requests, 6);
}

} // namespace
