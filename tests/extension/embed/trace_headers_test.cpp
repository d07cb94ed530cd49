/* The header list that a transfer is sent with, and what it is made of. */
#include "curl_engine.h"

#include <stdlib.h>

#include "curl/curl_headers.h"
#include "curl/curl_transfer.h"
#include "tracing/account_id.h"
#include "tracing/distributedTrace.h"
#include "util/kaq_strings.h"

/* The engine without one of its constants: for as long as this lives the entry's hash is another,
 * so that a look-up passes over it. It keeps its place, by which the engine knows it as its own. */
class WithoutConstant {
public:
	explicit WithoutConstant(const char *name)
		: entry_((Bucket *)zend_hash_str_find(EG(zend_constants), name, strlen(name))) {
		entry_->h = ~entry_->h;
		EXPECT_EQ(nullptr, php_get_constant(name));
	}
	~WithoutConstant() {
		entry_->h = ~entry_->h;
	}

private:
	Bucket *entry_;
};

class TraceHeaders : public MonitoredCurlTest {
protected:
	void SetUp() override {
		MonitoredCurlTest::SetUp();
		if (IsSkipped()) {
			return;
		}
		account_key("none");
		node = kaq_create_new_node();
		kaq_copy_bounded(node->data.function_info.span_id, 17, "00f067aa0ba902b7");
		memcpy(g->trace_id, "0af7651916cd43dd8448eb211c80319c", 33);
	}
	void TearDown() override {
		if (node) {
			kaq_free_node(node);
		}
		unsetenv(KAQ_ACCOUNT_KEY_VARIABLE);
		kaq_read_account_key();
		MonitoredCurlTest::TearDown();
	}

	static void account_key(const char *key) {
		setenv(KAQ_ACCOUNT_KEY_VARIABLE, key, 1);
		kaq_read_account_key();
	}
	/* The list that curl is given, as the wrapper of curl_setopt saves it. */
	std::string sent(const char *user_headers, int is_async = 0) {
		Value easy("curl_init()");
		Value list(user_headers);
		EXPECT_EQ(0, curl_exec_pre_req_header(easy, list, node, is_async));
		std::string text = json_of(kaq_get_curl_req_headers(easy.id()));
		kaq_free_curl_req_headers(easy.id());
		return text;
	}
	/* The origin line in it, without the name; "" if there is none. */
	std::string origin(int is_async = 0) {
		std::string text = sent("null", is_async);
		static const char begin[] = "\"X-Skelvor-Origin: ";
		size_t at = text.find(begin);
		return at == std::string::npos ? "" : text.substr(at + sizeof begin - 1);
	}
	void flow(const char *text) {
		free(g->app_flow);
		g->app_flow = kaq_strdup(text);
	}

	kaq_node *node = nullptr;
};

#define TRACEPARENT "\"traceparent: 00-0af7651916cd43dd8448eb211c80319c-00f067aa0ba902b7-01\""
#define ORIGIN "\"X-Skelvor-Origin: {\\\"flow\\\":\\\"shop;\\\"}\""

TEST_F(TraceHeaders, StandBeforeTheScripts) {
	EXPECT_EQ("[" TRACEPARENT "," ORIGIN ",\"A: 1\",\"B: 2\",\"A: 3\"]",
			  sent("['A: 1', 'x' => 'B: 2', 7 => 'A: 3']"));
}

TEST_F(TraceHeaders, AccountComesFirst) {
	account_key("some-key-K7d9Qw3xZ1Lm");
	EXPECT_EQ("[\"X-Skelvor-Id: K7d9Qw3xZ1Lm\"," TRACEPARENT "," ORIGIN ",\"A: 1\"]",
			  sent("['A: 1']"));
}

TEST_F(TraceHeaders, LineThatMentionsATraceHeaderIsDropped) {
	EXPECT_EQ("[" TRACEPARENT "," ORIGIN ",\"A: 1\",\"X-Skelvor: 2\"]",
			  sent("['traceparent: abc', 'A: 1', 'X-Request-Id: traceparent-123',"
				   "'x-skelvor-ID: q', 'X-Skelvor: 2', 'my-x-skelvor-ORIGIN:', 'TRACEPARENT']"));
}

TEST_F(TraceHeaders, ElementsThatAreNoTextAreKept) {
	EXPECT_EQ("[" TRACEPARENT "," ORIGIN ",5,null,true]", sent("[5, null, true]"));
}

TEST_F(TraceHeaders, UserListThatIsNoArrayAddsNothing) {
	for (const char *list : {"null", "'A: 1'", "5", "true", "[]"}) {
		EXPECT_EQ("[" TRACEPARENT "," ORIGIN "]", sent(list)) << list;
	}
	Value easy("curl_init()");
	curl_exec_pre_req_header(easy, nullptr, node, 0);
	EXPECT_EQ("[" TRACEPARENT "," ORIGIN "]", json_of(kaq_get_curl_req_headers(easy.id())));
}

TEST_F(TraceHeaders, KeptElementsAreSharedNotCopied) {
	Value easy("curl_init()");
	Value list("['A: ' . mt_rand(1, 1)]");
	zval *line = zend_hash_index_find(Z_ARRVAL_P((zval *)list), 0);
	curl_exec_pre_req_header(easy, list, node, 0);
	zval *set = kaq_get_curl_req_headers(easy.id());
	zval *kept = zend_hash_index_find(Z_ARRVAL_P(set), 2);
	ASSERT_NE(nullptr, kept);
	EXPECT_EQ(Z_STR_P(line), Z_STR_P(kept));
	EXPECT_EQ(2u, Z_REFCOUNT_P(line));
}

TEST_F(TraceHeaders, ReferenceIsTakenForWhatItRefersTo) {
	ASSERT_TRUE(run_php("$own = 'TraceParent: x'; $other = 'A: 1';"));
	EXPECT_EQ("[" TRACEPARENT "," ORIGIN ",\"A: 1\"]", sent("[&$own, &$other]"));
}

TEST_F(TraceHeaders, ObjectWithoutATextFormIsLeftOutAndOneWithItIsKept) {
	ASSERT_TRUE(run_php("class Line { function __toString() { return 'A: 1'; } }"));
	Value easy("curl_init()");
	Value list("[new stdClass, new Line, 'B: 2']");
	curl_exec_pre_req_header(easy, list, node, 0);
	zval *set = kaq_get_curl_req_headers(easy.id());
	ASSERT_EQ(4u, zend_hash_num_elements(Z_ARRVAL_P(set)));
	EXPECT_EQ(IS_OBJECT, Z_TYPE_P(zend_hash_index_find(Z_ARRVAL_P(set), 2)));
}

TEST_F(TraceHeaders, ListThatWasSetBeforeIsFilteredSoThatNothingPilesUp) {
	Value easy("curl_init()");
	Value list("['A: 1']");
	kaq_curl_save_req_headers(easy, list);
	for (int i = 0; i < 50; i++) {
		Value saved(php_zval_alloc());
		ZVAL_COPY((zval *)saved, kaq_get_curl_req_headers(easy.id()));
		curl_exec_pre_req_header(easy, saved, node, 0);
		EXPECT_EQ("[" TRACEPARENT "," ORIGIN ",\"A: 1\"]",
				  json_of(kaq_get_curl_req_headers(easy.id())));
	}
}

TEST_F(TraceHeaders, SpanWithoutAnIdGetsOne) {
	node->data.function_info.span_id[0] = '\0';
	std::string text = sent("null");
	const std::string id = node->data.function_info.span_id;
	EXPECT_EQ(16u, id.size());
	EXPECT_NE(std::string::npos, text.find("-" + id + "-01\"")) << text;
	EXPECT_EQ(text, sent("null"));
}

TEST_F(TraceHeaders, OriginTellsTheFlowOfACallThatWaits) {
	EXPECT_EQ("{\\\"flow\\\":\\\"shop;\\\"}\"]", origin());
	flow("a1;b2;");
	EXPECT_EQ("{\\\"flow\\\":\\\"a1;b2;shop;\\\"}\"]", origin());
	flow("");
	EXPECT_EQ("{\\\"flow\\\":\\\"shop;\\\"}\"]", origin());
}

TEST_F(TraceHeaders, FlowStartsAnewOutOfAnAsynchronousRequest) {
	flow("a1;");
	g->is_async_call = 1;
	EXPECT_EQ("{\\\"flow\\\":\\\"shop;\\\"}\"]", origin());
}

TEST_F(TraceHeaders, FlowStartsAnewInAnAsynchronousCall) {
	flow("a1;");
	for (int is_async_call : {0, 1}) {
		g->is_async_call = is_async_call;
		EXPECT_EQ("{\\\"flow\\\":\\\"shop;\\\",\\\"async\\\":true}\"]", origin(1));
	}
}

TEST_F(TraceHeaders, FlowThatWouldEndTheHeaderIsLeftOut) {
	for (const char *text : {"a1;\r\nX: y", "a1;\n", "a\x01", "\x7f"}) {
		flow(text);
		EXPECT_EQ("{\\\"flow\\\":\\\"shop;\\\"}\"]", origin()) << text;
	}
	flow("\xc3\xa4;");
	EXPECT_EQ("{\\\"flow\\\":\\\"\xc3\xa4;shop;\\\"}\"]", origin());
}

TEST_F(TraceHeaders, OriginIsThatOfWebTransactionsWithAnApplicationId) {
	g->transaction_type = BCKGRND;
	EXPECT_EQ("[" TRACEPARENT "]", sent("null"));
	EXPECT_EQ("[" TRACEPARENT "]", sent("null", 1));
	g->transaction_type = WEB;
	g->app_id[0] = '\0';
	EXPECT_EQ("[" TRACEPARENT "]", sent("null"));
	free(g->app_id);
	g->app_id = nullptr;
	EXPECT_EQ("[" TRACEPARENT "]", sent("null"));
	g->app_id = kaq_strdup("shop");
	EXPECT_EQ("[" TRACEPARENT "," ORIGIN "]", sent("null"));
}

TEST_F(TraceHeaders, AreSetByAnOrdinaryCallThatIsASpan) {
	Value easy("curl_init()");
	int stored = g->stored_node_count;
	curl_exec_pre_req_header(easy, nullptr, node, 0);
	ASSERT_EQ(stored + 1, g->stored_node_count);
	EXPECT_STREQ("curl_setopt (10023)", g->node_buffer->head->data.function_info.function_name);
}

TEST_F(TraceHeaders, NothingIsDoneForAHandleThatIsNone) {
	int stored = g->stored_node_count;
	node->data.function_info.span_id[0] = '\0';
	for (const char *expression : {"null", "7", "curl_multi_init()", "new stdClass"}) {
		Value value(expression);
		EXPECT_EQ(0, curl_exec_pre_req_header(value, nullptr, node, 0)) << expression;
	}
	EXPECT_EQ(stored + 1, g->stored_node_count) << "that of curl_multi_init";
	EXPECT_STREQ("", node->data.function_info.span_id);
}

TEST_F(TraceHeaders, NothingIsDoneWithoutTheOption) {
	Value easy("curl_init()");
	int stored = g->stored_node_count;
	{
		WithoutConstant missing("CURLOPT_HTTPHEADER");
		EXPECT_EQ(0, curl_exec_pre_req_header(easy, nullptr, node, 0));
	}
	EXPECT_EQ(stored, g->stored_node_count);
	EXPECT_EQ(nullptr, kaq_get_curl_req_headers(easy.id()));
}

TEST_F(TraceHeaders, HandleKeepsItsListWhenALineCannotBeMade) {
	account_key("some-key-K7d9Qw3xZ1Lm");
	Value easy("curl_init()");
	Value list("['A: 1']");
	kaq_curl_save_req_headers(easy, list);
	int stored = g->stored_node_count;
	for (int nth : {1, 2, 3}) {
		header_line_fails(nth);
		EXPECT_EQ(0, curl_exec_pre_req_header(easy, list, node, 0)) << nth;
		EXPECT_EQ(stored, g->stored_node_count) << nth;
	}
	EXPECT_EQ("[\"A: 1\"]", json_of(kaq_get_curl_req_headers(easy.id())));
	header_line_fails(4);
	curl_exec_pre_req_header(easy, list, node, 0);
	EXPECT_EQ(stored + 1, g->stored_node_count);
}

TEST_F(TraceHeaders, ResponseLinesAreNotAskedForWithoutTheOption) {
	Value easy("curl_init()");
	int stored = g->stored_node_count;
	{
		WithoutConstant missing("CURLOPT_HEADERFUNCTION");
		kaq_curl_response_headers_callback(easy);
	}
	for (const char *expression : {"null", "7", "'text'"}) {
		Value value(expression);
		kaq_curl_response_headers_callback(value);
	}
	EXPECT_EQ(stored, g->stored_node_count);
	kaq_curl_response_headers_callback(easy);
	ASSERT_EQ(stored + 1, g->stored_node_count);
	EXPECT_STREQ("curl_setopt (20079)", g->node_buffer->head->data.function_info.function_name);
}

TEST_F(TraceHeaders, LeaveNothingBehind) {
	g->span_limit = 1;
	Value easy("curl_init()");
	Value list("['A: 1', 'traceparent: x']");
	auto work = [&] { curl_exec_pre_req_header(easy, list, node, 1); };
	EXPECT_FALSE(leaks(work));
	EXPECT_FALSE(leaks_in_request(work));
	EXPECT_FALSE(leaks_in_request([&] { kaq_curl_response_headers_callback(easy); }));
}

/* The presence of a name in a line. */
TEST_F(TraceHeaders, NameIsPresentAnywhereInAnyCaseWithinTheLine) {
	for (const char *line : {"'traceparent'", "'TraceParent: 1'", "'x-traceparent-y'",
							 "\"a\\0traceparent\"", "'aaa traceparen traceparent'"}) {
		Value value(line);
		EXPECT_TRUE(php_curl_header_is_present(value, "traceparent")) << line;
	}
	for (const char *line : {"'traceparen'", "''", "'trace parent'", "\"tracepar\\0ent\""}) {
		Value value(line);
		EXPECT_FALSE(php_curl_header_is_present(value, "traceparent")) << line;
	}
}

TEST_F(TraceHeaders, NameIsNeverPresentInWhatIsNoText) {
	ASSERT_TRUE(run_php("class Name { function __toString() { return 'traceparent'; } }"));
	EXPECT_FALSE(php_curl_header_is_present(nullptr, "traceparent"));
	for (const char *expression : {"null", "5", "true", "['traceparent']", "new Name"}) {
		Value value(expression);
		EXPECT_FALSE(php_curl_header_is_present(value, "traceparent")) << expression;
	}
}

/* What is kept of the engine's constants. */
class CurlConstants : public TraceHeaders {
protected:
	struct Slot {
		kaq_curlinfo info;
		zval *zend_kaq_globals::*field;
		const char *name;
	};
	const std::vector<Slot> slots = {
		{KAQ_CURLINFO_EFFECTIVE_URL, &zend_kaq_globals::curlinfo_effective_url,
		 "CURLINFO_EFFECTIVE_URL"},
		{KAQ_CURLINFO_HTTP_CODE, &zend_kaq_globals::curlinfo_http_code, "CURLINFO_HTTP_CODE"},
		{KAQ_CURLINFO_TOTAL_TIME, &zend_kaq_globals::curlinfo_total_time, "CURLINFO_TOTAL_TIME"}};

	/* As on a thread that has not yet looked anything up. */
	void SetUp() override {
		TraceHeaders::SetUp();
		for (zval &known : g->curlinfo_known) {
			ZVAL_UNDEF(&known);
		}
	}
	void start_again() {
		end_request();
		node = nullptr;
		collector().take();
		start_request();
	}
};

TEST_F(CurlConstants, MissingOneIsNullAndTriedAgain) {
	for (const Slot &slot : slots) {
		zval **const kept = &(g->*slot.field);
		{
			WithoutConstant missing(slot.name);
			for (int i = 0; i < 2; i++) {
				EXPECT_EQ(nullptr, kaq_get_curlinfo_constant(slot.info)) << slot.name;
				EXPECT_EQ(nullptr, *kept);
			}
		}
		zval *value = kaq_get_curlinfo_constant(slot.info);
		ASSERT_NE(nullptr, value) << slot.name;
		EXPECT_EQ(value, *kept);
		Value expected(slot.name);
		EXPECT_EQ(json_of(expected), json_of(value));
	}
}

TEST_F(CurlConstants, IsLookedUpOncePerThread) {
	for (const Slot &slot : slots) {
		zval *first = kaq_get_curlinfo_constant(slot.info);
		WithoutConstant missing(slot.name);
		EXPECT_EQ(first, g->*slot.field);
		EXPECT_EQ(first, kaq_get_curlinfo_constant(slot.info));
		EXPECT_NE(nullptr, first);
	}
	std::vector<std::string> values;
	for (const Slot &slot : slots) {
		values.push_back(json_of(g->*slot.field));
	}
	kaq_free_node(node);
	start_again();
	for (size_t i = 0; i < slots.size(); i++) {
		EXPECT_EQ(nullptr, g->*slots[i].field) << slots[i].name;
		WithoutConstant missing(slots[i].name);
		EXPECT_EQ(values[i], json_of(kaq_get_curlinfo_constant(slots[i].info)));
	}
}

TEST_F(CurlConstants, OneThatIsNoIntegerCountsAsMissing) {
	ASSERT_TRUE(run_php("define('KAQ_TEST_TEXT', 'text');"));
	EXPECT_EQ(nullptr, kaq_get_cached_constant(&g->curlinfo_http_code, "KAQ_TEST_TEXT"));
	EXPECT_EQ(nullptr, g->curlinfo_http_code);
	WithoutConstant missing("CURLINFO_HTTP_CODE");
	EXPECT_EQ(nullptr, kaq_get_curlinfo_constant(KAQ_CURLINFO_HTTP_CODE));
}

TEST_F(CurlConstants, AnySlotKeepsTheConstantItWasFirstAskedFor) {
	for (const char *name : {"PHP_INT_SIZE", "PHP_VERSION_ID"}) {
		zval *slot = nullptr;
		zval *value = kaq_get_cached_constant(&slot, name);
		EXPECT_EQ(slot, value);
		Value expected(name);
		EXPECT_EQ(json_of(expected), json_of(value));
		EXPECT_EQ(value, kaq_get_cached_constant(&slot, "PHP_INT_MAX"));
		php_zval_free(slot);
	}
}

TEST_F(CurlConstants, RequestsThatUseThemLeaveNothingBehind) {
	kaq_free_node(node);
	node = nullptr;
	EXPECT_FALSE(leaks([this] {
		for (const Slot &slot : slots) {
			kaq_get_curlinfo_constant(slot.info);
		}
		start_again();
	}));
}
