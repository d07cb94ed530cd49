/* The trace context of one request after another on the same thread. */
#include "engine.h"
#include "tracing/trace_context.h"
#include "util/kaq_strings.h"
#include "util/kaq_util_functions.h"

#include <stdlib.h>

static const char KEY[] = "the-key-of-the-account-of-the-tests-K7d9Qw3xZ1Lm";
static const char ACCOUNT[] = "K7d9Qw3xZ1Lm";
static const char TRACE[] = "0af7651916cd43dd8448eb211c80319c";
static const char PARENT[] = "b7ad6b7169203331";
static const char TRACEPARENT[] = "00-0af7651916cd43dd8448eb211c80319c-b7ad6b7169203331-01";
static const char ORIGIN[] = "{\"flow\":\"a1;\",\"async\":true}";

typedef std::vector<std::pair<std::string, std::string>> Headers;

static bool is_hex(const char *text, size_t length) {
	return strlen(text) == length && strspn(text, "0123456789abcdef") == length;
}

class TraceContext : public EngineTest {
protected:
	/* The engine reads the key when its modules start. */
	static void SetUpTestSuite() {
		setenv("KAQ_ACCOUNT_KEY", KEY, 1);
		if (engine_is_running()) {
			engine_restart();
		} else {
			engine_start();
		}
	}
	static void TearDownTestSuite() {
		unsetenv("KAQ_ACCOUNT_KEY");
		engine_restart();
	}

	void web_request(const Headers &headers) {
		begin("/page", headers);
		ASSERT_EQ(WEB, g->transaction_type);
	}
	/* On the same thread as the web request before it. */
	void background_request(const Headers &headers) {
		begin("", headers);
		ASSERT_EQ(BCKGRND, g->transaction_type);
	}

	void expect_no_caller() {
		EXPECT_TRUE(is_hex(g->trace_id, 32)) << g->trace_id;
		EXPECT_STRNE(TRACE, g->trace_id);
		EXPECT_STREQ("", g->root_parentspanid);
	}
	void expect_no_origin() {
		EXPECT_EQ(nullptr, g->app_flow);
		EXPECT_EQ(0, g->is_caller_same_user);
		EXPECT_EQ(0, g->is_async_call);
	}

	/* Reads the context again, from these headers; their values are PHP expressions. */
	void read_again(const char *headers) {
		kaq_zval_release(&g->request_headers_zv);
		g->request_headers_zv = php_zval_alloc();
		*g->request_headers_zv = php_value(headers);
		kaq_is_caller_same_user();
		kaq_get_traceparent();
		kaq_get_origin();
	}

	const Headers everything = {
		{"traceparent", TRACEPARENT}, {"X-Skelvor-Id", ACCOUNT}, {"X-Skelvor-Origin", ORIGIN}};

private:
	void begin(const char *uri, const Headers &headers) {
		if (request_is_open()) {
			end_request();
		}
		collector().answer(MONITORED_REPLY);
		set_request_headers(headers);
		if (uri_ != uri) {
			uri_ = uri;
			server_variable("REQUEST_URI", uri);
			server_variable("PHP_SELF", "job.php");
		}
		start_request();
		ASSERT_EQ(1, g->control_signal);
	}

	std::string uri_ = "none yet";
};

TEST_F(TraceContext, WebRequestTakesAllOfIt) {
	web_request(everything);
	EXPECT_STREQ(TRACE, g->trace_id);
	EXPECT_STREQ(PARENT, g->root_parentspanid);
	EXPECT_EQ(1, g->is_caller_same_user);
	EXPECT_STREQ("a1;", g->app_flow);
	EXPECT_EQ(1, g->is_async_call);
}

TEST_F(TraceContext, WebRequestWithoutHeadersSeesNothingOfTheOneBefore) {
	web_request(everything);
	web_request({});
	expect_no_caller();
	expect_no_origin();
}

TEST_F(TraceContext, BuffersAreWrittenInPlaceAndStayTerminated) {
	web_request({});
	char *const trace_id = g->trace_id;
	char *const parent = g->root_parentspanid;
	const std::string fresh = trace_id;
	for (const Headers &headers :
		 {everything, Headers{}, Headers{{"Traceparent", TRACEPARENT}},
		  Headers{{"traceparent", std::string(4000, 'x')}}, Headers{{"traceparent", ""}}}) {
		memset(trace_id, 'x', 32);
		memset(parent, 'x', 16);
		web_request(headers);
		EXPECT_EQ(trace_id, g->trace_id);
		EXPECT_EQ(parent, g->root_parentspanid);
		EXPECT_EQ(32u, strnlen(trace_id, 33));
		EXPECT_EQ('\0', parent[16]);
		EXPECT_TRUE(parent[0] == '\0' || strnlen(parent, 17) == 16);
		EXPECT_NE(fresh, trace_id);
	}
}

TEST_F(TraceContext, ParentlessRequestClearsAllCharactersOfTheParent) {
	web_request(everything);
	char *const parent = g->root_parentspanid;
	web_request({});
	EXPECT_EQ(std::string(17, '\0'), std::string(parent, 17));
}

TEST_F(TraceContext, OneCallOfTheGeneratorMakesATraceIdAndNoneATakenOne) {
	web_request(everything);
	EXPECT_EQ(0, generator_calls());
	end_request();
	stand_ins_reset();
	web_request({});
	EXPECT_EQ(1, generator_calls());
	EXPECT_EQ(32, generator_characters());
}

TEST_F(TraceContext, OriginCountsOnlyAfterTheAccountWasFoundTheSame) {
	web_request(everything);
	g->is_caller_same_user = 0;
	g->is_async_call = 0;
	free(g->app_flow);
	g->app_flow = nullptr;
	kaq_get_origin();
	expect_no_origin();
	kaq_is_caller_same_user();
	kaq_get_origin();
	EXPECT_EQ(1, g->is_async_call);
	EXPECT_STREQ("a1;", g->app_flow);
}

TEST_F(TraceContext, AccountOnceFoundTheSameStaysSo) {
	web_request(everything);
	read_again("['X-Skelvor-Id' => 'another-acct']");
	EXPECT_EQ(1, g->is_caller_same_user);
}

TEST_F(TraceContext, OriginWithoutADecoderIsIgnored) {
	web_request({{"X-Skelvor-Id", ACCOUNT}});
	g->json_decode_function_exists = 0;
	read_again("['X-Skelvor-Origin' => '{\"flow\":\"a1;\",\"async\":true}']");
	EXPECT_EQ(nullptr, g->app_flow);
	EXPECT_EQ(0, g->is_async_call);
}

TEST_F(TraceContext, BadOriginLeavesWhatIsKnownUnchanged) {
	web_request(everything);
	for (const char *origin : {"'no json'", "'[]'", "'7'", "'null'", "''", "'{'", "7", "[]"}) {
		read_again((std::string("['X-Skelvor-Origin' => ") + origin + "]").c_str());
		EXPECT_STREQ("a1;", g->app_flow) << origin;
		EXPECT_EQ(1, g->is_async_call) << origin;
	}
}

TEST_F(TraceContext, NothingIsTakenFromWhatIsNoArrayOfHeaders) {
	web_request({});
	for (const char *headers : {"false", "null", "'traceparent'", "7", "[]", "new stdClass"}) {
		memset(g->trace_id, 'x', 32);
		read_again(headers);
		expect_no_caller();
		expect_no_origin();
	}
}

TEST_F(TraceContext, ValueThatIsNoStringCountsAsAbsent) {
	web_request({});
	read_again("['traceparent' => ['x'], 'Traceparent' => "
			   "'00-0af7651916cd43dd8448eb211c80319c-b7ad6b7169203331-01',"
			   "'X-Skelvor-Id' => true, 'X-Skelvor-Origin' => 'x']");
	EXPECT_STREQ(TRACE, g->trace_id);
	EXPECT_STREQ(PARENT, g->root_parentspanid);
	expect_no_origin();
}

TEST_F(TraceContext, UnmonitoredRequestReadsNothing) {
	set_request_headers(everything);
	server_variable("REQUEST_URI", "/page");
	start_request();
	ASSERT_EQ(0, g->control_signal);
	expect_no_origin();
	EXPECT_EQ(nullptr, g->request_headers_zv);
}

TEST_F(TraceContext, RequestsWithAnyOriginLeaveNothingBehind) {
	web_request({});
	for (const char *origin :
		 {ORIGIN, "{\"flow\":7}", "[\"flow\"]", "no json", "{\"flow\":\"a\",\"x\":{\"y\":[1]}}"}) {
		EXPECT_FALSE(leaks([&] {
			web_request({{"traceparent", TRACEPARENT},
						 {"X-Skelvor-Id", ACCOUNT},
						 {"X-Skelvor-Origin", origin}});
			collector().take();
		})) << origin;
	}
}

TEST_F(TraceContext, BackgroundRequestAfterAWebRequestHasNoCaller) {
	web_request(everything);
	ASSERT_STREQ(PARENT, g->root_parentspanid);
	background_request(everything);
	expect_no_caller();
	expect_no_origin();
	EXPECT_EQ(nullptr, g->request_headers_zv);
	collector().take();
	end_request();
	std::vector<std::string> data = collector().take_data();
	ASSERT_EQ(1u, data.size());
	std::string document = decode_line(data[0]);
	size_t root = document.find("\"span_info\":[{");
	ASSERT_NE(std::string::npos, root);
	EXPECT_EQ(std::string::npos,
			  document.substr(root, document.find('}', root) - root).find("psi"));
	EXPECT_NE(std::string::npos, document.find("\"origin\":{\"async\":false}")) << document;
}

TEST_F(TraceContext, SpanIdIsAssignedOnceByOneCallOfTheGenerator) {
	web_request(everything);
	kaq_node *node = kaq_create_new_node();
	kaq_assign_span_id(nullptr);
	EXPECT_EQ(0, generator_calls());
	kaq_assign_span_id(node);
	const std::string first = node->data.function_info.span_id;
	EXPECT_TRUE(is_hex(first.c_str(), 16)) << first;
	kaq_assign_span_id(node);
	EXPECT_EQ(first, node->data.function_info.span_id);
	EXPECT_EQ(1, generator_calls());
	EXPECT_EQ(16, generator_characters());
	kaq_copy_bounded(node->data.function_info.span_id, 17, "x");
	kaq_assign_span_id(node);
	EXPECT_STREQ("x", node->data.function_info.span_id);
	kaq_free_node(node);
}
