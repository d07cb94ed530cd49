/* What the store makes of files that are damaged anywhere, gone, or of another version. */
#include <gtest/gtest.h>

#include <fstream>
#include <random>

#include <SQLiteCpp/Database.h>

#include "sqlite_store_fixture.h"

namespace fs = std::filesystem;

using namespace kaq;
using namespace kaq_test;

namespace {

class StoreDamage : public SqliteStoreTest {
protected:
	std::string path_of(const std::string &name) const {
		return settings_.directory + "/" + name;
	}

	/* A request with texts to be found by and a document of some size. */
	void put_whole(int64_t number) {
		Record one = record(number, now_);
		one.summary.path = "/cart/" + std::to_string(number);
		one.texts = {{TextKind::kStatement, "SELECT a FROM t" + std::to_string(number % 50)},
					 {TextKind::kFunction, "Cart::items"}};
		one.verdict.sentence = "slow";
		one.verdict.kinds = {"slow-code"};
		std::string document(3000, 'd');
		for (char &character : document) {
			character = static_cast<char>('a' + random_() % 26);
		}
		put(std::move(one), "{\"a\":\"" + document + "\"}");
	}

	static void remove_all_of(const std::string &path) {
		for (const char *companion : {"", "-wal", "-shm"}) {
			fs::remove(path + companion);
		}
	}

	/* Whatever can be asked; an answer is one, and so is that there is none. */
	void ask_everything() {
		Search search;
		search.filter.condition = {Words{WordField::kAnywhere, {"select"}, false}};
		for (const auto &ask : std::vector<std::function<void()>>{
				 [&] { store().search({}); },
				 [&] { store().search(search); },
				 [&] { store().request(id_of(7)); },
				 [&] { store().trace(id_of(7) + id_of(-7)); },
				 [&] { store().document(id_of(7)); },
				 [&] { store().figures({}); },
				 [&] { store().curve({}, kMinute); },
				 [&] { store().asked({}, ""); },
				 [&] { store().marks({}); },
				 [&] { store().status(); },
				 [&] { store().pin(id_of(9)); },
			 }) {
			try {
				ask();
			} catch (const StoreError &) {
				/* Said rather than made up. */
			}
		}
	}

	std::mt19937_64 random_{11};
};

TEST_F(StoreDamage, AFileStillEndsWithItsHourAfterARestart) {
	put(record(1, now_));
	close();
	now_ += kHour / 2;
	put(record(2, now_));
	store().flush();
	EXPECT_EQ(files().size(), 1u);
	now_ += kHour / 2;
	put(record(3, now_));
	store().flush();
	EXPECT_EQ(files().size(), 2u);
}

TEST_F(StoreDamage, AFileThatSomebodyRemovedIsMadeAnew) {
	put(record(1, now_));
	store().flush();
	EXPECT_TRUE(store().request(id_of(1)));
	EXPECT_EQ(store().figures({}).at(0).figures.count, 1);
	remove_all_of(files().front());
	remove_all_of(path_of("figures.sqlite"));
	put(record(2, now_));
	store().flush();
	EXPECT_TRUE(store().request(id_of(2)));
	EXPECT_FALSE(store().request(id_of(1)));
	EXPECT_EQ(store().figures({}).at(0).figures.count, 1);
	fs::remove_all(settings_.directory);
	put(record(3, now_));
	store().flush();
	EXPECT_TRUE(store().request(id_of(3)));
	EXPECT_EQ(store().status().requests_lost, 0);
	EXPECT_EQ(store().figures({}).at(0).figures.count, 1);
}

TEST_F(StoreDamage, AFileThatIsCutShortWhileItIsReadEndsNothing) {
	for (int i = 1; i <= 1500; i++) {
		put_whole(i);
	}
	store().flush();
	now_ += kHour;
	put_whole(2000);
	close();
	Search search;
	search.limit = 2000;
	EXPECT_EQ(store().search(search).rows.size(), 1501u);
	std::string oldest = files().front();
	ASSERT_GT(fs::file_size(oldest), 1u << 20);
	fs::resize_file(oldest, 200 * 1024);
	for (int i = 1; i <= 1500; i += 100) {
		store().document(id_of(i));
	}
	store().search(search);
	EXPECT_TRUE(store().document(id_of(2000)));
	EXPECT_EQ(store().status().damages.size(), 1u);
}

TEST_F(StoreDamage, PinnedRequestsOfAnotherVersionAreLeftAlone) {
	put(record(1, now_));
	ASSERT_TRUE(store().pin(id_of(1)));
	close();
	SQLite::Database(path_of("pinned.sqlite"), SQLite::OPEN_READWRITE)
		.exec("PRAGMA user_version = 99");
	store().flush();
	EXPECT_TRUE(fs::exists(path_of("pinned.sqlite")));
	EXPECT_FALSE(store().status().damages.empty());
}

/* Bytes changed and cut off anywhere: whatever is left is told, and what comes next is kept. */
TEST_F(StoreDamage, DamageAnywhereIsSurvived) {
	for (int i = 1; i <= 150; i++) {
		put_whole(i);
		if (i == 75) {
			store().put_asked(now_, {{"shop", "/cart", 2, 1}});
			store().add_mark({now_, "", "release"});
			ASSERT_TRUE(store().pin(id_of(3)));
			now_ += kHour;
		}
	}
	close();
	const std::string whole = settings_.directory;
	int harmed = 0;
	for (int round = 0; round < 25; round++) {
		settings_.directory = directory_.path() + "/round";
		fs::remove_all(settings_.directory);
		fs::copy(whole, settings_.directory);
		std::vector<std::string> all = files();
		all.push_back(path_of("figures.sqlite"));
		all.push_back(path_of("pinned.sqlite"));
		const std::string &path = all[random_() % all.size()];
		const auto size = fs::file_size(path);
		if (random_() % 4 == 0) {
			fs::resize_file(path, random_() % size);
		} else {
			std::fstream file(path, std::ios::in | std::ios::out | std::ios::binary);
			for (auto left = 1 + random_() % 200; left > 0; left--) {
				file.seekp(static_cast<std::streamoff>(random_() % size));
				file.put(static_cast<char>(random_()));
			}
		}
		ask_everything();
		put_whole(1000);
		store().flush();
		harmed += store().status().damages.empty() ? 0 : 1;
		put_whole(1001);
		store().flush();
		EXPECT_TRUE(store().request(id_of(1001))) << round << " " << path;
		close();
	}
	EXPECT_GT(harmed, 4);
}

} // namespace
