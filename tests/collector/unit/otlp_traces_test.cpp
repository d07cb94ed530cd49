/* Requests as spans of OTLP. */
#include "export/otlp_traces.h"

#include <gtest/gtest.h>

#include <fstream>
#include <random>
#include <set>

#include "otlp_decoding.h"
#include "requests.h"
#include "traces.h"

namespace {

using namespace kaq;
using namespace kaq_test;

constexpr uint64_t kMillisecond = 1000000;
/* What stands around the spans of a part. */
constexpr size_t kAround = 300;
constexpr uint64_t kInternal = 1;
constexpr uint64_t kServer = 2;
constexpr uint64_t kClient = 3;
constexpr uint64_t kError = 2;

std::vector<SentSpan> sent(const Transaction &transaction, const OtlpTraceSettings &settings = {}) {
	OtlpTraceWriter writer(transaction, settings);
	return spans_of(writer.write(0, SIZE_MAX, SIZE_MAX).bytes);
}

/* The first span with that attribute. */
SentSpan span_with(const std::vector<SentSpan> &spans, const std::string &key,
				   const std::string &value) {
	for (const SentSpan &span : spans) {
		auto found = span.attributes.find(key);
		if (found != span.attributes.end() && found->second == value) {
			return span;
		}
	}
	ADD_FAILURE() << "no span has " << key << " " << value;
	return {};
}

std::string attribute(const SentSpan &span, const std::string &key) {
	auto found = span.attributes.find(key);
	return found == span.attributes.end() ? "" : found->second;
}

Transaction web_request() {
	Request request("/shop/cart/7");
	request.works(5);
	Transaction transaction = request.done();
	transaction.normalised_name = "/shop/cart/*";
	transaction.method = "POST";
	transaction.status = 201;
	transaction.host = "shop.example:8080";
	transaction.query_string = "page=2";
	transaction.application = "Shop";
	transaction.application_group = "front";
	transaction.instance_id = "i1";
	transaction.request_headers = {{"Accept", "*/*"}, {"USER-AGENT", "curl/8"}};
	transaction.spans[0].id = "00000000000000aa";
	return transaction;
}

TEST(OtlpTraces, AWebRequestIsAServerSpan) {
	Transaction transaction = web_request();
	transaction.spans[0].parent_id = "00f067aa0ba902b7";
	std::vector<SentSpan> spans = sent(transaction);
	ASSERT_EQ(spans.size(), 1u);
	const SentSpan &root = spans[0];
	EXPECT_EQ(root.kind, kServer);
	EXPECT_EQ(root.name, "POST /shop/cart/*");
	EXPECT_EQ(root.trace_id, "4bf92f3577b34da6a3ce929d0e0e4736");
	EXPECT_EQ(root.id, "00000000000000aa");
	EXPECT_EQ(root.parent, "00f067aa0ba902b7");
	EXPECT_EQ(root.flags, 0x301u);
	EXPECT_EQ(root.start, 1795264027000u * kMillisecond);
	EXPECT_EQ(root.end, 1795264027005u * kMillisecond);
	EXPECT_EQ(root.status, 0u);
	std::map<std::string, std::string> expected = {
		{"http.request.method", "POST"},
		{"http.response.status_code", "201"},
		{"url.path", "/shop/cart/7"},
		{"url.query", "page=2"},
		{"server.address", "shop.example"},
		{"server.port", "8080"},
		{"user_agent.original", "curl/8"},
		{"kaq.transaction", "/shop/cart/*"},
		{"kaq.cpu_ms", "5"},
		{"kaq.memory_bytes", "0"},
	};
	EXPECT_EQ(root.attributes, expected);
}

TEST(OtlpTraces, AResourceSaysWhoItIs) {
	OtlpTraceSettings settings;
	settings.host = "web1";
	std::map<std::string, std::string> expected = {
		{"service.name", "Shop"},        {"service.namespace", "front"},
		{"service.instance.id", "i1"},   {"host.name", "web1"},
		{"telemetry.sdk.name", "kaq"},   {"telemetry.sdk.language", "php"},
		{"telemetry.sdk.version", "4.9"}};
	EXPECT_EQ(sent(web_request(), settings)[0].resource, expected);
	Transaction nameless = request_of(1, 2);
	EXPECT_EQ(sent(nameless)[0].resource.at("service.name"), "unknown_service:php");
	EXPECT_EQ(sent(nameless)[0].resource.count("host.name"), 0u);
}

TEST(OtlpTraces, AScriptIsAnInternalSpan) {
	Transaction transaction = Request("job.php", false).done();
	SentSpan root = sent(transaction)[0];
	EXPECT_EQ(root.kind, kInternal);
	EXPECT_EQ(root.name, "job.php");
	EXPECT_EQ(root.flags, 0x101u);
	EXPECT_EQ(root.parent, "");
	EXPECT_EQ(root.attributes.count("http.request.method"), 0u);
	EXPECT_EQ(root.attributes.count("url.path"), 0u);
	EXPECT_EQ(root.attributes.count("http.response.status_code"), 0u);
}

TEST(OtlpTraces, AMethodThatNobodyKnowsIsOther) {
	Transaction transaction = web_request();
	transaction.method = "BREW";
	SentSpan root = sent(transaction)[0];
	EXPECT_EQ(root.name, "HTTP /shop/cart/*");
	EXPECT_EQ(attribute(root, "http.request.method"), "_OTHER");
	EXPECT_EQ(attribute(root, "http.request.method_original"), "BREW");
}

TEST(OtlpTraces, StatementsTellNoLiterals) {
	Request request("/cart");
	request.connect("pgsql:host=db1;port=5433;dbname=shop");
	request.query("SELECT * FROM users WHERE name = 'Ada' AND age > 30", 3);
	Transaction transaction = request.done();
	std::vector<SentSpan> spans = sent(transaction);
	SentSpan query = span_with(spans, "code.function.name", "PDO::query");
	EXPECT_EQ(query.kind, kClient);
	EXPECT_EQ(query.name, "SELECT users");
	EXPECT_EQ(attribute(query, "db.system.name"), "postgresql");
	EXPECT_EQ(attribute(query, "db.namespace"), "shop");
	EXPECT_EQ(attribute(query, "db.operation.name"), "SELECT");
	EXPECT_EQ(attribute(query, "db.query.summary"), "SELECT users");
	EXPECT_EQ(attribute(query, "db.query.text"), "SELECT * FROM users WHERE name = ? AND age > ?");
	EXPECT_EQ(attribute(query, "server.address"), "db1");
	EXPECT_EQ(attribute(query, "server.port"), "5433");
	EXPECT_EQ(attribute(query, "kaq.component"), "PDO");
	SentSpan connect = span_with(spans, "code.function.name", "PDO::__construct");
	EXPECT_EQ(attribute(connect, "server.address"), "db1");
	OtlpTraceSettings settings;
	settings.has_literals = true;
	query = span_with(sent(transaction, settings), "code.function.name", "PDO::query");
	EXPECT_EQ(attribute(query, "db.query.text"),
			  "SELECT * FROM users WHERE name = 'Ada' AND age > 30");
}

TEST(OtlpTraces, APreparedStatementIsToldWhereItRuns) {
	Request request("/cart");
	request.prepare("DELETE FROM carts WHERE id = ?").execute(2);
	std::vector<SentSpan> spans = sent(request.done());
	SentSpan run = span_with(spans, "code.function.name", "PDOStatement::execute");
	EXPECT_EQ(attribute(run, "db.query.text"), "DELETE FROM carts WHERE id = ?");
	EXPECT_EQ(attribute(run, "db.system.name"), "other_sql");
	EXPECT_EQ(span_with(spans, "code.function.name", "PDO::prepare").kind, kInternal);
}

TEST(OtlpTraces, TwoDriversLeaveItUnknownWhichOneIsMeant) {
	Request request("/cart");
	request.connect("mysql:host=db1;dbname=a")
		.connect("pgsql:host=db2;dbname=b")
		.query("SELECT 1", 1);
	SentSpan query = span_with(sent(request.done()), "code.function.name", "PDO::query");
	EXPECT_EQ(attribute(query, "db.system.name"), "other_sql");
	EXPECT_EQ(attribute(query, "db.namespace"), "");
	EXPECT_EQ(attribute(query, "server.address"), "");
}

TEST(OtlpTraces, CallsTellTheirAddress) {
	Request request("/cart");
	request.call("https://api.example/v1/prices?q=1", 4, 503);
	request.call("http://old.example:8081/", 4);
	std::vector<SentSpan> spans = sent(request.done());
	SentSpan call = span_with(spans, "server.address", "api.example");
	EXPECT_EQ(call.kind, kClient);
	EXPECT_EQ(call.name, "HTTP api.example");
	EXPECT_EQ(attribute(call, "url.full"), "https://api.example/v1/prices?q=1");
	EXPECT_EQ(attribute(call, "server.port"), "443");
	EXPECT_EQ(attribute(call, "http.response.status_code"), "503");
	EXPECT_EQ(attribute(call, "error.type"), "503");
	EXPECT_EQ(call.status, kError);
	SentSpan other = span_with(spans, "server.address", "old.example");
	EXPECT_EQ(attribute(other, "server.port"), "8081");
	EXPECT_EQ(other.status, 0u);
	EXPECT_EQ(span_with(spans, "code.function.name", "curl_init").kind, kInternal);
}

TEST(OtlpTraces, ACallWithoutAnAnswerFailed) {
	Request request("/cart");
	request.call("https://api.example/", 4, 0);
	SentSpan call = span_with(sent(request.done()), "server.address", "api.example");
	EXPECT_EQ(attribute(call, "error.type"), "_OTHER");
	EXPECT_EQ(call.status, kError);
	EXPECT_EQ(call.attributes.count("http.response.status_code"), 0u);
}

TEST(OtlpTraces, ACacheTellsWhatItIsAskedFor) {
	Request request("/cart");
	request.cache("Redis::get", 1);
	SentSpan call = span_with(sent(request.done()), "code.function.name", "Redis::get");
	EXPECT_EQ(call.kind, kClient);
	EXPECT_EQ(attribute(call, "db.system.name"), "redis");
	EXPECT_EQ(attribute(call, "db.operation.name"), "GET");
}

TEST(OtlpTraces, UserCodeIsInternal) {
	Request request("/cart");
	request.runs("Shop\\Cart::sum", 3);
	SentSpan span = span_with(sent(request.done()), "code.function.name", "Shop\\Cart::sum");
	EXPECT_EQ(span.kind, kInternal);
	EXPECT_EQ(span.attributes.count("kaq.component"), 0u);
}

TEST(OtlpTraces, AStackTellsTheLineThatCalled) {
	Request request("/cart");
	request.query("SELECT 1", 2);
	request.last().stack = {{"Shop\\Db", "run", "/srv/Db.php", 7}, {"", "main", "/srv/i.php", 3}};
	SentSpan query = span_with(sent(request.done()), "code.function.name", "PDO::query");
	EXPECT_EQ(attribute(query, "code.file.path"), "/srv/Db.php");
	EXPECT_EQ(attribute(query, "code.line.number"), "7");
	EXPECT_EQ(attribute(query, "code.stacktrace"),
			  "#0 /srv/Db.php(7): Shop\\Db::run\n#1 /srv/i.php(3): main");
}

TEST(OtlpTraces, ExceptionsAndErrorsAreEvents) {
	Request request("/cart");
	request.open("Cart::pay").works(2).fails("DomainException", "no stock", "Error");
	request.open("Cart::log").fails("ERROR", "Undefined variable", "Notice");
	std::vector<SentSpan> spans = sent(request.done());
	SentSpan pay = span_with(spans, "code.function.name", "Cart::pay");
	EXPECT_EQ(pay.status, kError);
	EXPECT_EQ(attribute(pay, "error.type"), "DomainException");
	ASSERT_EQ(pay.events.size(), 1u);
	EXPECT_EQ(pay.events[0].name, "exception");
	EXPECT_EQ(pay.events[0].time, 1795264027002u * kMillisecond);
	std::map<std::string, std::string> expected = {
		{"exception.type", "DomainException"},
		{"exception.message", "no stock"},
		{"exception.stacktrace", "#0 /srv/shop/src/Cart.php(12)"}};
	EXPECT_EQ(pay.events[0].attributes, expected);
	SentSpan log = span_with(spans, "code.function.name", "Cart::log");
	EXPECT_EQ(log.status, 0u);
	EXPECT_EQ(log.attributes.count("error.type"), 0u);
	ASSERT_EQ(log.events.size(), 1u);
	EXPECT_EQ(log.events[0].attributes.at("exception.type"), "Notice");
}

TEST(OtlpTraces, AFailedAnswerIsAnError) {
	Transaction transaction = web_request();
	transaction.status = 500;
	EXPECT_EQ(attribute(sent(transaction)[0], "error.type"), "500");
	EXPECT_EQ(sent(transaction)[0].status, kError);
	transaction.status = 404;
	EXPECT_EQ(sent(transaction)[0].status, 0u);
}

TEST(OtlpTraces, IdentifiersAreMadeValidAndKept) {
	Transaction transaction = web_request();
	transaction.trace_id = "not a trace";
	transaction.spans[0].parent_id = "rubbish";
	transaction.spans[0].id = "0000000000000000";
	SentSpan root = sent(transaction)[0];
	EXPECT_EQ(root.trace_id.size(), 32u);
	EXPECT_NE(root.trace_id, std::string(32, '0'));
	EXPECT_EQ(root.id.size(), 16u);
	EXPECT_NE(root.id, std::string(16, '0'));
	EXPECT_EQ(root.parent, "");
	EXPECT_EQ(root.flags, 0x101u);
	EXPECT_EQ(attribute(root, "kaq.trace_id"), "not a trace");
	EXPECT_EQ(attribute(root, "kaq.span_id"), "0000000000000000");
	EXPECT_EQ(attribute(root, "kaq.parent_span_id"), "rubbish");
	EXPECT_EQ(sent(transaction)[0].trace_id, root.trace_id);
	EXPECT_EQ(sent(transaction)[0].id, root.id);
}

TEST(OtlpTraces, SpansWithTheSameIdentifierAreToldApart) {
	Transaction transaction = request_of(1000, 1100);
	transaction.spans[0].id = "00000000000000aa";
	for (int i = 0; i < 100; i++) {
		add_span(transaction, 0, 1000, 1001, "f").id = i % 2 == 0 ? "00000000000000aa" : "";
	}
	std::set<std::string> ids;
	for (const SentSpan &span : sent(transaction)) {
		EXPECT_TRUE(ids.insert(span.id).second) << span.id;
	}
	EXPECT_EQ(ids.count("00000000000000aa"), 1u);
}

TEST(OtlpTraces, TimesThatNobodyCanTellAreInRange) {
	Transaction transaction = request_of(INT64_MAX, INT64_MIN);
	SentSpan root = sent(transaction)[0];
	EXPECT_EQ(root.start, static_cast<uint64_t>(INT64_MAX / 1000000 * 1000000));
	EXPECT_EQ(root.end, root.start);
	transaction = request_of(-5, -1);
	EXPECT_EQ(sent(transaction)[0].start, 0u);
}

TEST(OtlpTraces, ATextIsCutBetweenCharacters) {
	Request request("/cart");
	std::string text;
	for (int i = 0; i < 40000; i++) {
		text += "\xc3\xa4";
	}
	request.open("f").fails("E", "x" + text, "Error");
	SentSpan span = span_with(sent(request.done()), "code.function.name", "f");
	EXPECT_EQ(span.events[0].attributes.at("exception.message").size(), 65535u);
}

TEST(OtlpTraces, PartsTogetherAreTheWhole) {
	std::mt19937 random(7);
	for (int i = 0; i < 200; i++) {
		Transaction transaction = random_request(random);
		OtlpTraceSettings settings;
		OtlpTraceWriter writer(transaction, settings);
		std::vector<SentSpan> whole = spans_of(writer.write(0, SIZE_MAX, SIZE_MAX).bytes);
		ASSERT_EQ(whole.size(), transaction.spans.size());
		size_t most_spans = 1 + random() % 10;
		size_t most_bytes = random() % 3000;
		std::string bytes;
		for (size_t from = 0; from < writer.items();) {
			OtlpPart part = writer.write(from, most_spans, most_bytes);
			ASSERT_GE(part.items(), 1u);
			ASSERT_LE(part.items(), most_spans);
			ASSERT_TRUE(part.items() == 1 || part.bytes.size() <= most_bytes + kAround);
			ASSERT_EQ(spans_of(part.bytes).size(), part.items());
			bytes += part.bytes;
			from = part.to;
		}
		std::vector<SentSpan> parts = spans_of(bytes);
		ASSERT_EQ(parts.size(), whole.size());
		for (size_t span = 0; span < whole.size(); span++) {
			EXPECT_EQ(parts[span].id, whole[span].id);
			int32_t parent = transaction.spans[span].parent;
			EXPECT_EQ(parts[span].parent, parent < 0 ? "" : whole[static_cast<size_t>(parent)].id);
		}
	}
}

/* A row of a table of the document begins with the keys that it explains. */
TEST(OtlpTraces, TheDocumentHasEveryAttribute) {
	std::ifstream file(KAQ_EXPORT_DOCUMENT);
	ASSERT_TRUE(file);
	std::string rows;
	std::string whole;
	for (std::string line; std::getline(file, line);) {
		whole += line + "\n";
		if (line.rfind("| `", 0) == 0) {
			rows += line.substr(0, line.find(" | ")) + "\n";
		}
	}
	auto expect_key = [&rows](const char *key) {
		EXPECT_NE(rows.find("`" + std::string(key) + "`"), std::string::npos) << key;
	};
	for (const OtlpAttribute &each : otlp_attributes()) {
		expect_key(each.key);
	}
	for (const OtlpResourceAttribute &each : otlp_resource_attributes()) {
		expect_key(each.key);
	}
	for (const OtlpEventAttribute &each : otlp_event_attributes()) {
		expect_key(each.key);
	}
	for (const OtlpEventAttribute &each : otlp_log_attributes()) {
		expect_key(each.key);
	}
	for (const OtlpPointAttribute &each : otlp_point_attributes()) {
		EXPECT_NE(whole.find("`" + std::string(each.key) + "`"), std::string::npos) << each.key;
	}
}

} // namespace
