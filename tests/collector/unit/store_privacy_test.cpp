/* Who may read what a store writes: its owner alone, whatever the process makes of new files. */
#include <sys/stat.h>

#include <fstream>

#include "sqlite_store_fixture.h"

using namespace kaq_test;

class StorePrivacy : public SqliteStoreTest {
protected:
	StorePrivacy() : mask_(umask(0)) {
	}
	~StorePrivacy() override {
		umask(mask_);
	}

	static unsigned mode_of(const std::string &path) {
		struct stat facts = {};
		return stat(path.c_str(), &facts) == 0 ? facts.st_mode & 0777 : 0;
	}

	void expect_all_private() {
		int count = 0;
		for (const auto &entry : std::filesystem::directory_iterator(settings_.directory)) {
			EXPECT_EQ(0600u, mode_of(entry.path().string())) << entry.path();
			count++;
		}
		EXPECT_LE(3, count);
	}

private:
	const mode_t mask_;
};

TEST_F(StorePrivacy, FilesAndTheirDirectoryAreTheOwnersAlone) {
	settings_.directory += "/new/";
	put(record(1, now_));
	store().flush();
	store().pin(id_of(1));
	store().add_mark({now_, "", "release"});
	store().flush();
	EXPECT_EQ(0700u, mode_of(settings_.directory));
	expect_all_private();
}

TEST_F(StorePrivacy, FilesOfOthersBecomeTheOwnersAlone) {
	put(record(1, now_));
	store().flush();
	close();
	std::ofstream(settings_.directory + "/damaged.sqlite") << "x";
	for (const auto &entry : std::filesystem::directory_iterator(settings_.directory)) {
		chmod(entry.path().c_str(), 0644);
	}
	store().flush();
	expect_all_private();
}

/* As of a group that may list it. */
TEST_F(StorePrivacy, ADirectoryThatIsThereStaysAsItIs) {
	std::filesystem::create_directory(settings_.directory);
	chmod(settings_.directory.c_str(), 0750);
	put(record(1, now_));
	store().flush();
	EXPECT_EQ(0750u, mode_of(settings_.directory));
	close();
}
