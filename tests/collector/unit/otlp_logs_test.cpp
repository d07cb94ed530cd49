/* Errors and exceptions as log records of OTLP. */
#include "export/otlp_logs.h"

#include <gtest/gtest.h>

#include "export/otlp_attributes.h"
#include "otlp_decoding.h"
#include "requests.h"

namespace {

using namespace kaq;
using namespace kaq_test;

constexpr uint64_t kMillisecond = 1000000;

std::vector<Message> records_of(const std::string &request) {
	std::vector<Message> records;
	for (const Message &of_resource : Message(request).messages(1)) {
		for (const Message &of_scope : of_resource.messages(2)) {
			for (const Message &record : of_scope.messages(2)) {
				records.push_back(record);
			}
		}
	}
	return records;
}

std::vector<Message> records_of(const Transaction &transaction) {
	OtlpTraceSettings settings;
	OtlpLogWriter writer(transaction, settings);
	return records_of(writer.write(0, SIZE_MAX, SIZE_MAX).bytes);
}

TEST(OtlpLogs, AFailureIsARecordOfItsSpan) {
	Request request("/cart");
	request.waits(5).open("Cart::pay").fails("DomainException", "no stock", "Error");
	Transaction transaction = request.done();
	transaction.spans[0].id = "00000000000000c1";
	transaction.spans[1].id = "00000000000000c2";
	transaction.spans[1].failures[0].file = "/srv/Cart.php";
	transaction.spans[1].failures[0].line = 12;
	transaction.spans[1].failures[0].time = 1700000000123;
	std::vector<Message> records = records_of(transaction);
	ASSERT_EQ(records.size(), 1u);
	const Message &record = records[0];
	EXPECT_EQ(record.number(1), 1700000000123 * kMillisecond);
	EXPECT_EQ(record.number(11), record.number(1));
	EXPECT_EQ(record.number(2), 17u);
	EXPECT_EQ(record.bytes(3), "Error");
	EXPECT_EQ(record.message(5).bytes(1), "no stock");
	EXPECT_EQ(record.number(8), 1u);
	EXPECT_EQ(hex(record.bytes(9)), "4bf92f3577b34da6a3ce929d0e0e4736");
	EXPECT_EQ(hex(record.bytes(10)), "00000000000000c2");
	std::map<std::string, std::string> expected = {{"exception.type", "DomainException"},
												   {"exception.message", "no stock"},
												   {"exception.stacktrace", "#0 /srv/Cart.php(12)"},
												   {"code.file.path", "/srv/Cart.php"},
												   {"code.line.number", "12"}};
	EXPECT_EQ(attributes_of(record, 6), expected);
}

TEST(OtlpLogs, LevelsHaveTheirSeverities) {
	Request request("/cart");
	request.fails("ERROR", "a", "Notice").fails("ERROR", "b", "Warning").fails("E", "c", "Error");
	std::vector<uint64_t> severities;
	for (const Message &record : records_of(request.done())) {
		severities.push_back(record.number(2));
	}
	EXPECT_EQ(severities, (std::vector<uint64_t>{9, 13, 17}));
}

/* Its span's end is the last time that it can have been. */
TEST(OtlpLogs, AFailureWithoutATimeHasItsSpansEnd) {
	Request request("/cart");
	request.waits(40).fails("E", "x", "Error");
	Transaction transaction = request.done();
	transaction.spans[0].failures[0].time = 0;
	EXPECT_EQ(records_of(transaction)[0].number(1),
			  static_cast<uint64_t>(transaction.spans[0].end) * kMillisecond);
}

TEST(OtlpLogs, ARequestWithoutFailuresHasNoRecords) {
	Request request("/cart");
	Transaction transaction = request.works(5).done();
	OtlpTraceSettings settings;
	EXPECT_EQ(OtlpLogWriter(transaction, settings).items(), 0u);
}

TEST(OtlpLogs, OfASpanTheFirstAreSentAndPartsAreTheWhole) {
	Request request("/cart");
	for (size_t i = 0; i < kMostOtlpEvents + 5; i++) {
		request.fails("E", "number " + std::to_string(i), "Error");
	}
	Transaction transaction = request.done();
	OtlpTraceSettings settings;
	OtlpLogWriter writer(transaction, settings);
	ASSERT_EQ(writer.items(), kMostOtlpEvents);
	std::string bytes;
	for (size_t from = 0; from < writer.items();) {
		OtlpPart part = writer.write(from, 7, SIZE_MAX);
		ASSERT_LE(part.items(), 7u);
		bytes += part.bytes;
		from = part.to;
	}
	std::vector<Message> records = records_of(bytes);
	ASSERT_EQ(records.size(), kMostOtlpEvents);
	EXPECT_EQ(records.back().message(5).bytes(1), "number " + std::to_string(kMostOtlpEvents - 1));
}

} // namespace
