#include <gtest/gtest.h>

#include <set>
#include <tuple>

#include "figure_services.h"

namespace {

using namespace kaq;
using namespace kaq_test;
using nlohmann::json;

class GroupServicesTest : public FigureServicesTest {
protected:
	Record random_record(int64_t number) {
		Record one = record(number, kNow - random(kMinute, 50 * kMinute));
		one.summary.application = random(0, 2) == 0 ? "blog" : "shop";
		one.summary.name = "/page" + std::to_string(random(0, 6));
		one.summary.duration = random_duration();
		return one;
	}

	template <typename Fact> void add_calls(Fact &fact) {
		fact.count = random(1, 5);
		for (int64_t i = 0; i < fact.count; i++) {
			fact.durations.push_back(random_duration());
			fact.total += fact.durations.back();
			fact.longest = std::max(fact.longest, fact.durations.back());
		}
		fact.failed = random(0, 5) == 0 ? 1 : 0;
	}

	/* A failure of /cart. */
	void put_failure(const std::string &level, int64_t start, bool is_serious = false,
					 const std::string &transaction = "/cart") {
		Record one = record(++number_, start);
		one.summary.name = transaction;
		FailureFacts failure;
		failure.key = "k";
		failure.type = "DomainException";
		failure.place = "/srv/Cart.php:12";
		failure.message = "item * is gone";
		failure.level = level;
		failure.count = 2;
		failure.is_serious = is_serious;
		one.facts.failures = {failure};
		put_record(one);
	}

	void put_verdict(const std::string &name, std::vector<std::string> kinds, int64_t gain,
					 const std::string &host = "shop.example") {
		Record one = record(++number_, kNow - kMinute);
		one.host = host;
		one.summary.name = name;
		one.verdict.kinds = std::move(kinds);
		one.verdict.gain = gain;
		one.verdict.sentence = one.verdict.kinds.empty() ? "" : "gain " + std::to_string(gain);
		put_record(one);
	}

	int64_t number_ = 0;
};

/* What the records tell of one statement or host. */
struct Recomputed {
	int64_t count = 0;
	int64_t total = 0;
	int64_t failed = 0;
	int64_t longest = -1;
	std::set<std::string> examples; /* several may be as slow */
	std::vector<int64_t> durations;
	std::map<std::string, int64_t> transactions; /* totals */
	std::map<std::string, int64_t> callers;

	template <typename Fact> void add(const Record &record, const Fact &fact) {
		count += fact.count;
		total += fact.total;
		failed += fact.failed;
		if (fact.longest > longest) {
			longest = fact.longest;
			examples.clear();
		}
		if (fact.longest == longest) {
			examples.insert(record.summary.id);
		}
		durations.insert(durations.end(), fact.durations.begin(), fact.durations.end());
		transactions[record.summary.name] += fact.total;
	}

	void expect_in(const json &row, int64_t all_time) const {
		SCOPED_TRACE(row.dump());
		expect_percentiles(row, durations);
		EXPECT_EQ(count, row.at("count"));
		EXPECT_EQ(total, row.at("total_ms"));
		EXPECT_EQ(failed, row.at("failed"));
		EXPECT_EQ(1u, examples.count(row.at("example")));
		EXPECT_NEAR(static_cast<double>(failed) / static_cast<double>(count),
					row.at("error_share").get<double>(), 1e-4);
		EXPECT_NEAR(static_cast<double>(total) / static_cast<double>(all_time),
					row.at("time_share").get<double>(), 1e-4);
		expect_parts(row, "transactions", transactions);
	}

	/* The five with the largest totals, and how many there are. */
	static void expect_parts(const json &row, const std::string &name,
							 const std::map<std::string, int64_t> &totals) {
		std::vector<int64_t> largest;
		for (const auto &[part, total] : totals) {
			largest.push_back(total);
		}
		std::sort(largest.rbegin(), largest.rend());
		largest.resize(std::min<size_t>(largest.size(), 5));
		EXPECT_EQ(totals.size(), row.at(name + "_count"));
		ASSERT_EQ(largest.size(), row.at(name).size());
		for (size_t i = 0; i < largest.size(); i++) {
			const json &part = row.at(name).at(i);
			EXPECT_EQ(largest[i], part.at("total_ms"));
			EXPECT_EQ(totals.at(part.at("name")), part.at("total_ms"));
		}
	}
};

TEST_F(GroupServicesTest, TellStatementsOverTransactionsAndCallers) {
	using Key = std::tuple<std::string, std::string, std::string, std::string>;
	std::map<Key, Recomputed> expected;
	int64_t all_time = 0;
	for (int64_t i = 1; i <= 600; i++) {
		Record one = random_record(i);
		std::set<std::tuple<std::string, std::string, std::string>> seen;
		for (int64_t j = random(1, 3); j > 0; j--) {
			StatementFacts fact;
			fact.text = "SELECT " + std::to_string(random(0, 3));
			fact.component = "PDO";
			fact.server = random(0, 1) == 0 ? "db1" : "db2";
			fact.database = "shop";
			fact.caller = "Cart::f" + std::to_string(random(0, 7));
			add_calls(fact);
			if (seen.insert({fact.text, fact.server, fact.caller}).second) {
				one.facts.statements.push_back(fact);
			}
		}
		for (const StatementFacts &fact : one.facts.statements) {
			Recomputed &sum =
				expected[{one.summary.application, fact.text, fact.server, fact.database}];
			sum.add(one, fact);
			sum.callers[fact.caller] += fact.total;
			all_time += fact.total;
		}
		put_record(one);
	}
	settle();
	json rows = ask("/api/v1/queries").at("statements");
	ASSERT_EQ(expected.size(), rows.size());
	for (const json &row : rows) {
		const Recomputed &one = expected.at(
			{row.at("application"), row.at("statement"), row.at("server"), row.at("database")});
		one.expect_in(row, all_time);
		Recomputed::expect_parts(row, "callers", one.callers);
		EXPECT_EQ("PDO", row.at("component"));
	}
}

TEST_F(GroupServicesTest, TellHosts) {
	std::map<std::pair<std::string, std::string>, Recomputed> expected;
	int64_t all_time = 0;
	for (int64_t i = 1; i <= 400; i++) {
		Record one = random_record(i);
		HostFacts fact;
		fact.host = "api" + std::to_string(random(0, 3)) + ".example:8443";
		add_calls(fact);
		one.facts.hosts = {fact};
		expected[{one.summary.application, fact.host}].add(one, fact);
		all_time += fact.total;
		put_record(one);
	}
	settle();
	json rows = ask("/api/v1/calls").at("hosts");
	ASSERT_EQ(expected.size(), rows.size());
	for (const json &row : rows) {
		expected.at({row.at("application"), row.at("host")}).expect_in(row, all_time);
	}
	for (auto [sort, member] : {std::pair("time", "total_ms"),
								{"count", "count"},
								{"errors", "failed"},
								{"p50", "p50_ms"},
								{"p95", "p95_ms"},
								{"p99", "p99_ms"},
								{"longest", "longest_ms"},
								{"last", "last_ms"}}) {
		json sorted = ask("/api/v1/calls", {{"sort", sort}}).at("hosts");
		for (size_t i = 1; i < sorted.size(); i++) {
			EXPECT_GE(sorted[i - 1].at(member), sorted[i].at(member)) << sort;
		}
		json first = ask("/api/v1/calls", {{"sort", sort}, {"limit", "2"}});
		EXPECT_TRUE(first.at("more"));
		EXPECT_EQ(json(sorted.begin(), sorted.begin() + 2), first.at("hosts"));
	}
	EXPECT_EQ(400, answer("/api/v1/calls", {{"sort", "host"}}).status);
}

TEST_F(GroupServicesTest, TellFailuresAsGroups) {
	put_failure("Warning", kNow - 5 * kMinute);
	put_failure("Error", kNow - 9 * kMinute, true);
	put_failure("Notice", kNow - 2 * kMinute, false, "/other");
	Record slowest = records_.back();
	slowest.summary.id = id_of(77);
	slowest.summary.duration = 5000;
	put_record(slowest);
	settle();
	json rows = ask("/api/v1/errors").at("errors");
	ASSERT_EQ(1u, rows.size());
	const json &row = rows.at(0);
	EXPECT_EQ("k", row.at("key"));
	EXPECT_EQ("DomainException", row.at("type"));
	EXPECT_EQ("/srv/Cart.php:12", row.at("place"));
	EXPECT_EQ("item * is gone", row.at("message"));
	EXPECT_EQ("Error", row.at("level")); /* the worst */
	EXPECT_EQ(8, row.at("count"));
	EXPECT_EQ(4, row.at("requests"));
	EXPECT_EQ(1, row.at("fatal"));
	EXPECT_EQ(kNow - 9 * kMinute, row.at("first_ms"));
	EXPECT_EQ(kNow - 2 * kMinute, row.at("last_ms"));
	EXPECT_EQ(id_of(77), row.at("example"));
	EXPECT_EQ(2, row.at("transactions_count"));
}

TEST_F(GroupServicesTest, TellTheWorstLevelOfAGroup) {
	for (const char *key : {"a", "b", "c", "d", "e", "f"}) {
		for (const char *level : {"Warning", "Error", "", "Notice"}) {
			Record one = record(++number_, kNow - kMinute);
			one.facts.failures.emplace_back();
			one.facts.failures[0].key = key;
			one.facts.failures[0].level = level;
			one.facts.failures[0].count = 1;
			put_record(one);
		}
	}
	settle();
	json rows = ask("/api/v1/errors").at("errors");
	ASSERT_EQ(6u, rows.size());
	for (const json &row : rows) {
		EXPECT_EQ("Error", row.at("level")) << row.dump();
	}
}

TEST_F(GroupServicesTest, SortFailures) {
	for (int64_t i = 0; i < 40; i++) {
		Record one = random_record(i + 1);
		FailureFacts failure;
		failure.key = "k" + std::to_string(random(0, 5));
		failure.count = random(1, 9);
		failure.is_serious = random(0, 1) == 0;
		one.facts.failures = {failure};
		put_record(one);
	}
	settle();
	for (auto [sort, member] : {std::pair("count", "count"),
								{"last", "last_ms"},
								{"first", "first_ms"},
								{"fatal", "fatal"}}) {
		json rows = ask("/api/v1/errors", {{"sort", sort}}).at("errors");
		ASSERT_LT(5u, rows.size());
		for (size_t i = 1; i < rows.size(); i++) {
			EXPECT_GE(rows[i - 1].at(member), rows[i].at(member)) << sort;
		}
	}
}

TEST_F(GroupServicesTest, TellOfTheApplicationAndTransactionThatAreAskedFor) {
	put_failure("Error", kNow - kMinute);
	put_failure("Error", kNow - kMinute, false, "/other");
	settle();
	const char *path = "/api/v1/errors";
	EXPECT_EQ(4, ask(path).at("errors").at(0).at("count"));
	EXPECT_EQ(2, ask(path, {{"txn", "/o*"}}).at("errors").at(0).at("count"));
	EXPECT_EQ(4, ask(path, {{"app", "shop"}}).at("errors").at(0).at("count"));
	EXPECT_TRUE(ask(path, {{"app", "blog"}}).at("errors").empty());
	EXPECT_TRUE(ask(path, {{"to", "5m"}}).at("errors").empty());
}

TEST_F(GroupServicesTest, SumUpWhatWouldGainMost) {
	put_verdict("/a", {"repeated-statement", "slow-code"}, 480);
	put_verdict("/a", {"repeated-statement"}, 300);
	put_verdict("/a", {"slow-call"}, 500);
	put_verdict("/b", {"slow-call"}, 900);
	put_verdict("/b", {}, 0);
	settle();
	json found = ask("/api/v1/findings");
	json rows = found.at("findings");
	ASSERT_EQ(3u, rows.size());
	EXPECT_EQ("/b", rows.at(0).at("transaction"));
	EXPECT_EQ(900, rows.at(0).at("gain_ms"));
	EXPECT_EQ("repeated-statement", rows.at(1).at("kind"));
	EXPECT_EQ("/a", rows.at(1).at("transaction"));
	EXPECT_EQ(2, rows.at(1).at("requests"));
	EXPECT_EQ(780, rows.at(1).at("gain_ms"));
	EXPECT_EQ(records_.front().summary.id, rows.at(1).at("example"));
	EXPECT_EQ("gain 480", rows.at(1).at("sentence"));
	EXPECT_FALSE(found.at("more"));
	EXPECT_FALSE(found.at("partial"));
	EXPECT_TRUE(ask("/api/v1/findings", {{"limit", "2"}}).at("more"));
	EXPECT_EQ(
		"/a",
		ask("/api/v1/findings", {{"sort", "requests"}}).at("findings").at(0).at("transaction"));
	EXPECT_EQ(1u, ask("/api/v1/findings", {{"txn", "/b"}}).at("findings").size());
	EXPECT_TRUE(ask("/api/v1/findings", {{"app", "blog"}}).at("findings").empty());
}

TEST_F(GroupServicesTest, FindingsAreCountedOverAllRequestsAndShowOneThatIsStored) {
	put_verdict("/a", {"slow-call"}, 500);
	put_verdict("/a", {"slow-call"}, 300);
	put_verdict("/a", {"failure", "slow-call"}, 200);
	settle();
	Filter longest;
	longest.condition = {TextIs{TextField::kId, records_.front().summary.id}};
	EXPECT_EQ(1, store().forget(longest));
	json row = row_of(ask("/api/v1/findings").at("findings"), "kind", "slow-call");
	EXPECT_EQ(2, row.at("requests"));
	EXPECT_EQ(800, row.at("gain_ms"));
	EXPECT_EQ(records_.at(1).summary.id, row.at("example"));
	EXPECT_EQ("gain 300", row.at("sentence"));
	EXPECT_EQ(300, row.at("example_gain_ms"));
	store().forget({});
	row = row_of(ask("/api/v1/findings").at("findings"), "kind", "slow-call");
	EXPECT_EQ(2, row.at("requests"));
	EXPECT_EQ("", row.at("example"));
	EXPECT_EQ("", row.at("sentence"));
	EXPECT_TRUE(row.at("example_gain_ms").is_null());
}

TEST_F(GroupServicesTest, FindingsOfOneHostAreThoseOfItsStoredRequests) {
	put_verdict("/a", {"slow-call"}, 500, "a.example");
	put_verdict("/a", {"slow-call"}, 300, "b.example");
	put_verdict("/b", {"slow-call"}, 200, "b.example");
	settle();
	json rows = ask("/api/v1/findings", {{"host", "b.example"}}).at("findings");
	ASSERT_EQ(2u, rows.size());
	EXPECT_EQ(300, rows.at(0).at("gain_ms"));
	EXPECT_EQ("gain 300", rows.at(0).at("sentence"));
	rows = ask("/api/v1/findings", {{"q", ">1ms txn:/b"}}).at("findings");
	ASSERT_EQ(1u, rows.size());
	EXPECT_EQ(200, rows.at(0).at("gain_ms"));
}

} // namespace
