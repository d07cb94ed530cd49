/* The document of the query language: its examples mean something, its mistakes are told as it
 * says. */
#include "query/parser.h"

#include <gtest/gtest.h>

#include <fstream>
#include <sstream>

#include "query/fields.h"

using namespace kaq;

namespace {

constexpr int64_t kNow = 1800000000000;

struct Example {
	std::string query;
	std::string told; /* the second cell of its row */
	bool is_mistake;
};

/* What stands between the first of these and the last. */
std::string between(const std::string &line, char mark) {
	size_t begin = line.find(mark);
	size_t end = line.rfind(mark);
	return begin < end ? line.substr(begin + 1, end - begin - 1) : "";
}

/* Rows of tables whose first cell is code, and indented lines. */
std::vector<Example> examples() {
	std::ifstream document(KAQ_FIND_DOCUMENT);
	std::vector<Example> found;
	std::string line;
	bool is_mistake = false;
	while (std::getline(document, line)) {
		if (line.compare(0, 3, "## ") == 0) {
			is_mistake = line == "## Mistakes";
		} else if (line.compare(0, 3, "| `") == 0) {
			size_t cell = line.find(" | ");
			found.push_back({between(line.substr(0, cell), '`'),
							 line.substr(cell + 3, line.size() - cell - 5), is_mistake});
		} else if (line.compare(0, 8, "    kaq ") == 0) {
			found.push_back({between(line, '\''), "", is_mistake});
		} else if (line.compare(0, 4, "    ") == 0) {
			found.push_back({line.substr(4), "", is_mistake});
		}
	}
	return found;
}

std::string mistakes_of(const std::string &query) {
	auto filter = parse_query(query, {kNow});
	std::string told;
	for (const Mistake &each : filter ? std::vector<Mistake>() : filter.error()) {
		told += "column " + std::to_string(each.column) + ": " + each.text +
				(each.hint.empty() ? "" : "; " + each.hint);
	}
	return told;
}

} // namespace

TEST(FindDocument, ExamplesAreQueries) {
	size_t count = 0;
	for (const Example &example : examples()) {
		if (!example.is_mistake) {
			count++;
			EXPECT_NE("", example.query);
			EXPECT_EQ("", mistakes_of(example.query)) << example.query;
		}
	}
	EXPECT_GT(count, 50u);
}

TEST(FindDocument, MistakesAreToldAsItSays) {
	size_t count = 0;
	for (const Example &example : examples()) {
		if (example.is_mistake) {
			count++;
			EXPECT_EQ(example.told, mistakes_of(example.query));
		}
	}
	EXPECT_GT(count, 5u);
}

TEST(FindDocument, HasEveryFieldAndValue) {
	std::ifstream document(KAQ_FIND_DOCUMENT);
	std::stringstream stream;
	stream << document.rdbuf();
	std::string text = stream.str();
	for (const QueryField &field : query_fields()) {
		EXPECT_NE(std::string::npos, text.find("`" + std::string(field.name) + ":")) << field.name;
		if (!field.other_name.empty()) {
			std::string other = "`" + std::string(field.other_name) + ":`";
			EXPECT_NE(std::string::npos, text.find(other)) << other;
		}
	}
	for (SpecialField field : {SpecialField::kIs, SpecialField::kHas}) {
		for (const NamedValue &each : named_values(field)) {
			std::string prefix = field == SpecialField::kIs ? "`is:" : "`has:";
			std::string term = prefix + std::string(each.name) + "`";
			EXPECT_NE(std::string::npos, text.find(term)) << term;
		}
	}
}

TEST(FindDocument, SaysTheSameInOtherWords) {
	size_t count = 0;
	for (const Example &example : examples()) {
		std::string same = between(example.told, '`');
		if (example.query.compare(0, 4, "has:") == 0 || example.query == "is:slow") {
			count++;
			auto filter = parse_query(example.query, {kNow});
			EXPECT_TRUE(filter && filter == parse_query(same, {kNow}).value()) << same;
		}
	}
	EXPECT_EQ(5u, count);
}
