/* A store in a directory of its own, with a clock that the test moves. */
#pragma once

#include <gtest/gtest.h>

#include <atomic>
#include <filesystem>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "records.h"
#include "store/sqlite_store.h"
#include "util/compression.h"

namespace kaq_test {

inline constexpr int64_t kMinute = 60 * 1000;
inline constexpr int64_t kHour = 60 * kMinute;
/* Begin of an hour. */
inline constexpr int64_t kNow = 1700000000LL * 1000 - (1700000000LL * 1000) % kHour;

inline std::vector<std::string> ids(const std::vector<kaq::RequestRow> &rows) {
	std::vector<std::string> ids;
	for (const kaq::RequestRow &row : rows) {
		ids.push_back(row.summary.id);
	}
	return ids;
}

class SqliteStoreTest : public testing::Test {
protected:
	SqliteStoreTest() {
		settings_.directory = directory_.path() + "/store";
		settings_.clock = [this] { return now_.load(); };
		settings_.documents.keeps_all = true;
	}

	kaq::SqliteStore &store() {
		if (!store_) {
			store_ = std::make_unique<kaq::SqliteStore>(settings_);
		}
		return *store_;
	}

	void close() {
		store_.reset();
	}

	void put(kaq::Record record, const std::string &document = "{}") {
		if (!document.empty()) {
			record.document = compressor_.compress(document);
		}
		store().put(std::move(record));
	}

	/* Long enough for everything to be written and what is too much to be gone. */
	void settle() {
		store().flush();
		now_ += 11000;
		store().flush();
		store().flush();
	}

	std::vector<std::string> files() {
		std::set<std::string> names;
		for (const auto &entry : std::filesystem::directory_iterator(settings_.directory)) {
			std::string name = entry.path().filename();
			if (name.rfind("requests-", 0) == 0 && entry.path().extension() == ".sqlite") {
				names.insert(entry.path());
			}
		}
		return {names.begin(), names.end()};
	}

	Directory directory_;
	kaq::SqliteSettings settings_;
	std::atomic<int64_t> now_{kNow};
	kaq::Compressor compressor_;
	std::unique_ptr<kaq::SqliteStore> store_;
};

} // namespace kaq_test
