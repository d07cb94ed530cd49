/* How much of a trace is read at once. */
#include "query/trace_documents.h"

#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include "payloads.h"
#include "query/service.h"
#include "query/service_table.h"
#include "query/trace_json.h"
#include "sqlite_store_fixture.h"

namespace {

using namespace kaq;
using namespace kaq_test;

const std::string kTrace = "61c0ffee61c0ffee61c0ffee61c0ffee";

class TraceDocumentsTest : public SqliteStoreTest {
protected:
	void put_requests(int64_t count, int64_t spans, bool has_document = true) {
		for (int64_t i = 0; i < count; i++) {
			number_++;
			Record one = record(number_, now_ + number_);
			one.summary.trace_id = kTrace;
			one.summary.spans = spans;
			put(one, has_document ? payload("", kRoot) : "");
		}
		store().flush();
	}

	nlohmann::json exported() {
		ServiceContext context{store(), [this] { return now_.load(); }, nullptr, nullptr};
		Question question;
		question.parameters = {{"id", kTrace}, {"format", "json"}};
		return nlohmann::json::parse(export_requests(context, question).text);
	}

	int64_t number_ = 0;
};

TEST_F(TraceDocumentsTest, ManyRequestsAreReadWhole) {
	put_requests(300, 1);
	std::vector<RequestRow> rows = store().trace(kTrace);
	ASSERT_EQ(rows.size(), 300u);
	EXPECT_EQ(read_documents(store(), rows).documents.size(), 300u);
	nlohmann::json trace = trace_json(store(), rows);
	EXPECT_EQ(trace.at("left_out"), 0);
	EXPECT_EQ(trace.at("requests").size(), 300u);
	EXPECT_TRUE(trace.at("requests").back().contains("spans"));
	nlohmann::json file = exported();
	EXPECT_EQ(file.at("requests").size(), 300u);
	EXPECT_FALSE(file.contains("left_out"));
}

TEST_F(TraceDocumentsTest, WhatIsTooMuchIsLeftOutAndSaid) {
	put_requests(1, static_cast<int64_t>(kMostSpansOfATrace) + 1);
	put_requests(2, static_cast<int64_t>(kMostSpansOfATrace));
	put_requests(3, 1);
	put_requests(1, 1, false);
	std::vector<RequestRow> rows = store().trace(kTrace);
	TraceDocuments found = read_documents(store(), rows);
	EXPECT_EQ(found.documents.size(), 4u) << "the first one always";
	EXPECT_EQ(found.left_out.size(), 2u);
	EXPECT_EQ(found.not_kept.size(), 1u);
	nlohmann::json trace = trace_json(store(), rows);
	EXPECT_EQ(trace.at("left_out"), 2);
	size_t said = 0;
	for (const nlohmann::json &each : trace.at("requests")) {
		said += each.value("left_out", false) ? 1 : 0;
	}
	EXPECT_EQ(said, 2u);
	nlohmann::json file = exported();
	EXPECT_EQ(file.at("left_out"), 2);
	EXPECT_EQ(file.at("not_kept"), 1);
	EXPECT_EQ(file.at("requests").size(), 4u);
}

} // namespace
