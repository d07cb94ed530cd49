#include "model/payload_reader.h"

#include <gtest/gtest.h>

#include "payloads.h"

using kaq::PayloadError;
using kaq::PayloadReader;
using kaq::Transaction;

class Reader : public testing::Test {
protected:
	PayloadReader reader;

	Transaction read(const std::string &json) {
		auto result = reader.read_json(json);
		EXPECT_TRUE(result.has_value()) << json;
		return result ? std::move(*result) : Transaction();
	}

	/* The transaction with these members and one more span of these. */
	Transaction with_span(const std::string &members) {
		Transaction transaction = read(payload("", kRoot + ",{" + members + "}"));
		EXPECT_EQ(2u, transaction.spans.size());
		transaction.spans.resize(2);
		return transaction;
	}

	void expect_error(PayloadError error, const std::string &json) {
		auto result = reader.read_json(json);
		ASSERT_FALSE(result.has_value()) << json;
		EXPECT_EQ(error, result.error()) << json;
	}
};

TEST_F(Reader, WhatIsKnownOfTheRequest) {
	Transaction t = read(
		payload(R"("t_name":"\/cart","normalised_tname":"\/c*","http_host":"shop.example",)"
				R"("http_query_str":"a=1","s_time":1000,"e_time":1300,"http_method_name":"POST",)"
				R"("bytes_in":5,"bytes_out":6,"transaction_type":1,"thread_id":77,"httpcode":404,)"
				R"("cputime":12,"memalloc":2097152,"trace_id":"t1","session_id":"s1",)"
				R"("origin":{"async":false,"flow":"f1"})",
				kRoot));
	EXPECT_EQ("Shop", t.application);
	EXPECT_EQ("front", t.application_group);
	EXPECT_EQ("i1", t.instance_id);
	EXPECT_EQ("/cart", t.name);
	EXPECT_EQ("/c*", t.normalised_name);
	EXPECT_EQ("shop.example", t.host);
	EXPECT_EQ("a=1", t.query_string);
	EXPECT_EQ("POST", t.method);
	EXPECT_EQ("t1", t.trace_id);
	EXPECT_EQ("s1", t.session_id);
	EXPECT_EQ("f1", t.flow);
	EXPECT_EQ(1000, t.start);
	EXPECT_EQ(300, t.duration());
	EXPECT_EQ(5, t.bytes_in);
	EXPECT_EQ(6, t.bytes_out);
	EXPECT_EQ(404, t.status);
	EXPECT_EQ(77, t.thread);
	EXPECT_EQ(12, t.cpu);
	EXPECT_EQ(2097152, t.memory);
	EXPECT_TRUE(t.is_web);
	EXPECT_FALSE(t.is_async);
}

TEST_F(Reader, HeadersAndParametersKeepTheirShapeInTheirNames) {
	Transaction t = read(payload(
		R"("http_headers":{"Host":"shop.example","X-Many":["a","b"]},)"
		R"("http_input_params":{"q":"text","list":["x",{"k":"y"}],"n":5,"none":null,"e":{}},)"
		R"("http_resp_headers":{"Content-Type":"text\/html"},"custom_params":{"user":"anna"})",
		kRoot));
	ASSERT_EQ(3u, t.request_headers.size());
	EXPECT_EQ("Host", t.request_headers[0].name);
	EXPECT_EQ("shop.example", t.request_headers[0].value);
	EXPECT_EQ("X-Many[1]", t.request_headers[2].name);
	EXPECT_EQ("b", t.request_headers[2].value);
	ASSERT_EQ(5u, t.parameters.size());
	EXPECT_EQ("list[0]", t.parameters[1].name);
	EXPECT_EQ("list[1][k]", t.parameters[2].name);
	EXPECT_EQ("y", t.parameters[2].value);
	EXPECT_EQ("5", t.parameters[3].value);
	EXPECT_EQ("null", t.parameters[4].value);
	ASSERT_EQ(1u, t.response_headers.size());
	EXPECT_EQ("text/html", t.response_headers[0].value);
	ASSERT_EQ(1u, t.custom_parameters.size());
}

TEST_F(Reader, ScriptOfTheCommandLineHasArguments) {
	Transaction t = read(
		payload(R"("transaction_type":0,"bckgrnd_input_params":{"$argv[0]":"job.php"})", kRoot));
	EXPECT_FALSE(t.is_web);
	EXPECT_EQ(0, t.status);
	ASSERT_EQ(1u, t.parameters.size());
	EXPECT_EQ("job.php", t.parameters[0].value);
}

TEST_F(Reader, MembersOfASpan) {
	Transaction t = with_span(
		R"("st":1010,"et":1020,"mo":1,"pr":2,"fn":"PDO::query","cn":"PDO","ex":1,"ar":true,"if":1,)"
		R"("si":"bb","psi":"00000000000000aa","qs":"SELECT 1","esc":200,"hn":"db1","pn":3306,)"
		R"("dn":"shop","erqh":{"A":"1"},"ersh":{"B":"2\r\n"})");
	const kaq::Span &span = t.spans[1];
	EXPECT_EQ("PDO::query", span.name);
	EXPECT_EQ("PDO", span.component);
	EXPECT_EQ("bb", span.id);
	EXPECT_EQ(0, span.parent);
	EXPECT_EQ("SELECT 1", span.query);
	EXPECT_EQ("db1", span.host);
	EXPECT_EQ("shop", span.database);
	EXPECT_EQ(10, span.duration());
	EXPECT_EQ(200, span.status);
	EXPECT_EQ(3306, span.port);
	EXPECT_TRUE(span.is_external);
	EXPECT_TRUE(span.is_async);
	EXPECT_TRUE(span.is_failed);
	EXPECT_EQ("A", span.sent_headers.at(0).name);
	EXPECT_EQ("2\r\n", span.received_headers.at(0).value);
	EXPECT_FALSE(t.spans[0].is_failed);
	EXPECT_EQ(-1, t.spans[0].parent);
}

TEST_F(Reader, EitherMarkOfAFailureCounts) {
	EXPECT_TRUE(with_span(R"("si":"bb","ie":1)").spans[1].is_failed);
	EXPECT_TRUE(with_span(R"("si":"bb","if":1)").spans[1].is_failed);
	EXPECT_FALSE(with_span(R"("si":"bb")").spans[1].is_failed);
}

TEST_F(Reader, FailuresAndTheirStack) {
	Transaction t = with_span(
		R"("si":"bb","ei":[{"err_clz":"ERROR","filename":"\/a.php","linenumber":7,"time":1015,)"
		R"("level":"Notice","str":"no such \"thing\""},{"err_clz":"LogicException"}],)"
		R"("mst":[["Cart","add","\/srv\/Cart.php",42],["","main","",0]])");
	const kaq::Span &span = t.spans[1];
	ASSERT_EQ(2u, span.failures.size());
	EXPECT_EQ("ERROR", span.failures[0].type);
	EXPECT_EQ("/a.php", span.failures[0].file);
	EXPECT_EQ(7, span.failures[0].line);
	EXPECT_EQ(1015, span.failures[0].time);
	EXPECT_EQ("Notice", span.failures[0].level);
	EXPECT_EQ("no such \"thing\"", span.failures[0].message);
	EXPECT_EQ("LogicException", span.failures[1].type);
	ASSERT_EQ(2u, span.stack.size());
	EXPECT_EQ("Cart", span.stack[0].type);
	EXPECT_EQ("add", span.stack[0].function);
	EXPECT_EQ("/srv/Cart.php", span.stack[0].file);
	EXPECT_EQ(42, span.stack[0].line);
}

TEST_F(Reader, ParentsAreFoundByTheirIdentifiers) {
	Transaction t = read(payload("", kRoot + R"(,{"si":"b","psi":"00000000000000aa"},)"
											 R"({"si":"c","psi":"b"},{"si":"d","psi":"lost"})"));
	ASSERT_EQ(4u, t.spans.size());
	EXPECT_EQ(0, t.spans[1].parent);
	EXPECT_EQ(1, t.spans[2].parent);
	EXPECT_EQ(0, t.spans[3].parent);
}

TEST_F(Reader, ObjectsThatBeginWithACommaAreMeant) {
	Transaction t = read(payload(R"("origin":{,"async":true,"flow":"f1"})", kRoot,
								 R"(,"average":{"load":2.5},"data":true)"));
	EXPECT_TRUE(t.is_async);
	EXPECT_EQ("f1", t.flow);
	ASSERT_EQ(1u, t.averages.size());
	EXPECT_EQ("load", t.averages[0].name);
	EXPECT_EQ(2.5, t.averages[0].value);
	EXPECT_TRUE(t.sums.empty());
}

TEST_F(Reader, CommasWithinTextsStay) {
	Transaction t = read(payload(R"("t_name":"a{,\"b{,\\","origin":{,"async":true})", kRoot));
	EXPECT_EQ("a{,\"b{,\\", t.name);
	EXPECT_TRUE(t.is_async);
}

TEST_F(Reader, InvalidUtf8IsReplaced) {
	EXPECT_EQ("a\xEF\xBF\xBD"
			  "b",
			  read(payload("\"t_name\":\"a\xff"
						   "b\"",
						   kRoot))
				  .name);
	EXPECT_EQ("\xC3\xA9", read(payload("\"t_name\":\"\xC3\xA9\"", kRoot)).name);
}

TEST_F(Reader, MembersOfAnotherTypeCountAsMissing) {
	Transaction t =
		read(payload(R"("t_name":5,"s_time":"x","httpcode":18446744073709551615)", kRoot));
	EXPECT_EQ("", t.name);
	EXPECT_EQ(0, t.start);
	EXPECT_EQ(INT64_MAX, t.status);
}

TEST_F(Reader, ATransactionNeedsItsSectionsAndASpan) {
	expect_error(PayloadError::kNotATransaction, "{}");
	expect_error(PayloadError::kNotATransaction, "[]");
	expect_error(PayloadError::kNotATransaction, "5");
	expect_error(PayloadError::kNotATransaction, R"({"apm":{}})");
	expect_error(PayloadError::kNotATransaction, payload("", ""));
}

TEST_F(Reader, WhatIsNoJsonIsRefused) {
	std::string whole = payload("", kRoot);
	expect_error(PayloadError::kNotJson, "");
	expect_error(PayloadError::kNotJson, whole.substr(0, whole.size() - 1));
	expect_error(PayloadError::kNotJson, whole + "}");
	expect_error(PayloadError::kNotJson, std::string(100000, '['));
	expect_error(PayloadError::kNotJson, std::string("{\"a\":\"\0\"}", 9));
}

TEST_F(Reader, NumbersThatNobodyCanHoldAreRefused) {
	for (const char *number : {"1e400", "18446744073709551616", "-9223372036854775809", "00", "1e",
							   "--1", "NaN", "0x10"}) {
		expect_error(PayloadError::kNotJson, payload("\"cputime\":" + std::string(number), kRoot));
	}
	EXPECT_EQ(0, read(payload("\"cputime\":1e300", kRoot)).cpu);
}

TEST_F(Reader, NestingIsRefusedAtWhateverDepth) {
	for (size_t depth : {2000, 1000000}) {
		for (const char *open : {"[", "{\"a\":"}) {
			std::string deep;
			for (size_t i = 0; i < depth; i++) {
				deep += open;
			}
			expect_error(PayloadError::kNotJson, deep);
			expect_error(PayloadError::kNotJson, payload("\"custom_params\":" + deep, kRoot));
		}
	}
}

TEST_F(Reader, ATextMayHaveANul) {
	Transaction t = read(payload(R"("t_name":"/a\u0000b")", kRoot));
	EXPECT_EQ(std::string_view("/a\0b", 4), t.name);
}

static std::string repeated(const std::string &text, size_t times) {
	std::string all;
	all.reserve(text.size() * times);
	for (size_t i = 0; i < times; i++) {
		all += text;
	}
	return all;
}

/* Little that is sent stands for much that is held. */
TEST_F(Reader, MoreValuesThanARequestCanHaveAreRefused) {
	std::string many = repeated("0,", 6100000) + "0";
	expect_error(PayloadError::kTooManyValues, payload("\"custom_params\":[" + many + "]", kRoot));
	/* Within a text, they are none. */
	Transaction t = read(payload("\"http_query_str\":\"\\\"" + many + "\"", kRoot));
	EXPECT_EQ(many.size() + 1, t.query_string.size());
}

TEST_F(Reader, MoreSpansThanARequestCanHaveAreRefused) {
	const std::string span = R"({"st":1000,"et":1500,"fn":"function","si":"00000000000000ab"},)";
	expect_error(PayloadError::kTooManySpans, payload("", repeated(span, 200000) + kRoot));
	EXPECT_EQ(200000u, read(payload("", repeated(span, 199999) + kRoot)).spans.size());
}

TEST_F(Reader, LineIsBase64) {
	EXPECT_EQ(PayloadError::kNotBase64, reader.read("no base64").error());
	EXPECT_EQ(PayloadError::kNotATransaction, reader.read("e30=").error());
}

TEST_F(Reader, DeepParametersEnd) {
	std::string deep = std::string(500, '[') + std::string(500, ']');
	Transaction t = read(payload("\"http_input_params\":{\"a\":" + deep + ",\"b\":\"c\"}", kRoot));
	ASSERT_EQ(1u, t.parameters.size());
	EXPECT_EQ("b", t.parameters[0].name);
}

/* Each member of a map repeats the names around it. */
TEST_F(Reader, NamesOfParametersAreBounded) {
	std::string members;
	for (int i = 0; i < 9990; i++) {
		members += (i > 0 ? ",\"" : "\"") + std::to_string(i) + "\":1";
	}
	std::string json = payload("\"http_input_params\":{\"" + std::string(30000, 'a') + "\":{" +
								   members + "},\"" + std::string(30000, 'b') + "\":2}",
							   kRoot);
	Transaction t = read(json);
	ASSERT_FALSE(t.parameters.empty());
	EXPECT_TRUE(reader.was_cut());
	for (const kaq::Field &field : t.parameters) {
		ASSERT_LE(field.name.size(), 1024u);
	}
	EXPECT_LT(t.texts.bytes(), 5 * json.size() + 2 * 1024 * 1024);
	EXPECT_EQ("a", read(payload(R"("http_input_params":{"a":"b"})", kRoot)).parameters[0].name);
	EXPECT_FALSE(reader.was_cut());
}

TEST_F(Reader, ANameIsCutBetweenCharacters) {
	std::string name = "a";
	while (name.size() < 2000) {
		name += "\u20ac";
	}
	Transaction t = read(payload("\"http_input_params\":{\"" + name + "\":{\"x\":1}}", kRoot));
	ASSERT_EQ(1u, t.parameters.size());
	EXPECT_EQ(name.substr(0, 1024), t.parameters[0].name);
	t = read(payload("\"http_input_params\":{\"" + name.substr(1) + "\":{\"x\":1}}", kRoot));
	ASSERT_EQ(1u, t.parameters.size());
	EXPECT_EQ(name.substr(1, 1023), t.parameters[0].name);
}

/* Whatever is written shortest takes no more memory than in proportion. */
TEST_F(Reader, ListsAreBoundedByTheSizeOfTheirDocument) {
	std::string ones = "1";
	std::string nothings = "{}";
	for (int i = 0; i < 9990; i++) {
		ones += ",1";
		nothings += ",{}";
	}
	std::string span = R"(,{"fn":"f","si":"1","erqh":{"h":[)" + ones + R"(]},"ei":[)" + nothings +
					   R"(],"mst":[)" + nothings + "]}";
	std::string spans = kRoot;
	for (int i = 0; i < 100; i++) {
		spans += span;
	}
	std::string json = payload("", spans);
	Transaction t = read(json);
	size_t bytes = 0;
	for (const kaq::Span &each : t.spans) {
		bytes += each.sent_headers.size() * sizeof(kaq::Field) +
				 each.failures.size() * sizeof(kaq::Failure);
	}
	EXPECT_GT(bytes, 1024u * 1024);
	EXPECT_LT(bytes, 4 * json.size() + 1024 * 1024);
	EXPECT_TRUE(reader.was_cut());
}

TEST_F(Reader, SpansThatAreNoneAreTooMany) {
	std::string spans = kRoot;
	for (int i = 0; i < 100000; i++) {
		spans += ",{}";
	}
	expect_error(PayloadError::kTooManySpans, payload("", spans));
}

TEST_F(Reader, TextsStayWhereTheTransactionGoes) {
	Transaction first = read(payload(R"("t_name":"one")", kRoot));
	Transaction second = read(payload(R"("t_name":"two")", kRoot));
	Transaction moved = std::move(first);
	EXPECT_EQ("one", moved.name);
	EXPECT_EQ("two", second.name);
}

TEST_F(Reader, TimesCanBeCalculatedWithWhateverTheySay) {
	Transaction t =
		read(payload(R"("s_time":-9223372036854775808,"e_time":18446744073709551615)",
					 R"({"st":-5,"et":9223372036854775807,"fn":"main","si":"00000000000000aa"})"));
	EXPECT_EQ(0, t.start);
	EXPECT_EQ(int64_t{1} << 42, t.end);
	EXPECT_EQ(int64_t{1} << 40, t.duration());
	EXPECT_EQ(0, t.spans[0].start);
	EXPECT_EQ(int64_t{1} << 42, t.spans[0].end);
}
