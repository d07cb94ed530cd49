#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include "query/shared_file.h"

namespace kaq {
namespace {

using nlohmann::json;

constexpr std::string_view kPage = "<html><!--kaq-data--></html>";

/* The content of each element, and what stands around them. */
struct Read {
	std::vector<std::pair<std::string, json>> elements; /* attribute, data */
	std::string around;
};

Read read(const std::string &file) {
	constexpr std::string_view kBegin = "<script type=\"application/json\" ";
	constexpr std::string_view kEnd = "</script>\n";
	Read read;
	size_t at = 0;
	for (size_t begin; (begin = file.find(kBegin, at)) != std::string::npos;) {
		read.around += file.substr(at, begin - at);
		size_t open = file.find('>', begin);
		size_t end = file.find("</", open);
		read.elements.emplace_back(file.substr(begin + kBegin.size(), open - begin - kBegin.size()),
								   json::parse(file.substr(open + 1, end - open - 1)));
		EXPECT_EQ(file.substr(end, kEnd.size()), kEnd);
		at = end + kEnd.size();
	}
	read.around += file.substr(at);
	return read;
}

json spans_of(size_t count) {
	json spans = json::array();
	for (size_t i = 0; i < count; i++) {
		spans.push_back({{"name", "span " + std::to_string(i)}});
	}
	return spans;
}

TEST(SharedFile, HoldsARequestInPieces) {
	json answer = {{"request", {{"id", "a1"}}}, {"spans", spans_of(4500)}};
	Read file = read(to_shared_file(kPage, SharedKind::kRequest, answer, 1234));
	EXPECT_EQ(file.around, "<html></html>");
	ASSERT_EQ(file.elements.size(), 4U);
	json together = json::array();
	for (size_t i = 0; i < 3; i++) {
		EXPECT_EQ(file.elements[i].first, "data-list=\"0\"");
		together.insert(together.end(), file.elements[i].second.begin(),
						file.elements[i].second.end());
	}
	EXPECT_EQ(together, answer["spans"]);
	answer["spans"] = json::array();
	EXPECT_EQ(file.elements[3].first, "id=\"kaq-answer\"");
	EXPECT_EQ(file.elements[3].second,
			  (json{{"kind", "request"}, {"written_ms", 1234}, {"answer", answer}}));
}

TEST(SharedFile, NumbersTheListsOfATrace) {
	json answer = {
		{"requests",
		 {{{"spans", spans_of(1)}}, {{"request", "not kept"}}, {{"spans", spans_of(2)}}}}};
	Read file = read(to_shared_file(kPage, SharedKind::kTrace, answer, 0));
	ASSERT_EQ(file.elements.size(), 3U);
	EXPECT_EQ(file.elements[0].first, "data-list=\"0\"");
	EXPECT_EQ(file.elements[1].first, "data-list=\"1\"");
	EXPECT_EQ(file.elements[1].second.size(), 2U);
	EXPECT_EQ(file.elements[2].second["kind"], "trace");
	EXPECT_FALSE(file.elements[2].second["answer"]["requests"][1].contains("spans"));
}

TEST(SharedFile, NothingRecordedEndsItsElement) {
	json hostile = "</script><script>alert(1)</script><!-- ]]> \xff \xe2\x80\xa8";
	json answer = {{"request", {{"</script>", hostile}}}, {"spans", {{{"name", hostile}}}}};
	std::string text = to_shared_file(kPage, SharedKind::kRequest, answer, 0);
	Read file = read(text);
	ASSERT_EQ(file.elements.size(), 2U);
	EXPECT_EQ(file.around, "<html></html>");
	EXPECT_EQ(text.find("<!--"), std::string::npos);
	EXPECT_EQ(file.elements[0].second[0]["name"],
			  "</script><script>alert(1)</script><!-- ]]> \xef\xbf\xbd \xe2\x80\xa8");
}

} // namespace
} // namespace kaq
