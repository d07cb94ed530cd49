/* Access to the engine's values and functions, the reply's decoding, and the response headers. */
#include "engine.h"

#include <stdlib.h>
#include <iterator>
#include <random>
#include <string.h>

#include "json/json_bounds.h"
#include "json/json_members.h"
#include "tracing/kaq_headers.h"
#include "util/kaq_strings.h"
#include "util/kaq_util_functions.h"
#include "wire/handshake.h"
#include "wire/request_values.h"

class EngineAccess : public EngineTest {
protected:
	void SetUp() override {
		EngineTest::SetUp();
		server_variable("REQUEST_URI", "/page");
		start_request();
	}

	/* The JSON text of what a call of ours returned, and frees it. */
	static std::string take(zval *value) {
		std::string text = take_text(kaq_encode_zval_to_json(value));
		php_zval_free(value);
		return text;
	}
};

TEST_F(EngineAccess, NewContainerHoldsNull) {
	zval *value = php_zval_alloc();
	EXPECT_EQ(IS_NULL, Z_TYPE_P(value));
	php_zval_free(value);
	php_zval_free(nullptr);
}

TEST_F(EngineAccess, ReleaseNullsTheField) {
	zval *value = php_zval_alloc();
	kaq_zval_release(&value);
	EXPECT_EQ(nullptr, value);
	kaq_zval_release(&value);
	EXPECT_EQ(nullptr, value);
}

TEST_F(EngineAccess, ValueUnderAKeyIsShared) {
	zval array = php_value("[str_repeat('k', mt_rand(2, 2)) => 'old']");
	zval value = php_value("[str_repeat('v', mt_rand(2, 2))]");
	kaq_add_assoc_zval(&array, "kk", &value);
	kaq_add_assoc_zval_ex(&array, "7\0x", 3, &value);
	EXPECT_EQ(3u, Z_REFCOUNT(value));
	EXPECT_EQ(Z_ARRVAL(value), Z_ARRVAL_P(zend_hash_str_find(Z_ARRVAL(array), "kk", 2)));
	EXPECT_EQ(Z_ARRVAL(value), Z_ARRVAL_P(zend_hash_str_find(Z_ARRVAL(array), "7\0x", 3)));
	EXPECT_EQ(2u, zend_hash_num_elements(Z_ARRVAL(array)));
	zval_ptr_dtor(&array);
	EXPECT_EQ(1u, Z_REFCOUNT(value));
	zval_ptr_dtor(&value);
}

TEST_F(EngineAccess, CallPassesUpToThreeArguments) {
	zval args[3] = {php_value("'b'"), php_value("'x'"), php_value("'abcb'")};
	EXPECT_EQ("\"axcx\"", take(php_call("str_replace", &args[0], &args[1], &args[2])));
	for (zval &arg : args) {
		zval_ptr_dtor(&arg);
	}
}

TEST_F(EngineAccess, CallStopsAtTheFirstMissingArgument) {
	zval text = php_value("'abcb'");
	EXPECT_EQ("4", take(php_call("strlen", &text, nullptr, &text)));
	zval_ptr_dtor(&text);
}

TEST_F(EngineAccess, CallOfAMissingFunctionGivesNullWithoutAWord) {
	EXPECT_EQ(nullptr, php_call("kaq_no_such_function", nullptr, nullptr, nullptr));
	EXPECT_EQ("null", php_json("error_get_last()"));
}

TEST_F(EngineAccess, UserFunctionOfThatNameIsNotCalled) {
	EXPECT_TRUE(run_php("function kaq_user_function() { return 1; }"));
	EXPECT_EQ(nullptr, php_call("kaq_user_function", nullptr, nullptr, nullptr));
}

TEST_F(EngineAccess, CallOpensNoSpan) {
	int before = g->node_buffer_len;
	take(php_call("phpversion", nullptr, nullptr, nullptr));
	EXPECT_EQ(before, g->node_buffer_len);
}

TEST_F(EngineAccess, NonEmptyStringIsToldFromEverythingElse) {
	EXPECT_FALSE(php_is_zval_non_empty_string(nullptr));
	for (const char *expression : {"''", "1", "null", "['a']", "true"}) {
		zval value = php_value(expression);
		EXPECT_FALSE(php_is_zval_non_empty_string(&value)) << expression;
		zval_ptr_dtor(&value);
	}
	zval value = php_value("'0'");
	EXPECT_TRUE(php_is_zval_non_empty_string(&value));
	zval_ptr_dtor(&value);
}

TEST_F(EngineAccess, ServerVariableThatIsNoNonEmptyStringReadsAsEmpty) {
	zval *server = &PG(http_globals)[TRACK_VARS_SERVER];
	add_assoc_string(server, "TEXT", (char *)"x");
	add_assoc_string(server, "EMPTY", (char *)"");
	add_assoc_long(server, "NUMBER", 5);
	add_assoc_bool(server, "TRUE", 1);
	EXPECT_STREQ("x", kaq_get_server_global("TEXT"));
	EXPECT_STREQ("", kaq_get_server_global("text"));
	for (const char *name : {"EMPTY", "NUMBER", "TRUE", "MISSING", ""}) {
		EXPECT_STREQ("", kaq_get_server_global(name)) << name;
	}
}

TEST_F(EngineAccess, WithoutServerVariablesAllReadAsEmpty) {
	zval *server = &PG(http_globals)[TRACK_VARS_SERVER];
	zval saved;
	ZVAL_COPY_VALUE(&saved, server);
	ZVAL_UNDEF(server);
	EXPECT_STREQ("", kaq_get_server_global("REQUEST_URI"));
	ZVAL_COPY_VALUE(server, &saved);
}

TEST_F(EngineAccess, HeaderValueIsLookedUpWithItsExactCase) {
	zval headers = php_value("['Host' => 'h', 'N' => 5, 'E' => '']");
	EXPECT_EQ("h", take_text(kaq_get_header_value(&headers, "Host")));
	EXPECT_EQ("(null)", take_text(kaq_get_header_value(&headers, "host")));
	EXPECT_EQ("(null)", take_text(kaq_get_header_value(&headers, "N")));
	EXPECT_EQ("", take_text(kaq_get_header_value(&headers, "E")));
	zval_ptr_dtor(&headers);
	zval text = php_value("'Host'");
	EXPECT_EQ(nullptr, kaq_get_header_value(&text, "Host"));
	EXPECT_EQ(nullptr, kaq_get_header_value(nullptr, "Host"));
	zval_ptr_dtor(&text);
}

TEST_F(EngineAccess, RequestHeadersComeFromGetallheaders) {
	set_request_headers({{"Host", "h"}, {"traceparent", "x"}});
	EXPECT_EQ("{\"Host\":\"h\",\"traceparent\":\"x\"}", take(kaq_capture_request_headers()));
}

TEST_F(EngineAccess, BacktraceOutsideAnyCallIsEmpty) {
	EXPECT_EQ("[]", take(kaq_backtrace(0)));
}

static std::string seen_frames;

TEST_F(EngineAccess, BacktraceHasAtMostTheFramesAskedForAndNoArguments) {
	probe = [] {
		zval *frames = kaq_backtrace(2);
		EXPECT_EQ(2u, zend_hash_num_elements(Z_ARRVAL_P(frames)));
		seen_frames = take(frames);
	};
	EXPECT_TRUE(run_php("function one($x) { probe(); } function two() { one('secret'); }"
						"function three() { two(); } three();"));
	EXPECT_NE(std::string::npos, seen_frames.find("\"one\""));
	EXPECT_EQ(std::string::npos, seen_frames.find("secret"));
	EXPECT_EQ(std::string::npos, seen_frames.find("three"));
}

/* json_decode. */
TEST_F(EngineAccess, DecodeGivesAnObject) {
	zval text = php_value("'{\"a\":[1,2]}'");
	zval *decoded = kaq_json_decode(&text, true);
	ASSERT_NE(nullptr, decoded);
	EXPECT_EQ(IS_OBJECT, Z_TYPE_P(decoded));
	php_zval_free(decoded);
	zval_ptr_dtor(&text);
}

TEST_F(EngineAccess, DecodeWithoutTheFunctionGivesNullAndLeavesTheInput) {
	zval text = php_value("str_repeat('[]', 1)");
	EXPECT_EQ(nullptr, kaq_json_decode(&text, false));
	EXPECT_STREQ("[]", Z_STRVAL(text));
	zval_ptr_dtor(&text);
}

TEST_F(EngineAccess, DecodeOfNullGivesNull) {
	EXPECT_EQ(nullptr, kaq_json_decode(nullptr, true));
}

TEST_F(EngineAccess, DecodeOfGarbageGivesTheEnginesNullValue) {
	zval text = php_value("'{broken'");
	zval *decoded = kaq_json_decode(&text, true);
	ASSERT_NE(nullptr, decoded);
	EXPECT_EQ(IS_NULL, Z_TYPE_P(decoded));
	php_zval_free(decoded);
	zval_ptr_dtor(&text);
}

/* The text of an object with one more member, which is a list of that many levels. */
static std::string object_with_list(int levels) {
	return "{\"a\":" + std::string((size_t)levels, '[') + std::string((size_t)levels, ']') + "}";
}

TEST_F(EngineAccess, DecodedObjectIsWithinTheBounds) {
	zval *decoded =
		kaq_decode_json_object(object_with_list(KAQ_DECODE_MAX_DEPTH - 1).c_str(), true);
	ASSERT_NE(nullptr, decoded);
	EXPECT_EQ(IS_OBJECT, Z_TYPE_P(decoded));
	php_zval_free(decoded);
	EXPECT_EQ(nullptr,
			  kaq_decode_json_object(object_with_list(KAQ_DECODE_MAX_DEPTH).c_str(), true));
	EXPECT_EQ("0", php_json("json_last_error()"));
}

TEST_F(EngineAccess, ObjectIsNotDecodedWithoutTheFunction) {
	EXPECT_EQ(nullptr, kaq_decode_json_object("{}", false));
}

/* The collector's reply, without a collector. */
class Reply : public EngineAccess {};

TEST_F(Reply, WithoutJsonDecodeNothingChanges) {
	g->json_decode_function_exists = 0;
	process_instance_info(MONITORED_REPLY);
	EXPECT_EQ(0, g->control_signal);
	EXPECT_EQ(nullptr, g->instance_id);
}

TEST_F(Reply, NullEmptyAndWhatIsNoObjectChangeNothing) {
	process_instance_info(MONITORED_REPLY);
	g->sql_trace_threshold = 1.5f;
	process_instance_info(nullptr);
	for (const char *reply : {"", "garbage", "[1]", "5", "\"text\"", "null", "{\"a\":"}) {
		process_instance_info(reply);
		EXPECT_EQ(1, g->control_signal) << reply;
		EXPECT_STREQ("i1", g->instance_id) << reply;
		EXPECT_EQ(1.5f, g->sql_trace_threshold) << reply;
	}
}

TEST_F(Reply, WhatIsDearToDecodeChangesNothing) {
	std::string many = "{\"instance.id\":\"i2\",\"instance.status\":920,\"a\":[1";
	for (int i = 0; i < KAQ_DECODE_MAX_VALUES; i++) {
		many += ",1";
	}
	process_instance_info((many + "]}").c_str());
	EXPECT_EQ(0, g->control_signal);
	process_instance_info(MONITORED_REPLY);
	process_instance_info((many + "]}").c_str());
	EXPECT_EQ(1, g->control_signal);
	EXPECT_STREQ("i1", g->instance_id);
}

TEST_F(Reply, SecondReplyReplacesTheTextsOfTheFirst) {
	EXPECT_FALSE(leaks([] {
		process_instance_info("{\"instance.id\":\"a text that needs a block of its own\","
							  "\"normalised.txn.name\":\"another one of some length\","
							  "\"app.id\":\"and a third text that is long\","
							  "\"webtransaction.rum.snippet\":\"<script>some snippet</script>\"}");
	}));
	EXPECT_STREQ("<script>some snippet</script>", g->rum_snippet);
}

TEST_F(Reply, GarbageIsNotWhatTheScriptsLastErrorReports) {
	process_instance_info("{broken");
	EXPECT_EQ("0", php_json("json_last_error()"));
}

/* Everything that a reply may set, as text. */
static std::string taken_from(const std::string &reply) {
	zend_kaq_globals *g = kaq_get_globals();
	for (char **text : {&g->instance_id, &g->normalised_txn_name, &g->app_id, &g->rum_snippet}) {
		free(*text);
		*text = nullptr;
	}
	g->control_signal = 0;
	g->sql_trace_threshold = 1.5f;
	process_instance_info(reply.c_str());
	std::string taken =
		std::to_string(g->control_signal) + " " + std::to_string(g->sql_trace_threshold);
	for (const char *text : {g->instance_id, g->normalised_txn_name, g->app_id, g->rum_snippet}) {
		taken += text ? std::string(" '") + text + "'" : " null";
	}
	return taken;
}

static std::string random_plain_reply(std::mt19937 &random) {
	static const char *const names[] = {"instance.id",
										"normalised.txn.name",
										"app.id",
										"instance.status",
										"instance.status",
										"transaction.trace.sql.stacktrace.threshold",
										"webtransaction.rum.snippet",
										"",
										"other"};
	static const char *const values[] = {"920",
										 "911",
										 "920",
										 "0",
										 "919",
										 "999999999999999999",
										 "true",
										 "false",
										 "null",
										 "\"\"",
										 "\"920\"",
										 "\"some text\"",
										 R"("<script src=\"\/a.js\">\n\t\\<\/script>")",
										 R"("\b\f\r ~")"};
	static const char *const blanks[] = {"", "", " ", "\n", "\t\r "};
	auto one_of = [&random](const auto &list) { return list[random() % std::size(list)]; };
	std::string reply = one_of(blanks);
	size_t count = 1 + random() % 8;
	for (size_t i = 0; i < count; i++) {
		reply += i ? "," : "{";
		reply += one_of(blanks) + std::string("\"") + one_of(names) + "\"" + one_of(blanks) + ":";
		reply += one_of(blanks) + std::string(one_of(values)) + one_of(blanks);
	}
	return reply;
}

/* A member that only the engine's decoder reads changes nothing. */
TEST_F(Reply, PlainObjectSaysWhatTheEnginesDecoderReadsInIt) {
	unsigned seed = std::random_device()();
	std::mt19937 random(seed);
	int monitored = 0;
	for (int i = 0; i < 2000; i++) {
		std::string reply = random_plain_reply(random);
		kaq_json_member none = {"none", KAQ_JSON_OTHER, 0, 0, nullptr, 0, false};
		ASSERT_TRUE(kaq_json_read_plain((reply + "}").c_str(), &none, 1)) << reply;
		ASSERT_FALSE(kaq_json_read_plain((reply + ",\"x\":[]}").c_str(), &none, 1)) << reply;
		std::string taken = taken_from(reply + "}");
		ASSERT_EQ(taken_from(reply + ",\"x\":[]}"), taken) << reply << " seed " << seed;
		monitored += taken[0] == '1';
	}
	EXPECT_GT(monitored, 20);
}

TEST_F(Reply, PlainObjectDoesNotReachTheScriptsLastError) {
	php_json("json_decode('{broken')");
	process_instance_info("{\"instance.id\":\"i1\"}");
	EXPECT_EQ("4", php_json("json_last_error()"));
}

TEST_F(Reply, ThresholdKeepsItsFraction) {
	process_instance_info("{\"transaction.trace.sql.stacktrace.threshold\":0.25}");
	EXPECT_EQ(0.25f, g->sql_trace_threshold);
	process_instance_info("{\"transaction.trace.sql.stacktrace.threshold\":5}");
	EXPECT_EQ(5.0f, g->sql_trace_threshold);
	process_instance_info("{}");
	EXPECT_EQ(0.0f, g->sql_trace_threshold);
}

/* The response's headers. */
class ResponseHeaders : public EngineAccess {
protected:
	void SetUp() override {
		EngineAccess::SetUp();
		sapi_header_op(SAPI_HEADER_DELETE_ALL, nullptr);
	}
};

TEST_F(ResponseHeaders, AreAMapOfNameToValueAndTheLastOfANameStays) {
	EXPECT_TRUE(run_php("header('A: 1'); header('B:   2'); header('A: 3', false);"));
	EXPECT_EQ("{\"A\":\"3\",\"B\":\"2\"}", take_text(kaq_get_response_headers()));
}

TEST_F(ResponseHeaders, WithoutAnyTheTextIsAnEmptyList) {
	EXPECT_EQ("[]", take_text(kaq_get_response_headers()));
}

TEST_F(ResponseHeaders, ArePutIntoAPayloadAsAnArrayOfThemWouldBe) {
	const char *const scripts[] = {
		"",
		"header('A: 1'); header('B:   2');",
		"header('A: 1'); header('B: 2'); header('A: 3', false);",
		"header('A: 1'); header('a: 2', false); header('AB: 3');",
		"header('0: zero'); header('1: one');",
		"header('A: 1'); header('7: number'); header('-7: negative');",
		"header('07: text'); header('-: text');",
		"header('X-Empty:'); header('X-Blank:  '); header('X-Colons: a:b: c');",
		"header(': no name'); header('A: 1');",
		"header(': no name');",
		"header('X-Escaped: a\"b\\\\c/d' . chr(9) . chr(1));",
		"header(str_repeat('n', 200) . ': ' . str_repeat('v', 400));",
		"foreach ([1, 2] as $i) header(str_repeat('n', 127) . \"$i: $i\");",
		"header(str_repeat('/', 127) . ': ' . str_repeat(chr(2), 255));",
		"for ($i = 0; $i < 16; $i++) header(\"X-$i: $i\");",
		"for ($i = 0; $i < 17; $i++) header(\"X-$i: $i\");"};
	for (const char *script : scripts) {
		sapi_header_op(SAPI_HEADER_DELETE_ALL, nullptr);
		ASSERT_TRUE(run_php(script)) << script;
		std::string expected = take_text(kaq_get_response_headers());
		smart_str out = {nullptr, 0};
		kaq_buf_literal(&out, "before");
		EXPECT_EQ(expected != "[]", kaq_append_response_headers(&out)) << script;
		EXPECT_EQ(expected == "[]" ? "before" : "before" + expected,
				  std::string(ZSTR_VAL(out.s), ZSTR_LEN(out.s)))
			<< script;
		kaq_buf_free(&out);
	}
}

TEST_F(ResponseHeaders, SearchIgnoresCaseAndNeedsMoreThanThePrefix) {
	EXPECT_TRUE(run_php("header('X-One: a'); header('x-one: b', false); header('X-Two:');"));
	EXPECT_EQ("a", take_text(kaq_search_response_header("X-ONE:")));
	EXPECT_EQ("(null)", take_text(kaq_search_response_header("X-Two:")));
	EXPECT_EQ("(null)", take_text(kaq_search_response_header("X-Three:")));
}

TEST_F(ResponseHeaders, ContentLengthIsReadAsADecimal) {
	EXPECT_EQ(0, kaq_get_response_content_length());
	EXPECT_TRUE(run_php("header('Content-Length: 0x10');"));
	EXPECT_EQ(0, kaq_get_response_content_length());
	EXPECT_TRUE(run_php("header('content-LENGTH: 123abc');"));
	EXPECT_EQ(123, kaq_get_response_content_length());
}

TEST_F(ResponseHeaders, SearchPassesOverLinesThatAreNoLongerThanThePrefix) {
	EXPECT_TRUE(run_php("header('X-One:'); header('X-One: second', false);"));
	EXPECT_EQ("second", take_text(kaq_search_response_header("x-one:")));
	EXPECT_EQ("(null)", take_text(kaq_search_response_header("X-One: second")));
}

TEST_F(ResponseHeaders, SearchTakesTheFirstLineAndAnyPrefixOfIt) {
	EXPECT_TRUE(run_php("header('Content-Length: 5'); header('Content-Type: text/css');"));
	EXPECT_EQ("Length: 5", take_text(kaq_search_response_header("content-")));
	EXPECT_EQ("Content-Length: 5", take_text(kaq_search_response_header("")));
	EXPECT_EQ("(null)", take_text(kaq_search_response_header("ontent-Length:")));
}

TEST_F(ResponseHeaders, SearchSkipsAllWhiteSpaceBeforeTheValueAndKeepsTheRest) {
	EXPECT_TRUE(run_php("header(\"X-One:\\t \\x0b\\f a  b\");"));
	EXPECT_EQ("a  b", take_text(kaq_search_response_header("X-One:")));
}

TEST_F(ResponseHeaders, AddedOneReplacesThoseOfItsNameAndEndsWithoutALineEnd) {
	EXPECT_TRUE(run_php("header('A: 1'); header('a: 2', false); header('B: 3');"));
	EXPECT_EQ(1, kaq_add_response_header("A", "4"));
	EXPECT_EQ("[\"B: 3\",\"A: 4\"]", php_json("array_values(array_filter(headers_list(),"
											  "function ($line) { return $line[1] === ':'; }))"));
	EXPECT_EQ("4", take_text(kaq_search_response_header("A:")));
}

TEST_F(ResponseHeaders, AddedOneMayBeEmptyButNotMissing) {
	EXPECT_EQ(0, kaq_add_response_header(nullptr, "4"));
	EXPECT_EQ(0, kaq_add_response_header("A", nullptr));
	EXPECT_EQ("(null)", take_text(kaq_search_response_header("A")));
	EXPECT_EQ(1, kaq_add_response_header("A", ""));
	EXPECT_EQ("A:", take_text(kaq_search_response_header("")));
}

TEST_F(ResponseHeaders, AddingFailsWhereTheEngineRefuses) {
	EXPECT_EQ(0, kaq_add_response_header("A", "1\r\nB: 2"));
	EXPECT_EQ("(null)", take_text(kaq_search_response_header("A:")));
	EXPECT_EQ("(null)", take_text(kaq_search_response_header("B:")));
}

TEST_F(ResponseHeaders, AddingLeavesNothingBehind) {
	EXPECT_FALSE(leaks([] { kaq_add_response_header("X-Some-Name", "a value of some length"); }));
}

TEST_F(ResponseHeaders, CodeThatWasNeverSetReadsAs200) {
	SG(sapi_headers).http_response_code = 0;
	EXPECT_EQ(200, kaq_get_response_code());
	SG(sapi_headers).http_response_code = -1;
	EXPECT_EQ(200, kaq_get_response_code());
	SG(sapi_headers).http_response_code = 1;
	EXPECT_EQ(1, kaq_get_response_code());
	EXPECT_TRUE(run_php("http_response_code(404);"));
	EXPECT_EQ(404, kaq_get_response_code());
	SG(sapi_headers).http_response_code = 200;
}
