#include <gtest/gtest.h>

#include <random>

#include "sqlite_store_fixture.h"

namespace {

using namespace kaq;
using namespace kaq_test;

/* Random requests, random conditions, and the definition of what they mean. */
class RandomFilters {
public:
	Record request(int64_t number) {
		Record one = record(number, kNow + pick(10) * kMinute);
		one.summary.application = word();
		one.summary.name = "/" + word() + "/" + word();
		one.summary.path = "/" + word() + "/" + std::to_string(pick(5)) + ".PHP";
		one.summary.method = pick(2) ? "GET" : "POST";
		one.summary.status = pick(2) ? 200 : 500;
		one.summary.duration = pick(5) * 10;
		one.summary.cpu = pick(5);
		one.summary.memory = pick(5);
		one.summary.queries = pick(5);
		one.summary.calls = pick(5);
		one.summary.spans = pick(5);
		one.summary.failures = pick(5);
		one.summary.query_time = pick(5);
		one.summary.external_time = pick(5);
		one.summary.is_web = pick(2) == 0;
		one.summary.is_failed = pick(4) == 0;
		one.host = word() + ".example";
		for (int64_t i = pick(3); i > 0; i--) {
			one.verdict.kinds.push_back(word());
		}
		std::set<std::pair<int64_t, std::string>> seen;
		for (int64_t i = pick(5); i > 0; i--) {
			RequestText text{static_cast<TextKind>(pick(kTextKinds)),
							 word() + " " + word() + "_" + word()};
			if (seen.emplace(static_cast<int64_t>(text.kind), text.text).second) {
				one.texts.push_back(text);
			}
		}
		return one;
	}

	Condition condition(int depth) {
		switch (pick(depth > 0 ? 7 : 4)) {
		case 0:
			return {TextIs{static_cast<TextField>(pick(9)), glob()}};
		case 1: {
			int64_t least = pick(5);
			return {NumberIs{static_cast<NumberField>(pick(10)), least, least + pick(30)}};
		}
		case 2: {
			Words words{static_cast<WordField>(pick(4)), words_of(word()), pick(2) == 0};
			if (pick(2) == 0) {
				words.words.push_back(words_of(word()).front());
			}
			return {words};
		}
		case 3:
			return {FlagIs{static_cast<Flag>(pick(3))}};
		case 4:
			return {Not{std::make_shared<Condition>(condition(depth - 1))}};
		case 5:
			return {And{list(depth)}};
		default:
			return {Or{list(depth)}};
		}
	}

private:
	int64_t pick(int64_t of) {
		return static_cast<int64_t>(random_() % static_cast<uint64_t>(of));
	}

	std::string word() {
		static const std::vector<std::string> words = {"shop",   "Shop", "cart", "product",
													   "sélect", "a_b",  "b",    "AB",
													   "b*c",    "o\\o", "100%", "it's"};
		return words[static_cast<size_t>(pick(static_cast<int64_t>(words.size())))];
	}

	std::string glob() {
		switch (pick(4)) {
		case 0:
			return glob_of(word());
		case 1:
			return "*" + glob_of(word()) + "*";
		case 2:
			return "/" + glob_of(word()) + "/?.p*";
		default:
			return pick(2) ? "get" : "?o*";
		}
	}

	std::vector<Condition> list(int depth) {
		return {condition(depth - 1), condition(depth - 1)};
	}

	std::mt19937_64 random_{20231114};
};

using StoreConditions = SqliteStoreTest;

TEST_F(StoreConditions, FindExactlyWhatTheyMean) {
	RandomFilters random;
	std::vector<Record> records;
	settings_.file_time = kMinute;
	for (int i = 0; i < 400; i++) {
		records.push_back(random.request(i + 1));
		put(records.back(), i % 3 ? "{}" : "");
		if (i % 100 == 99) {
			store().flush();
			now_ += kMinute;
		}
	}
	int found_some = 0;
	for (int i = 0; i < 600; i++) {
		Search search;
		search.limit = 1000;
		search.filter.condition = random.condition(3);
		if (i % 2) {
			search.filter.range = {kNow + 2 * kMinute, kNow + 7 * kMinute};
		}
		std::set<std::string> expected;
		for (const Record &one : records) {
			if (matches(search.filter, kaq_test::RecordView(one))) {
				expected.insert(one.summary.id);
			}
		}
		std::vector<std::string> found = ids(store().search(search).rows);
		ASSERT_EQ(std::set<std::string>(found.begin(), found.end()), expected) << i;
		found_some += !expected.empty() && expected.size() < records.size();
	}
	EXPECT_GT(found_some, 200);
}

} // namespace
