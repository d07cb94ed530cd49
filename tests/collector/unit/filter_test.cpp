#include "store/filter.h"

#include <gtest/gtest.h>

#include "store/request_view.h"

using namespace kaq;

namespace {

Condition condition(TextField field, const std::string &glob) {
	return {TextIs{field, glob}};
}

Condition negated(Condition operand) {
	return {Not{std::make_shared<const Condition>(std::move(operand))}};
}

Words phrase(WordField field, const std::string &text, bool is_prefix = false) {
	return {field, words_of(text), is_prefix};
}

} // namespace

TEST(IsLike, StarsAndQuestionMarks) {
	EXPECT_TRUE(is_like("", ""));
	EXPECT_TRUE(is_like("", "*"));
	EXPECT_TRUE(is_like("/cart/7", "/cart*"));
	EXPECT_TRUE(is_like("/cart/7", "/cart/?"));
	EXPECT_TRUE(is_like("abcabc", "*abc"));
	EXPECT_TRUE(is_like("aab", "*ab"));
	EXPECT_FALSE(is_like("/cart/7", "/cart"));
	EXPECT_FALSE(is_like("/cart/77", "/cart/?"));
	EXPECT_FALSE(is_like("", "?"));
	EXPECT_FALSE(is_like("abd", "*c"));
}

TEST(IsLike, CaseOfAsciiLettersAlone) {
	EXPECT_TRUE(is_like("Shop", "sHOP"));
	EXPECT_TRUE(is_like("@[`{", "@[`{"));
	EXPECT_FALSE(is_like("@", "`"));
	EXPECT_FALSE(is_like("Ü", "ü"));
}

TEST(IsLike, QuestionMarkIsOneCharacter) {
	EXPECT_TRUE(is_like("aéb", "a?b"));
	EXPECT_TRUE(is_like("🙂", "?"));
	EXPECT_FALSE(is_like("é", "??"));
	EXPECT_FALSE(is_like("éb", "*??b"));
}

TEST(IsLike, EscapedCharactersAreThemselves) {
	EXPECT_TRUE(is_like("/cart/*", "/cart/\\*"));
	EXPECT_FALSE(is_like("/cart/7", "/cart/\\*"));
	EXPECT_TRUE(is_like("a?", "a\\?"));
	EXPECT_FALSE(is_like("ab", "a\\?"));
	EXPECT_TRUE(is_like("App\\Cart", "App\\\\*"));
}

TEST(IsLike, HostilePatternsEnd) {
	EXPECT_FALSE(is_like(std::string(20000, 'a'), "*a*a*a*a*a*a*a*a*a*a*b"));
}

TEST(Glob, AsLiteralAndAsOperandOfLike) {
	EXPECT_EQ("a*b", literal_of("a\\*b"));
	EXPECT_EQ(std::nullopt, literal_of("a*b"));
	EXPECT_EQ(std::nullopt, literal_of("a?"));
	EXPECT_EQ("100\\%\\_\\\\%_*", like_operand("100%_\\\\*?\\*"));
	for (const char *text : {"", "a", "*?\\", "\\*", "50%"}) {
		EXPECT_EQ(text, literal_of(glob_of(text)));
		EXPECT_TRUE(is_like(text, glob_of(text)));
	}
}

TEST(WordsOf, LettersDigitsUnderscoresAndWhatIsNotAscii) {
	EXPECT_EQ((std::vector<std::string>{"select", "a_1", "from", "größe"}),
			  words_of("SELECT `a_1`,\nFROM(Größe)"));
	EXPECT_TRUE(words_of(" .;'\"-*").empty());
}

TEST(HasWords, OneDirectlyAfterTheOther) {
	Words words = phrase(WordField::kStatement, "FROM product");
	EXPECT_TRUE(has_words("SELECT * FROM product", words));
	EXPECT_TRUE(has_words("select a from `Product` where b = ?", words));
	EXPECT_TRUE(has_words("FROM from product", words));
	EXPECT_FALSE(has_words("SELECT product FROM x", words));
	EXPECT_FALSE(has_words("FROM old.product", words));
	EXPECT_FALSE(has_words("FROM products", words));
	EXPECT_FALSE(has_words("FROM", words));
	EXPECT_FALSE(has_words("", words));
}

TEST(HasWords, LastMayBeTheBeginningOfAWord) {
	Words words = phrase(WordField::kStatement, "from prod", true);
	EXPECT_TRUE(has_words("SELECT 1 FROM products", words));
	EXPECT_TRUE(has_words("SELECT 1 FROM prod", words));
	EXPECT_FALSE(has_words("SELECT 1 FROM pro", words));
	EXPECT_FALSE(has_words("SELECT 1 fromage prod", words));
}

TEST(HasWords, AsAQueryOfFullText) {
	EXPECT_EQ("\"from product\"", fts_query(phrase(WordField::kStatement, "FROM product")));
	EXPECT_EQ("\"prod\" *", fts_query(phrase(WordField::kStatement, "prod", true)));
}

class Matched : public testing::Test {
protected:
	Transaction transaction;
	std::vector<std::string> verdicts = {"repeated-statement", "slow-call"};

	void SetUp() override {
		transaction.application = "Shop";
		transaction.name = "/cart/7";
		transaction.normalised_name = "/cart/*";
		transaction.host = "shop.example";
		transaction.method = "GET";
		transaction.trace_id = "61c0ffee";
		transaction.start = 5000;
		transaction.end = 5400;
		transaction.cpu = 120;
		transaction.memory = 2048;
		transaction.status = 503;
		transaction.is_web = true;
		Span &root = transaction.spans.emplace_back();
		root.name = "main";
		root.id = "aa";
		root.component = "PHP";
		root.start = 5000;
		root.end = 5400;
		Failure failure;
		failure.type = "App\\StockException";
		failure.message = "Out of stock";
		root.failures.push_back(failure);
		Span &query = transaction.spans.emplace_back();
		query.name = "PDO::query";
		query.component = "PDO";
		query.query = "SELECT * FROM product";
		query.is_external = true;
		query.parent = 0;
		query.start = 5000;
		query.end = 5030;
		Span &call = transaction.spans.emplace_back();
		call.component = "HTTP";
		call.host = "http://user@api.example:8443/stock?a=1";
		call.is_external = true;
		call.parent = 0;
		call.start = 5030;
		call.end = 5050;
	}

	bool is_match(const Condition &condition) {
		Summary summary = summarise(transaction);
		return matches(condition, TransactionView(transaction, summary, verdicts));
	}

	bool is_summary_match(const Condition &condition) {
		Summary summary = summarise(transaction);
		return matches(condition, SummaryView(summary));
	}

	bool is_number(NumberField field, int64_t number) {
		return is_match({NumberIs{field, number, number}}) &&
			   !is_match({NumberIs{field, number + 1, NumberIs::kNoMost}}) &&
			   !is_match({NumberIs{field, NumberIs::kNoLeast, number - 1}});
	}
};

TEST_F(Matched, EachTextByItsField) {
	const std::vector<std::pair<TextField, std::string>> texts = {
		{TextField::kApplication, "shop"},
		{TextField::kName, "/cart/\\*"},
		{TextField::kPath, "/cart/7"},
		{TextField::kHost, "*.example"},
		{TextField::kMethod, "get"},
		{TextField::kTraceId, "61c0*"},
		{TextField::kId, "aa"},
		{TextField::kVerdict, "slow-*"},
		{TextField::kCall, "API.example:?443"}};
	for (const auto &[field, glob] : texts) {
		EXPECT_TRUE(is_match(condition(field, glob))) << glob;
		EXPECT_FALSE(is_match(condition(field, glob + "x"))) << glob;
		bool is_told =
			field != TextField::kHost && field != TextField::kVerdict && field != TextField::kCall;
		EXPECT_EQ(is_told, is_summary_match(condition(field, glob))) << glob;
	}
}

TEST_F(Matched, EachNumberByItsField) {
	EXPECT_TRUE(is_number(NumberField::kStatus, 503));
	EXPECT_TRUE(is_number(NumberField::kDuration, 400));
	EXPECT_TRUE(is_number(NumberField::kCpu, 120));
	EXPECT_TRUE(is_number(NumberField::kMemory, 2048));
	EXPECT_TRUE(is_number(NumberField::kQueries, 1));
	EXPECT_TRUE(is_number(NumberField::kCalls, 1));
	EXPECT_TRUE(is_number(NumberField::kSpans, 3));
	EXPECT_TRUE(is_number(NumberField::kErrors, 1));
	EXPECT_TRUE(is_number(NumberField::kDatabaseTime, 30));
	EXPECT_TRUE(is_number(NumberField::kExternalTime, 20));
}

TEST_F(Matched, WordsByTheirField) {
	EXPECT_TRUE(is_match({phrase(WordField::kStatement, "FROM product")}));
	EXPECT_FALSE(is_match({phrase(WordField::kStatement, "cart")}));
	EXPECT_TRUE(is_match({phrase(WordField::kFunction, "pdo::query")}));
	EXPECT_FALSE(is_match({phrase(WordField::kFunction, "product")}));
	EXPECT_TRUE(is_match({phrase(WordField::kError, "StockException Out of")}));
	EXPECT_FALSE(is_match({phrase(WordField::kError, "main")}));
	EXPECT_FALSE(is_summary_match({phrase(WordField::kStatement, "FROM product")}));
}

TEST_F(Matched, WordsAnywhere) {
	for (const char *words : {"cart 7", "cart", "product", "query", "stock"}) {
		EXPECT_TRUE(is_match({phrase(WordField::kAnywhere, words)})) << words;
	}
	transaction.normalised_name = "checkout";
	EXPECT_TRUE(is_match({phrase(WordField::kAnywhere, "checkout")}));
	/* Of the names only these two are looked through. */
	EXPECT_FALSE(is_match({phrase(WordField::kAnywhere, "shop")}));
}

TEST_F(Matched, Flags) {
	EXPECT_TRUE(is_match({FlagIs{Flag::kFailed}}));
	EXPECT_TRUE(is_match({FlagIs{Flag::kWeb}}));
	EXPECT_FALSE(is_match({FlagIs{Flag::kCommandLine}}));
	transaction.status = 200;
	transaction.is_web = false;
	EXPECT_FALSE(is_match({FlagIs{Flag::kFailed}}));
	EXPECT_FALSE(is_match({FlagIs{Flag::kWeb}}));
	EXPECT_TRUE(is_match({FlagIs{Flag::kCommandLine}}));
}

TEST_F(Matched, AndOrNot) {
	Condition yes = condition(TextField::kApplication, "shop");
	Condition no = condition(TextField::kApplication, "forum");
	EXPECT_TRUE(is_match({}));
	EXPECT_TRUE(is_match({And{{yes, yes}}}));
	EXPECT_FALSE(is_match({And{{yes, no}}}));
	EXPECT_TRUE(is_match({Or{{no, yes}}}));
	EXPECT_FALSE(is_match({Or{{no, no}}}));
	EXPECT_TRUE(is_match(negated(no)));
	EXPECT_FALSE(is_match(negated(yes)));
}

TEST_F(Matched, BegunInTheRange) {
	Summary summary = summarise(transaction);
	SummaryView view(summary);
	EXPECT_TRUE(matches(Filter{}, view));
	EXPECT_TRUE(matches(Filter{{5000, 5001}, {}}, view));
	EXPECT_FALSE(matches(Filter{{5001, 6000}, {}}, view));
	EXPECT_FALSE(matches(Filter{{4000, 5000}, {}}, view));
}

TEST(Conditions, AreEqualByTheirContent) {
	Condition one = negated(condition(TextField::kPath, "/a"));
	EXPECT_TRUE(one == negated(condition(TextField::kPath, "/a")));
	EXPECT_FALSE(one == negated(condition(TextField::kPath, "/b")));
	EXPECT_FALSE(one == condition(TextField::kPath, "/a"));
	EXPECT_FALSE((Condition{And{{one, one}}}) == (Condition{Or{{one, one}}}));
	EXPECT_FALSE((Filter{{1, 2}, one}) == (Filter{{1, 3}, one}));
}
