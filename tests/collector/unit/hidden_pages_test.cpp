#include "analysis/hidden_pages.h"

#include <gtest/gtest.h>

namespace {

using kaq::HiddenPages;
using kaq::HiddenPagesFinder;

/* Words that no name would make an asterisk of. */
std::string word(size_t number) {
	std::string text = "page";
	for (; number > 0; number /= 10) {
		text += static_cast<char>('a' + number % 10);
	}
	return text;
}

class HiddenPagesTest : public testing::Test {
protected:
	void note(const std::string &query, const std::string &name = "/index.php",
			  const std::string &path = "/index.php") {
		finder_.note("shop", name, path, query);
	}
	/* So many requests for each of so many pages. */
	void note_pages(size_t pages, size_t requests, const std::string &parameter = "module",
					const std::string &name = "/index.php") {
		for (size_t i = 0; i < pages * requests; i++) {
			note(parameter + "=" + word(i % pages) + "&id=" + std::to_string(i), name, name);
		}
	}

	HiddenPagesFinder finder_;
};

TEST_F(HiddenPagesTest, AreToldWithTheParameterThatTellsThemApart) {
	note_pages(12, 10);
	std::vector<HiddenPages> found = finder_.found();
	ASSERT_EQ(found.size(), 1u);
	EXPECT_EQ(found[0].application, "shop");
	EXPECT_EQ(found[0].transaction, "/index.php");
	EXPECT_EQ(found[0].path, "/index.php");
	EXPECT_EQ(found[0].parameter, "module");
	EXPECT_EQ(found[0].pages, 12u);
	EXPECT_EQ(found[0].requests, 120u);
}

TEST_F(HiddenPagesTest, AreNoneWherePagesOrRequestsAreFew) {
	note_pages(HiddenPagesFinder::kFewestPages - 1, 100);
	EXPECT_TRUE(finder_.found().empty());
	note_pages(HiddenPagesFinder::kFewestPages, 6, "module", "/other.php");
	EXPECT_TRUE(finder_.found().empty());
	note_pages(HiddenPagesFinder::kFewestPages, 1, "module", "/other.php");
	EXPECT_EQ(finder_.found().size(), 1u);
}

TEST_F(HiddenPagesTest, AreNotWhatVisitorsSearchFor) {
	for (size_t i = 0; i < 1000; i++) {
		note("q=" + word(i));
	}
	EXPECT_TRUE(finder_.found().empty());
}

TEST_F(HiddenPagesTest, AreNotNumbersAndTokens) {
	for (size_t i = 0; i < 1000; i++) {
		note("id=" + std::to_string(i % 20));
	}
	EXPECT_TRUE(finder_.found().empty());
}

TEST_F(HiddenPagesTest, AreNotOfAParameterThatFewRequestsHave) {
	note_pages(12, 10);
	for (size_t i = 0; i < 121; i++) {
		note("x=1");
	}
	EXPECT_TRUE(finder_.found().empty());
}

TEST_F(HiddenPagesTest, AreNotOfAParameterThatTheNameHas) {
	for (size_t i = 0; i < 400; i++) {
		note("do=" + word(i % 20), "/index.php?do=show");
	}
	EXPECT_TRUE(finder_.found().empty());
	for (size_t i = 0; i < 400; i++) {
		note("do=show&part=" + word(i % 20), "/index.php?do=show");
	}
	ASSERT_EQ(finder_.found().size(), 1u);
	EXPECT_EQ(finder_.found()[0].path, "/index.php");
	EXPECT_EQ(finder_.found()[0].parameter, "part");
}

TEST_F(HiddenPagesTest, AreNotOfANameThatNoRuleCouldBeWrittenFor) {
	for (size_t i = 0; i < 400; i++) {
		std::string query = "module=" + word(i % 20);
		note(query, "Named by the script");
		note(query, "/o'clock.php", "/o'clock.php");
		note(query, "/a\nb.php", "/a\nb.php");
		note("mo'dule=" + word(i % 20));
	}
	EXPECT_TRUE(finder_.found().empty());
}

TEST_F(HiddenPagesTest, KeepTheirPlaceWhateverVisitorsSend) {
	note_pages(12, 10);
	for (size_t i = 0; i < 20 * HiddenPagesFinder::kMostNames; i++) {
		note("module=a", "/" + word(i) + ".php", "/" + word(i) + ".php");
	}
	for (size_t i = 0; i < 100; i++) {
		note(word(i) + "=1&module=" + word(i % 12));
	}
	std::vector<HiddenPages> found = finder_.found();
	ASSERT_EQ(found.size(), 1u);
	EXPECT_EQ(found[0].parameter, "module");
}

TEST_F(HiddenPagesTest, AreBoundedInNumber) {
	for (size_t i = 0; i < 2 * HiddenPagesFinder::kMostNames; i++) {
		note_pages(10, 8, "module", "/" + word(i) + ".php");
	}
	EXPECT_EQ(finder_.found().size(), HiddenPagesFinder::kMostNames);
	note_pages(HiddenPagesFinder::kMostPages * 2, 8, "module", "/" + word(1) + ".php");
	for (const HiddenPages &each : finder_.found()) {
		EXPECT_LE(each.pages, HiddenPagesFinder::kMostPages);
	}
}

TEST_F(HiddenPagesTest, TheNameWithTheMostRequestsIsTheFirst) {
	note_pages(10, 8, "module", "/seldom.php");
	note_pages(10, 20, "module", "/often.php");
	ASSERT_EQ(finder_.found().size(), 2u);
	EXPECT_EQ(finder_.found()[0].transaction, "/often.php");
}

} // namespace
