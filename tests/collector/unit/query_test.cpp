#include "query/parser.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <ctime>

#include <nlohmann/json.hpp>

#include "query/mistake_json.h"

using namespace kaq;

namespace {

constexpr int64_t kSecond = 1000;
constexpr int64_t kHour = 3600 * kSecond;
constexpr int64_t kNow = 1800000000000; /* 2027-01-15T08:00:00Z */

Filter parsed(const std::string &text) {
	auto filter = parse_query(text, {kNow});
	EXPECT_TRUE(filter) << text << "\n"
						<< explain(text, filter ? std::vector<Mistake>() : filter.error());
	return filter.value_or(Filter{});
}

Condition text_is(TextField field, const std::string &glob) {
	return {TextIs{field, glob}};
}

Condition number_is(NumberField field, int64_t least, int64_t most) {
	return {NumberIs{field, least, most}};
}

Condition words(WordField field, const std::string &text, bool is_prefix = false) {
	return {Words{field, words_of(text), is_prefix}};
}

Condition negated(Condition operand) {
	return {Not{std::make_shared<const Condition>(std::move(operand))}};
}

/* "column: text; hint" of each mistake. */
std::string mistakes_of(const std::string &text) {
	auto filter = parse_query(text, {kNow});
	if (filter) {
		return "none";
	}
	std::string told;
	for (const Mistake &mistake : filter.error()) {
		told += told.empty() ? "" : "\n";
		told += std::to_string(mistake.column) + ": " + mistake.text;
		told += mistake.hint.empty() ? "" : "; " + mistake.hint;
	}
	return told;
}

class InZone {
public:
	explicit InZone(const char *zone) {
		setenv("TZ", zone, 1);
		tzset();
	}
	~InZone() {
		unsetenv("TZ");
		tzset();
	}
};

const Condition kA = words(WordField::kAnywhere, "a");
const Condition kB = words(WordField::kAnywhere, "b");
const Condition kC = words(WordField::kAnywhere, "c");

} // namespace

TEST(Query, NothingMeansEverything) {
	EXPECT_TRUE(Filter{} == parsed(""));
	EXPECT_TRUE(Filter{} == parsed(" \n\t "));
}

TEST(Query, EveryTextField) {
	const std::vector<std::pair<std::string, TextField>> fields = {
		{"app", TextField::kApplication}, {"application", TextField::kApplication},
		{"txn", TextField::kName},        {"transaction", TextField::kName},
		{"path", TextField::kPath},       {"host", TextField::kHost},
		{"method", TextField::kMethod},   {"trace", TextField::kTraceId},
		{"id", TextField::kId},           {"call", TextField::kCall},
		{"APP", TextField::kApplication}};
	for (const auto &[name, field] : fields) {
		EXPECT_TRUE(text_is(field, "Ab*") == parsed(name + ":Ab*").condition) << name;
	}
	for (const char *text : {"verdict:slow-*", "kind:slow-*"}) {
		EXPECT_TRUE(text_is(TextField::kVerdict, "slow-*") == parsed(text).condition);
	}
}

TEST(Query, QuotesHoldTextAsItIs) {
	EXPECT_TRUE(text_is(TextField::kPath, "/a b\\*\\?") == parsed("path:\"/a b*?\"").condition);
	EXPECT_TRUE(text_is(TextField::kPath, "/a b*c") == parsed("path:\"/a b\"*c").condition);
	EXPECT_TRUE(text_is(TextField::kPath, "\"\\\\n") == parsed(R"(path:"\"\n")").condition);
	EXPECT_TRUE(text_is(TextField::kPath, "") == parsed("path:\"\"").condition);
	EXPECT_TRUE(text_is(TextField::kPath, "a b\\*\\\\c\"()") ==
				parsed(R"(path:a\ b\*\c\"\(\))").condition);
}

TEST(Query, EveryNumberField) {
	const std::vector<std::pair<std::string, NumberField>> fields = {
		{"status", NumberField::kStatus},   {"duration", NumberField::kDuration},
		{"cpu", NumberField::kCpu},         {"mem", NumberField::kMemory},
		{"memory", NumberField::kMemory},   {"queries", NumberField::kQueries},
		{"calls", NumberField::kCalls},     {"spans", NumberField::kSpans},
		{"errors", NumberField::kErrors},   {"db", NumberField::kDatabaseTime},
		{"ext", NumberField::kExternalTime}};
	for (const auto &[name, field] : fields) {
		EXPECT_TRUE(number_is(field, 7, 7) == parsed(name + ":7").condition) << name;
		EXPECT_TRUE(number_is(field, 8, NumberIs::kNoMost) == parsed(name + ">7").condition);
	}
}

TEST(Query, Comparisons) {
	const int64_t none = NumberIs::kNoLeast;
	const int64_t any = NumberIs::kNoMost;
	const std::vector<std::tuple<std::string, int64_t, int64_t>> comparisons = {
		{">300ms", 301, any},
		{">=300ms", 300, any},
		{"<2s", none, 1999},
		{"<=2s", none, 2000},
		{"=1.5s", 1500, 1500},
		{">1.5ms", 2, any},
		{">=1.5ms", 2, any},
		{"<1.5ms", none, 1},
		{"<=1.5ms", none, 1},
		{">2", 3, any},
		{">1m", 60001, any},
		{">1H", 3600001, any},
		{"duration:1s..2s", 1000, 2000},
		{"duration:1s..", 1000, any},
		{"duration:..2s", none, 2000},
		{"duration:0.1ms..1.9ms", 1, 1}};
	for (const auto &[text, least, most] : comparisons) {
		EXPECT_TRUE(number_is(NumberField::kDuration, least, most) == parsed(text).condition)
			<< text;
	}
}

TEST(Query, Sizes) {
	for (const char *size :
		 {"64MB", "64M", "64mib", "65536KB", "67108864", "67108864B", "0.0625GB"}) {
		EXPECT_TRUE(number_is(NumberField::kMemory, 64 << 20, 64 << 20) ==
					parsed(std::string("mem:") + size).condition)
			<< size;
	}
}

TEST(Query, ClassesOfStatus) {
	EXPECT_TRUE(number_is(NumberField::kStatus, 500, 599) == parsed("status:5xx").condition);
	EXPECT_TRUE(number_is(NumberField::kStatus, 100, 199) == parsed("status:1XX").condition);
	EXPECT_EQ("8: '6xx' is no number", mistakes_of("status:6xx"));
	EXPECT_EQ("9: '5xx' is no number", mistakes_of("queries:5xx"));
}

TEST(Query, Words) {
	EXPECT_TRUE(words(WordField::kStatement, "from product") ==
				parsed("sql:\"FROM product\"").condition);
	EXPECT_TRUE(words(WordField::kFunction, "cart items") == parsed("fn:Cart::items").condition);
	EXPECT_TRUE(words(WordField::kFunction, "cart it", true) == parsed("fn:Cart::it*").condition);
	EXPECT_TRUE(words(WordField::kFunction, "cart") == parsed("fn:Cart::*").condition);
	EXPECT_TRUE(words(WordField::kStatement, "select from x") ==
				parsed("sql:\"SELECT * FROM x\"").condition);
	EXPECT_TRUE(words(WordField::kError, "out of stock") ==
				parsed("error:\"out of stock\"").condition);
	EXPECT_TRUE(words(WordField::kAnywhere, "cart") == parsed("cart").condition);
	EXPECT_TRUE(words(WordField::kAnywhere, "cart items") == parsed("Cart::items").condition);
	EXPECT_TRUE(words(WordField::kAnywhere, "http a example") ==
				parsed("http://a.example").condition);
	EXPECT_TRUE(words(WordField::kAnywhere, "action heartbeat") ==
				parsed("action=heartbeat").condition);
	EXPECT_TRUE(words(WordField::kAnywhere, "front end") == parsed("front-end").condition);
	EXPECT_TRUE(words(WordField::kAnywhere, "or") == parsed("\"or\"").condition);
	EXPECT_TRUE(words(WordField::kAnywhere, "order") == parsed("order").condition);
}

TEST(Query, NamedValues) {
	EXPECT_TRUE((Condition{FlagIs{Flag::kFailed}}) == parsed("is:failed").condition);
	EXPECT_TRUE((Condition{FlagIs{Flag::kWeb}}) == parsed("is:Web").condition);
	EXPECT_TRUE((Condition{FlagIs{Flag::kCommandLine}}) == parsed("is:cli").condition);
	EXPECT_TRUE(parsed("errors:>0") == parsed("has:error"));
	EXPECT_TRUE(parsed("queries:>0") == parsed("has:sql"));
	EXPECT_TRUE(parsed("calls:>0") == parsed("has:call"));
	EXPECT_TRUE(parsed("verdict:*") == parsed("has:verdict"));
}

TEST(Query, NotBindsTighterThanAndThanOr) {
	EXPECT_TRUE((Condition{And{{kA, kB, kC}}}) == parsed("a b AND c").condition);
	EXPECT_TRUE((Condition{Or{{kA, kB, kC}}}) == parsed("a OR b or c").condition);
	EXPECT_TRUE((Condition{Or{{{And{{kA, kB}}}, kC}}}) == parsed("a b OR c").condition);
	EXPECT_TRUE((Condition{And{{kA, {Or{{kB, kC}}}}}}) == parsed("a (b OR c)").condition);
	EXPECT_TRUE((Condition{And{{negated(kA), kB}}}) == parsed("-a b").condition);
	EXPECT_TRUE((Condition{And{{negated(kA), kB}}}) == parsed("NOT a b").condition);
	EXPECT_TRUE(negated({Or{{kA, kB}}}) == parsed("-(a OR b)").condition);
	EXPECT_TRUE(negated(negated(kA)) == parsed("--a").condition);
	EXPECT_TRUE(kA == parsed("((a))").condition);
	EXPECT_TRUE((Condition{And{{kA, kB}}}) == parsed("(a)(b)").condition);
}

TEST(Query, TimesStandBesideTheTree) {
	EXPECT_TRUE((Filter{{kNow - kHour, TimeRange::kForever}, {}}) == parsed("since:1h"));
	EXPECT_TRUE((Filter{{kNow - 48 * kHour, kNow - 90 * 60 * kSecond}, kA}) ==
				parsed("since:2d a until:1.5h"));
	EXPECT_TRUE((Filter{{kNow - kHour, kNow}, {And{{kA, kB}}}}) ==
				parsed("a since:1h since:1d b until:now"));
	EXPECT_TRUE((Filter{{kNow - kHour, TimeRange::kForever}, {Or{{kA, kB}}}}) ==
				parsed("since:1h (a OR b)"));
}

TEST(Query, Times) {
	InZone zone("UTC-2"); /* two hours east */
	const std::vector<std::pair<std::string, int64_t>> times = {
		{"2026-11-22", 1795298400000},
		{"2026-11-22T08:30", 1795329000000},
		{"\"2026-11-22 08:30:05.25\"", 1795329005250},
		{"2026-11-22T08:30Z", 1795336200000},
		{"2026-11-22T08:30:05+01:00", 1795332605000},
		{"2026-11-22T08:30-0130", 1795341600000},
		{"1795336200123", 1795336200123},
		{"today", 1799964000000},
		{"now", kNow},
		{"1w", kNow - 7 * 24 * kHour}};
	for (const auto &[text, time] : times) {
		EXPECT_EQ(time, parsed("since:" + text).range.from) << text;
	}
}

TEST(Query, TimesThatAreNone) {
	for (const char *text :
		 {"2026-13-01", "2026-02-30", "2026-11-22T24:00", "2026-11-22T08:60",
		  "2026-11-22T08:30+15:00", "2026-11-22T08", "yesterday-ish", "2026-1-1"}) {
		EXPECT_NE(std::string::npos, mistakes_of(std::string("since:") + text).find("is no time"))
			<< text;
	}
	EXPECT_EQ("7: '1795336200' has no unit; write 1795336200m, h or d for a time ago; since 1970 "
			  "it is counted in milliseconds",
			  mistakes_of("since:1795336200"));
	EXPECT_EQ("7: '1970-01-01' is too long ago", mistakes_of("since:1970-01-01"));
	EXPECT_EQ("7: '1000000000000000' is too large", mistakes_of("since:1000000000000000"));
	EXPECT_EQ("11: nothing is both since and until then; since: is the earlier one",
			  mistakes_of("a   since:1h until:2h"));
}

TEST(Query, TimesOnlyAtTheTop) {
	const std::string within =
		"since: and until: within NOT or parentheses; they hold for the whole query";
	EXPECT_EQ("8: " + within, mistakes_of("(since:1h)"));
	EXPECT_EQ("8: " + within, mistakes_of("-until:1h"));
	const std::string hint = "a time cannot be one of several alternatives; put the others in "
							 "parentheses: since:1h (a OR b)";
	EXPECT_EQ("7: " + hint, mistakes_of("since:1h a OR b"));
	EXPECT_EQ("12: " + hint, mistakes_of("a OR since:1h"));
}

TEST(Query, NoTimesWhileRequestsPass) {
	ParseSettings live;
	live.is_live = true;
	for (const char *text : {"since:1h", "a until:now"}) {
		auto filter = parse_query(text, live);
		ASSERT_FALSE(filter) << text;
		EXPECT_EQ("times choose nothing while requests pass", filter.error()[0].text);
	}
	const char *query = "app:a sql:b >1s is:failed has:sql verdict:slow-call -has:verdict call:a";
	EXPECT_TRUE(parsed(query) == parse_query(query, live).value());
}

TEST(Query, MistakesAsAnAnswer) {
	EXPECT_EQ(R"({"mistakes":[{"column":5,"hint":"yes","text":"no"}]})",
			  to_json({{5, "no", "yes"}}).dump());
	EXPECT_EQ(R"({"mistakes":[]})", to_json({}).dump());
}

TEST(Query, UnknownNamesWithWhatWasMeant) {
	EXPECT_EQ("10: unknown field 'tnx'; did you mean txn:?", mistakes_of("app:shop tnx:/cart"));
	EXPECT_EQ("1: unknown field 'statsu'; did you mean status:?", mistakes_of("statsu:500"));
	EXPECT_EQ("1: unknown field 'localhost'; put text with a colon in quotes",
			  mistakes_of("localhost:80"));
	EXPECT_EQ("4: unknown value 'faild'; did you mean failed?", mistakes_of("is:faild"));
	EXPECT_EQ("4: unknown value 'quick'; one of failed, slow, web, cli", mistakes_of("is:quick"));
	EXPECT_EQ("9: unknown value 'slow-cod'; did you mean slow-code?",
			  mistakes_of("verdict:slow-cod"));
	EXPECT_EQ(0u, mistakes_of("kind:foo").find("6: unknown value 'foo'; one of failure, "));
	EXPECT_EQ("none", mistakes_of("kind:*call"));
	EXPECT_EQ("none", mistakes_of("kind:Waiting"));
	EXPECT_EQ("5: unknown value 'everything'; one of error, sql, call, verdict",
			  mistakes_of("has:everything"));
}

TEST(Query, WrongValues) {
	EXPECT_EQ("1: 'fast' is no time; write it like 300ms, 1.5s, 2m or 1h", mistakes_of(">fast"));
	EXPECT_EQ("10: '' is no time; write it like 300ms, 1.5s, 2m or 1h", mistakes_of("duration:>"));
	EXPECT_EQ("5: 'many' is no size; write it like 512KB, 64MB or 1.5GB", mistakes_of("mem:many"));
	EXPECT_EQ("5: a range in which nothing lies; the lesser one is first",
			  mistakes_of("cpu:2s..1s"));
	EXPECT_EQ("5: a range of nothing; write it like 1..9", mistakes_of("cpu:.."));
	EXPECT_EQ("5: '1.5' equals nothing: only whole numbers are compared; compare with < or >",
			  mistakes_of("cpu:1.5"));
	EXPECT_EQ("5: '1.1234567' is too exact; at most six digits", mistakes_of("cpu:1.1234567"));
	for (const char *number :
		 {"1000000000000001", "99999999999999999999", "1653440w", "1653439.9w"}) {
		EXPECT_EQ("5: '" + std::string(number) + "' is too large",
				  mistakes_of(std::string("cpu:") + number));
	}
	EXPECT_EQ("5: nothing behind app:; no blank may stand there", mistakes_of("app: shop"));
	EXPECT_EQ("5: no word to look for; words are letters, digits and '_'",
			  mistakes_of("sql:\"=\""));
	EXPECT_EQ("4: '*' within words; it may only stand at the end", mistakes_of("fn:*items"));
}

TEST(Query, SeveralMistakesAtOnce) {
	EXPECT_EQ(
		"1: unknown field 'tnx'; did you mean txn:?\n7: unknown field 'pth'; did you mean path:?",
		mistakes_of("tnx:a pth:b app:c"));
	std::string many;
	for (int i = 0; i < 50; i++) {
		many += "zzzzzz:1 ";
	}
	EXPECT_EQ(8u, parse_query(many, {kNow}).error().size());
	EXPECT_EQ(8u, parse_query("is:none (" + many, {kNow}).error().size());
}

TEST(Query, BrokenStructure) {
	EXPECT_EQ("3: this parenthesis is not closed", mistakes_of("a (b"));
	EXPECT_EQ("2: ')' closes nothing; put text with parentheses in quotes", mistakes_of("a)"));
	EXPECT_EQ("5: this quote is not closed", mistakes_of("app:\"shop"));
	EXPECT_EQ("9: a parenthesis within a text; put the text in quotes", mistakes_of("fn:count(x)"));
	const std::string missing =
		"something is missing here; put OR, AND and NOT in quotes to look for the words";
	EXPECT_EQ("5: " + missing, mistakes_of("a OR"));
	EXPECT_EQ("1: " + missing, mistakes_of("OR a"));
	EXPECT_EQ("2: " + missing, mistakes_of("()"));
	EXPECT_EQ("6: " + missing, mistakes_of("a AND"));
	EXPECT_EQ("1: nothing before AND; put the word in quotes to look for it", mistakes_of("AND a"));
	EXPECT_EQ("7: nothing before AND; put the word in quotes to look for it",
			  mistakes_of("a AND AND b"));
	for (const char *text : {"-", "- a", "NOT", "(-)", "NOT OR", "NOT AND a"}) {
		EXPECT_NE(std::string::npos, mistakes_of(text).find("nothing to negate")) << text;
	}
}

TEST(Query, ColumnsCountCharacters) {
	EXPECT_EQ("4: unknown field 'tnx'; did you mean txn:?", mistakes_of("éß tnx:a"));
}

TEST(Query, StrangeBytes) {
	EXPECT_EQ("3: no valid UTF-8", mistakes_of("a \xff"));
	EXPECT_EQ("2: a control character; '?' stands for any character",
			  mistakes_of(std::string("a\0b", 3)));
	EXPECT_EQ("3: a control character; '?' stands for any character", mistakes_of("a \x1b[0m"));
	EXPECT_EQ("2: a control character; '?' stands for any character", mistakes_of("a\x7f"));
}

TEST(Query, Limits) {
	EXPECT_EQ("none", mistakes_of(std::string(4096, 'a')));
	EXPECT_EQ("1: more than 4096 bytes", mistakes_of(std::string(4097, 'a')));
	EXPECT_EQ("none", mistakes_of(std::string(32, '(') + "a" + std::string(32, ')')));
	EXPECT_EQ("33: more than 32 levels",
			  mistakes_of(std::string(33, '(') + "a" + std::string(33, ')')));
	EXPECT_EQ("33: more than 32 levels", mistakes_of(std::string(4000, '-') + "a"));
	std::string terms;
	for (int i = 0; i < 200; i++) {
		terms += "a ";
	}
	EXPECT_EQ("none", mistakes_of(terms));
	EXPECT_EQ("401: more than 200 terms", mistakes_of(terms + "a"));
	EXPECT_EQ("none", mistakes_of("sql:\"" + terms.substr(0, 128) + "\""));
	EXPECT_EQ("5: more than 64 words in a row",
			  mistakes_of("sql:\"" + terms.substr(0, 129) + "\""));
}

TEST(Explained, WithAMarkUnderThePlace) {
	EXPECT_EQ("column 4: no; yes\n  éß tnx:a\n     ^\n", explain("éß tnx:a", {{4, "no", "yes"}}));
	EXPECT_EQ("column 1: no\n  a b\n  ^\n", explain("a\nb", {{1, "no", ""}}));
	std::string told = explain(std::string(1000, 'a'), {{500, "no", ""}});
	EXPECT_LT(told.size(), 200u);
	EXPECT_NE(std::string::npos, told.find("\n  " + std::string(50, ' ') + "^\n"));
}
