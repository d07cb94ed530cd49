/* Requests that end badly or are huge: nothing is lost that need not be, nothing is left behind. */
#include "engine.h"

#include <set>
#include <stdlib.h>
#include <string.h>

#include "spans/kaq_execute.h"
#include "util/kaq_strings.h"
#include "util/kaq_util_functions.h"
#include "wire/kaq_base64.h"
#include "wire/payload.h"

static size_t count_of(const std::string &needle, const std::string &text) {
	size_t count = 0;
	for (size_t at = 0; (at = text.find(needle, at)) != std::string::npos; at++) {
		count++;
	}
	return count;
}

class BadEnds : public MonitoredTest {
protected:
	/* Each key from 0 on belongs to exactly one span of the document. */
	static void expect_each_key_once(const std::string &document, int count) {
		EXPECT_EQ((size_t)count, count_of("\"mo\":", document));
		for (int key = 0; key < count; key++) {
			EXPECT_EQ(1u, count_of("\"mo\":" + std::to_string(key) + ",", document)) << key;
		}
		EXPECT_EQ(0u, count_of("\"et\":0,", document)) << "every span has an end";
	}
};

/* Runs code within a call from the engine's side, catches its bailout and goes on, as an output
 * handler or a driver that guards a callback does. */
static void run_guarded(void) {
	zend_execute_data *frame = EG(current_execute_data);
	leak_check_off();
	zend_try {
		zend_eval_string((char *)"function deep($n) { $n ? deep($n - 1) : "
								 "trigger_error('dies', E_USER_ERROR); } deep(5);",
						 nullptr, (char *)"guarded");
	}
	zend_end_try();
	leak_check_on();
	EG(current_execute_data) = frame;
	CG(unclean_shutdown) = 0;
}

TEST_F(BadEnds, FatalErrorTenCallsDeepClosesAllOfThem) {
	EXPECT_TRUE(dies_in_php("function sink($n) { $n ? sink($n - 1) : "
							"trigger_error('dies', E_USER_ERROR); } sink(9);"));
	clock_advances(50);
	std::string document = end_and_take_document();
	EXPECT_EQ(10u, count_of("\"fn\":\"sink\"", document));
	expect_each_key_once(document, 11);
}

TEST_F(BadEnds, SpansOrphanedByACaughtBailoutAreClosedAndEveryKeyHasOneSpan) {
	probe = run_guarded;
	EXPECT_TRUE(run_php("function before() { usleep(1); probe(); after(); } function after() {}"
						"before(); after();"));
	clock_advances(50);
	std::string document = end_and_take_document();
	EXPECT_EQ(6u, count_of("\"fn\":\"deep\"", document));
	int spans = (int)count_of("\"mo\":", document);
	EXPECT_LE(8, spans);
	expect_each_key_once(document, spans);
}

TEST_F(BadEnds, OrphanedSpansOfAnUnmonitoredRequestAreReleased) {
	probe = run_guarded;
	g->control_signal = 0;
	EXPECT_TRUE(run_php("probe();"));
	EXPECT_NE(nullptr, g->current_node);
	end_request();
	EXPECT_EQ(nullptr, g->current_node);
	EXPECT_EQ(nullptr, g->node_buffer->head);
	for (const kaq_slab *slab = g->node_pool.slabs; slab; slab = slab->next) {
		for (const kaq_node &record : slab->records) {
			EXPECT_EQ(KAQ_NODE_CREATED, record.data.state);
		}
	}
}

TEST_F(BadEnds, SpansMadeBetweenRequestsAreReleasedAtTheNextStart) {
	end_request();
	collector().take();
	kaq_node *node = kaq_create_new_node();
	kaq_copy_function_info(&node->data.function_info, nullptr, "stray", "PHP", INTERNAL);
	kaq_open_node(node);
	start_request();
	EXPECT_EQ(nullptr, strstr(end_and_take_document().c_str(), "stray"));
}

/* The allocator that these rules are about may be off. */
static bool has_memory_limit() {
	const char *own_allocator = getenv("USE_ZEND_ALLOC");
	return !own_allocator || strcmp(own_allocator, "0") != 0;
}

/* Takes blocks of one size until the engine has none left. Some engines do not end the request at
 * once but allow themselves a little more. */
static void use_up(size_t size) {
	zend_try {
		while (zend_memory_usage(1) <= (size_t)PG(memory_limit)) {
			(void)emalloc(size);
		}
	}
	zend_end_try();
}

TEST_F(BadEnds, MemoryUsedUpAtRequestEndStillGivesAPayload) {
	if (!has_memory_limit()) {
		GTEST_SKIP() << "the engine's allocator is off";
	}
	EXPECT_TRUE(run_php("ini_set('memory_limit', '16M'); $_REQUEST = ['k' => 'v'];"));
	/* The last two are those of an array and its elements. */
	for (size_t size : {1048576, 65536, 4096, 320, 56}) {
		use_up(size);
	}
	EXPECT_LE(16u << 20, zend_memory_usage(1));
	std::string document = end_and_take_document();
	EXPECT_EQ(1u, count_of("\"http_input_params\":{\"k\":\"v\"}", document));
	EXPECT_EQ(1u, count_of("\"http_resp_headers\":{", document));
	expect_each_key_once(document, 1);
}

TEST_F(BadEnds, MemoryLimitHoldsAgainInTheNextRequest) {
	if (!has_memory_limit()) {
		GTEST_SKIP() << "the engine's allocator is off";
	}
	end_request();
	start_request();
	EXPECT_TRUE(dies_in_php("ini_set('memory_limit', '16M'); $x = str_repeat('x', 20000000);"));
}

TEST_F(BadEnds, PayloadDoesNotCountAsTheScriptsMemory) {
	size_t before = zend_memory_usage(0);
	for (int i = 0; i < 5000; i++) {
		kaq_node *node = kaq_create_new_node();
		kaq_copy_function_info(&node->data.function_info, nullptr, "call", "HTTP", EXTERNAL);
		kaq_open_node(node);
		kaq_close_node(node);
	}
	kaq_node **nodes = kaq_validate_nodes();
	smart_str out = {nullptr, 0};
	kaq_form_payload(&out, nodes);
	free(nodes);
	EXPECT_LT(400000u, kaq_buf_length(&out));
	kaq_buf_free(&out);
	EXPECT_GT(before + 100000, zend_memory_peak_usage(0));
	kaq_free_node_buffer();
}

/* Many spans. */
class ManySpans : public MonitoredTest {
protected:
	void record(int count) {
		for (int i = 0; i < count; i++) {
			kaq_node *node = kaq_create_new_node();
			kaq_copy_function_info(&node->data.function_info, "Shop", "pay", "PHP", INTERNAL);
			kaq_open_node(node);
			node->data.start_time -= 50;
			kaq_close_node(node);
		}
	}
};

TEST_F(ManySpans, TenThousandAllArriveInTheOrderOfTheirKeys) {
	record(10000);
	std::string document = end_and_take_document();
	size_t at = 0;
	for (int key = 0; key <= 10000; key++) {
		std::string member = "\"mo\":" + std::to_string(key) + ",";
		at = document.find(member, at);
		ASSERT_NE(std::string::npos, at) << key;
	}
	EXPECT_EQ(10001u, count_of("\"st\":", document));
}

TEST_F(ManySpans, AskTheGeneratorOnceForAllIdsTogether) {
	record(10000);
	int before = generator_calls();
	int64_t characters_before = generator_characters();
	end_and_take_document();
	EXPECT_EQ(before + 1, generator_calls());
	EXPECT_EQ(characters_before + 16 * 10001, generator_characters());
}

TEST_F(ManySpans, AllIdsDifferAndEachParentIdIsThatOfTheRoot) {
	record(3000);
	std::string document = end_and_take_document();
	std::set<std::string> ids;
	std::string root;
	for (size_t at = 0; (at = document.find("\"si\":\"", at)) != std::string::npos; at++) {
		std::string id = document.substr(at + 6, 16);
		root = root.empty() ? id : root;
		ids.insert(id);
	}
	EXPECT_EQ(3001u, ids.size());
	EXPECT_EQ(3000u, count_of("\"psi\":\"" + root + "\"", document));
}

TEST_F(ManySpans, DocumentGrowsByTheSameForEachSpan) {
	clock_stands_at(1000000000);
	size_t sizes[3];
	for (int i = 0; i < 3; i++) {
		kaq_free_node_buffer();
		g->node_buffer_len = 10000;
		record(1000 * (i + 1));
		g->node_buffer_len = 10000 + 1000 * (i + 1);
		kaq_node **nodes = kaq_validate_nodes();
		smart_str out = {nullptr, 0};
		kaq_form_payload(&out, nodes);
		free(nodes);
		sizes[i] = kaq_buf_length(&out);
		kaq_buf_free(&out);
	}
	EXPECT_EQ(sizes[1] - sizes[0], sizes[2] - sizes[1]);
}

/* Long texts. */
class LongTexts : public MonitoredTest {};

TEST_F(LongTexts, FiftyMegabytesOfParametersMakeOneWholeLine) {
	kaq_close_node(g->current_node);
	g->custom_params_zv = php_zval_alloc();
	*g->custom_params_zv = php_value("['big' => str_repeat('abcdefghi/', 4500000)]");
	kaq_node **nodes = kaq_validate_nodes();
	smart_str out = {nullptr, 0};
	kaq_form_payload(&out, nodes);
	free(nodes);
	EXPECT_LT(49500000u, kaq_buf_length(&out));
	char *line = kaq_base64_encode_with_newline(ZSTR_VAL(out.s), kaq_buf_length(&out));
	ASSERT_NE(nullptr, line);
	EXPECT_TRUE(decode_line(line) == std::string(ZSTR_VAL(out.s), kaq_buf_length(&out)));
	free(line);
	kaq_buf_free(&out);
}

TEST_F(LongTexts, ValueBeyondTheMostThatATextMayHoldCountsAsAbsent) {
	zval value = php_value("[str_repeat(\"\\x01\", 23000000)]");
	EXPECT_EQ(nullptr, kaq_encode_zval_to_json(&value));
	zval_ptr_dtor(&value);
}

TEST_F(LongTexts, ValueSharedManyTimesOverCannotExhaustTheMemory) {
	/* 2^30 elements that take a few hundred bytes as a value. */
	EXPECT_TRUE(run_php("$a = ['0123456789']; for ($i = 0; $i < 30; $i++) { $a = [$a, $a]; }"));
	zval value = php_value("$a");
	EXPECT_EQ(nullptr, kaq_encode_zval_to_json(&value));
	zval_ptr_dtor(&value);
}

/* Server variables longer than the buffer they go into. */
class LongVariables : public EngineTest {
protected:
	/* What a buffer holds after a request whose variable is this long. */
	std::string buffer_after(const char *variable, char *zend_kaq_globals::*buffer, size_t length) {
		server_variable(variable, std::string(length, 'v'));
		start_request();
		return g->*buffer;
	}
};

#define EXPECT_CUT(variable, buffer, capacity) \
	EXPECT_EQ(std::string((capacity)-1, 'v'),  \
			  buffer_after(variable, &zend_kaq_globals::buffer, (capacity) + 5000))

TEST_F(LongVariables, HostIsCut) {
	EXPECT_CUT("HTTP_HOST", http_host_name, 8192);
}

TEST_F(LongVariables, ScriptIsCut) {
	EXPECT_CUT("PHP_SELF", php_self, 8192);
}

TEST_F(LongVariables, MethodIsCut) {
	EXPECT_CUT("REQUEST_METHOD", request_method, 8192);
}

TEST_F(LongVariables, QueryIsCut) {
	EXPECT_CUT("QUERY_STRING", query_string, 12800);
}

TEST_F(LongVariables, UriIsCut) {
	EXPECT_CUT("REQUEST_URI", request_uri, 8192);
}

TEST_F(LongVariables, OriginalUrlIsCut) {
	EXPECT_CUT("HTTP_X_ORIGINAL_URL", request_uri, 8192);
}

TEST_F(LongVariables, BackgroundUriIsCut) {
	server_variable("PHP_SELF", std::string(20000, 'v'));
	start_request();
	EXPECT_EQ(BCKGRND, g->transaction_type);
	EXPECT_EQ(std::string(8191, 'v'), g->request_uri);
}

TEST_F(LongVariables, ValueOfExactlyTheCapacityLosesOneCharacter) {
	EXPECT_EQ(std::string(8191, 'v'),
			  buffer_after("HTTP_HOST", &zend_kaq_globals::http_host_name, 8192));
}

TEST_F(LongVariables, ValueOfOneLessStaysWhole) {
	EXPECT_EQ(std::string(8191, 'v'),
			  buffer_after("HTTP_HOST", &zend_kaq_globals::http_host_name, 8191));
}

TEST_F(LongVariables, UriIsCutBeforeItsQueryIsTakenOff) {
	server_variable("REQUEST_URI", std::string(8190, 'v') + "/?q=1");
	start_request();
	EXPECT_EQ(std::string(8190, 'v'), g->request_uri) << "the slash became the last character";
}
