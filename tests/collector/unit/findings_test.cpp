#include "analysis/findings.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <limits>

#include "analysis/folding.h"
#include "requests.h"

using kaq::Finding;
using kaq::FindingKind;
using kaq::FindingOptions;
using kaq::findings_of;
using kaq::Serving;
using kaq::Transaction;

/* Nothing if there is none of that kind. */
Finding found(const Transaction &request, FindingKind kind, const FindingOptions &options = {}) {
	for (const Finding &finding : findings_of(request, options)) {
		if (finding.kind == kind) {
			return finding;
		}
	}
	return {};
}

TEST(Findings, TellTheSpansThatTheyAreAbout) {
	Request request("/");
	request.open("a");
	for (int i = 0; i < 6; i++) {
		request.prepare("SELECT * FROM t WHERE id = ?").execute(10);
	}
	Finding finding = found(request.done(), FindingKind::kRepeatedStatement);
	EXPECT_EQ(6, finding.count);
	EXPECT_EQ((std::vector<int32_t>{3, 5, 7, 9, 11, 13}), finding.spans);
	EXPECT_EQ("6 times the same statement under a: 50 of 60 ms", finding.sentence);
}

/* Lists show that one, and it is a little longer than the root span. */
TEST(Findings, TellTheDurationOfTheRequest) {
	Transaction request = Request("/").query("SELECT a FROM b", 900).done();
	request.end += 7;
	EXPECT_EQ("One statement on b under main: 900 of 907 ms",
			  found(request, FindingKind::kSlowStatement).sentence);
}

TEST(Findings, ChangeBetweenTwoReadingsMakesThemTwo) {
	for (auto [write, is_said] : {std::pair{"UPDATE b SET x = ?", false},
								  {"DELETE FROM c", true},
								  {"DELETE FROM shop.a", false},
								  {"CALL rebuild", false},
								  {"COMMIT", true}}) {
		Request request("/");
		request.query("SELECT * FROM a JOIN b", 40).query(write, 1);
		request.query("SELECT * FROM a JOIN b", 40);
		EXPECT_EQ(is_said ? 40 : 0, found(request.done(), FindingKind::kDuplicateStatement).gain)
			<< write;
	}
}

TEST(Findings, ValuesThatNobodyKnowsAreNoDuplicates) {
	for (const char *text : {"SELECT * FROM a WHERE id = ?", "SELECT * FROM a WHERE id = $1",
							 "SELECT * FROM a WHERE id = :id", "SELECT RAND() FROM a",
							 "SELECT * FROM a FOR UPDATE", "INSERT INTO a SELECT b FROM c"}) {
		Request request("/");
		request.query(text, 40).query(text, 40);
		EXPECT_EQ(0, found(request.done(), FindingKind::kDuplicateStatement).count) << text;
	}
	Request request("/");
	request.query("SELECT a::int FROM b", 40).query("SELECT a::int FROM b", 40);
	EXPECT_EQ(2, found(request.done(), FindingKind::kDuplicateStatement).count);
}

TEST(Findings, TheSameTextOnAnotherDatabaseIsNoDuplicate) {
	for (const char *second : {"shop_1", "shop_2"}) {
		Request request("/");
		for (const char *database : {"shop_1", second}) {
			request.mysqli_select(database).mysqli("SELECT v FROM conf WHERE id = 7", 40);
		}
		int64_t count = found(request.done(), FindingKind::kDuplicateStatement).count;
		EXPECT_EQ(std::string_view(second) == "shop_1" ? 2 : 0, count) << second;
	}
}

TEST(Findings, PreparedTextsWithDifferentLiteralsAreNoDuplicates) {
	Request request("/");
	request.prepare("SELECT * FROM a WHERE id = 1").execute(40);
	request.prepare("SELECT * FROM a WHERE id = 2").execute(40);
	EXPECT_EQ(0, found(request.done(), FindingKind::kDuplicateStatement).count);
}

TEST(Findings, ControlOfTransactionsIsNoRepetition) {
	Request request("/");
	for (int i = 0; i < 20; i++) {
		request.query("COMMIT", 10);
	}
	EXPECT_TRUE(findings_of(request.done()).empty());
}

TEST(Findings, PauseEndsASequence) {
	for (auto [pause, is_said] : {std::pair{50, true}, {51, false}}) {
		Request request("/");
		request.call("http://a/", 100).works(pause).call("http://b/", 200);
		EXPECT_EQ(is_said ? 100 : 0, found(request.done(), FindingKind::kCallsInSequence).gain);
	}
}

TEST(Findings, TryingAgainIsNoSequence) {
	Request request("/");
	request.call("http://a/", 100, 503).call("http://a/", 100, 0).call("http://a/", 100);
	Transaction done = request.done();
	EXPECT_EQ(0, found(done, FindingKind::kCallsInSequence).count);
	EXPECT_EQ("2 HTTP calls to a failed (no answer): 200 of 300 ms",
			  found(done, FindingKind::kFailedCall).sentence);
}

TEST(Findings, WaitingIsSaidOnlyWhereOneRequestIsServedAtATime) {
	Transaction request = Request("/").open("Lock::take").waits(600).close().works(100).done();
	EXPECT_EQ(0, found(request, FindingKind::kWaiting).gain);
	EXPECT_EQ(0, found(request, FindingKind::kWaiting, {Serving::kThreads}).gain);
	EXPECT_EQ(600, found(request, FindingKind::kWaiting, {Serving::kOneAtATime}).gain);
	request.is_web = false;
	EXPECT_EQ(0, found(request, FindingKind::kWaiting, {Serving::kOneAtATime}).gain);
}

TEST(Findings, WaitingNamesNobodyWhoMayHaveWorked) {
	Request request("/");
	request.open("a").waits(400).close().open("b").works(410).close().works(10);
	Finding finding = found(request.done(), FindingKind::kWaiting, {Serving::kOneAtATime});
	EXPECT_EQ("Waiting, neither working nor calling: 400 of 820 ms", finding.sentence);
	EXPECT_TRUE(finding.spans.empty());
}

TEST(Findings, TransfersBesideTheCodeAreNoWaiting) {
	Request request("/");
	request.open("Client::wait").waits(700).open("curl_multi_exec", "HTTP");
	request.transfer("http://a/", 690).transfer("http://b/", 680);
	std::vector<Finding> all = findings_of(request.done(), {Serving::kOneAtATime});
	EXPECT_TRUE(all.empty()) << all.front().sentence;
}

TEST(Findings, LimitOfSpansHoldsForPayloadsOfThatLength) {
	/* Three may have been open when the limit was reached. */
	for (auto [spans, is_said] : {std::pair{9, false}, {10, true}, {13, true}, {14, false}}) {
		Request request("/");
		request.open("a").open("b");
		while (request.last().id != "span" + std::to_string(spans - 1)) {
			request.cache("redis::get", 0);
		}
		FindingOptions options;
		options.span_limit = 10;
		request.works(90);
		bool is_found = !found(request.done(), FindingKind::kSpanLimit, options).sentence.empty();
		EXPECT_EQ(is_said, is_found) << spans;
	}
}

TEST(Findings, ErrorThatEndedTheRequestComesFirst) {
	Request request("/");
	request.query("SELECT * FROM a", 900).fails("ERROR", "boom", "Error");
	std::vector<Finding> all = findings_of(request.done());
	ASSERT_EQ(2u, all.size());
	EXPECT_EQ(FindingKind::kFailure, all[0].kind);
	EXPECT_EQ("boom (Cart.php:12) ended the request", all[0].sentence);
	EXPECT_EQ(FindingKind::kSlowStatement, all[1].kind);
}

TEST(Findings, HostileNamesMakeShortSentencesOfOneLine) {
	Request request("/");
	request.open(std::string(5000, 'x') + "\n\x1b[31m").open("b\n\x1b[31m");
	for (int i = 0; i < 10; i++) {
		request.query("SELECT * FROM a WHERE id = ?", 100);
	}
	for (const Finding &finding : findings_of(request.done())) {
		EXPECT_GE(512u, finding.sentence.size());
		EXPECT_TRUE(std::none_of(finding.sentence.begin(), finding.sentence.end(),
								 [](char each) { return each == '\n' || each == '\x1b'; }));
	}
}

TEST(Findings, HostileTimesAreSurvived) {
	Request request("/");
	for (int i = 0; i < 10; i++) {
		request.query("SELECT * FROM a WHERE id = ?", 1).call("http://a/", 1);
	}
	Transaction hostile = request.done();
	for (kaq::Span &span : hostile.spans) {
		span.start = std::numeric_limits<int64_t>::min();
		span.end = std::numeric_limits<int64_t>::max();
	}
	hostile.cpu = std::numeric_limits<int64_t>::min();
	EXPECT_FALSE(findings_of(hostile, {Serving::kOneAtATime}).empty());
	EXPECT_TRUE(findings_of(Transaction()).empty());
}

TEST(Findings, AreBounded) {
	Request request("/");
	for (int i = 0; i < 300; i++) {
		request.call("http://host" + std::to_string(i) + "/", 1, 0);
	}
	EXPECT_EQ(kaq::kMostFindings, findings_of(request.done()).size());
}

/* Deep, and much of it: what would be quadratic would not end in time. */
TEST(Findings, DepthAndLengthTakeTimeInProportion) {
	Request request("/");
	for (int i = 0; i < 8000; i++) {
		request.open("f" + std::to_string(i % 7));
		request.query("SELECT " + std::to_string(i) + " FROM t" + std::to_string(i), 1);
		request.query("DELETE FROM t" + std::to_string(i), 0);
	}
	EXPECT_TRUE(findings_of(request.done()).empty());
}

TEST(Folds, RunsOfPollsAndOptions) {
	Request request("/");
	request.option("curl_init").option("curl_setopt (1)").option("curl_setopt (2)");
	request.open("a");
	for (int i = 0; i < 3; i++) {
		request.open("curl_multi_exec", "HTTP").waits(2).close();
	}
	request.open("curl_multi_exec", "HTTP").transfer("http://a/", 5).close();
	request.option("curl_multi_exec");
	request.close().option("curl_setopt (3)");
	std::vector<kaq::Fold> folds = folds_of(request.done());
	ASSERT_EQ(2u, folds.size());
	EXPECT_EQ(kaq::FoldKind::kOptions, folds[0].kind);
	EXPECT_EQ((std::vector<int32_t>{1, 2, 3}), folds[0].spans);
	EXPECT_EQ(0, folds[0].parent);
	EXPECT_EQ(kaq::FoldKind::kPolls, folds[1].kind);
	EXPECT_EQ((std::vector<int32_t>{5, 6, 7}), folds[1].spans);
	EXPECT_EQ(4, folds[1].parent);
	EXPECT_EQ(6, folds[1].total);
}

TEST(Folds, FailureIsShown) {
	Request request("/");
	request.option("curl_setopt (1)").option("curl_setopt (2)").last().is_failed = true;
	EXPECT_TRUE(folds_of(request.done()).empty());
}
