#include "query/completion.h"

#include <gtest/gtest.h>

#include "query/fields.h"
#include "query/parser.h"

using namespace kaq;

namespace {

/* The query with each candidate in its place; '|' is the cursor. */
std::vector<std::string> completed(std::string text) {
	size_t cursor = text.find('|');
	text.erase(cursor, 1);
	Completion completion = complete_query(text, cursor);
	std::vector<std::string> queries;
	for (const Candidate &candidate : completion.candidates) {
		std::string query = text;
		queries.push_back(
			query.replace(completion.begin, completion.end - completion.begin, candidate.text));
	}
	return queries;
}

using Texts = std::vector<std::string>;

} // namespace

TEST(QueryCompletion, FieldsByTheirBeginning) {
	EXPECT_EQ((Texts{"status:", "spans:", "sql:", "since:"}), completed("s|"));
	EXPECT_EQ((Texts{"app:shop status:"}), completed("app:shop sta|"));
	EXPECT_EQ((Texts{"-status:"}), completed("-STA|"));
	EXPECT_EQ((Texts{"(status:"}), completed("(sta|"));
	EXPECT_EQ((Texts{"status: b"}), completed("sta|tu b"));
	EXPECT_EQ((Texts{"calls:", "call:"}), completed("call|"));
	EXPECT_EQ((Texts{}), completed("zz|"));
	EXPECT_EQ(query_fields().size() + 2, completed("|").size());
}

TEST(QueryCompletion, OperatorsWhereTheyMayStand) {
	EXPECT_EQ((Texts{"a OR"}), completed("a o|"));
	EXPECT_EQ((Texts{}), completed("o|"));
	EXPECT_EQ((Texts{}), completed("a (o|"));
	EXPECT_EQ((Texts{"(a) OR"}), completed("(a) o|"));
	EXPECT_EQ((Texts{"NOT"}), completed("n|"));
}

TEST(QueryCompletion, ValuesThatAreOneOfAFew) {
	EXPECT_EQ((Texts{"is:failed", "is:slow", "is:web", "is:cli"}), completed("is:|"));
	EXPECT_EQ((Texts{"has:verdict"}), completed("has:ve|r"));
	EXPECT_EQ((Texts{"a method:PUT", "a method:PATCH"}), [] {
		Texts all = completed("a method:p|");
		all.erase(all.begin());
		return all;
	}());
	EXPECT_EQ((Texts{"status:5xx", "status:500", "status:503"}), completed("status:5|"));
	EXPECT_EQ((Texts{"since:today"}), completed("since:t|"));
}

TEST(QueryCompletion, UnitsBehindNumbers) {
	EXPECT_EQ((Texts{">3ms", ">3s", ">3m", ">3h", ">3d", ">3w"}), completed(">3|"));
	EXPECT_EQ((Texts{"mem>3B", "mem>3KB", "mem>3MB", "mem>3GB"}), completed("mem>3|"));
	EXPECT_EQ((Texts{"db:>", "db:>=", "db:<", "db:<="}), completed("db:|"));
	EXPECT_EQ((Texts{}), completed("queries:>3|"));
}

TEST(QueryCompletion, KindsOfFindings) {
	EXPECT_EQ((Texts{"verdict:slow-statement", "verdict:slow-call", "verdict:slow-code"}),
			  completed("verdict:slow|"));
	EXPECT_EQ((Texts{"kind:polling"}), completed("kind:p|"));
}

TEST(QueryCompletion, TellsOfWhichFieldAValueIsWritten) {
	Completion completion = complete_query("a txn:/ca", 9);
	EXPECT_EQ(TextField::kName, completion.field);
	EXPECT_EQ("/ca", completion.written);
	EXPECT_EQ(6u, completion.begin);
	EXPECT_EQ(9u, completion.end);
	EXPECT_FALSE(complete_query("a", 1).field);
}

TEST(QueryCompletion, NothingWithinQuotes) {
	EXPECT_EQ((Texts{}), completed("app:\"s|\""));
	EXPECT_EQ((Texts{}), completed("\"a \\\" s|"));
	EXPECT_EQ((Texts{"\"a\" status:"}), completed("\"a\" sta|"));
	EXPECT_FALSE(complete_query("app:\"s", 6).field);
}

TEST(QueryCompletion, WhateverIsProposedMayBeWritten) {
	for (const char *text :
		 {"is:|", "has:|", "verdict:|", "status:|5", "since:|", "method:|", "a |", "db:>3|"}) {
		for (std::string query : completed(text)) {
			char last = query.back();
			query += last == ':' ? "1" : (last == '<' || last == '>' || last == '=' ? "1" : "");
			query += query.substr(2) == "OR" || query.substr(2) == "NOT" ? " a" : "";
			bool is_text = query == "a is:1" || query == "a has:1" || query == "a since:1" ||
						   query == "a until:1" || query == "a verdict:1";
			EXPECT_EQ(!is_text, parse_query(query, {1800000000000}).has_value()) << query;
		}
	}
}

TEST(QueryCompletion, StrangeCursorsAndTexts) {
	EXPECT_EQ(1u, complete_query("a", 99).end);
	EXPECT_TRUE(complete_query(std::string(5000, 'a'), 1).candidates.empty());
}
