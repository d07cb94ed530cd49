/* The members of the payload around the spans, for what no script can set yet. */
#include "engine.h"

#include <regex>
#include <string.h>
#include <sys/syscall.h>
#include <unistd.h>

#include "util/kaq_strings.h"
#include "util/kaq_util_functions.h"
#include "wire/payload.h"

#define SPANS                                                                            \
	",\"method_info\":{\"span_info\":[{\"st\":1000000,\"et\":1000000,\"mo\":0,\"pr\":1," \
	"\"fn\":\"main\",\"cn\":\"PHP\",\"si\":\"00f067aa0ba902b7\"}]}"

class PayloadRows : public MonitoredTest {
protected:
	void SetUp() override {
		MonitoredTest::SetUp();
		g->end_time = 1000042;
		g->cpu_time->total_time = 9;
		kaq_copy_bounded(g->trace_id, 33, "0af7651916cd43dd8448eb211c80319c");
		kaq_copy_bounded(g->current_node->data.function_info.span_id, 17, "00f067aa0ba902b7");
		kaq_close_node(g->current_node);
		kaq_zval_release(&g->request_headers_zv);
		zend_hash_str_del(&EG(symbol_table), "_REQUEST", strlen("_REQUEST"));
		sapi_header_op(SAPI_HEADER_DELETE_ALL, nullptr);
	}

	void TearDown() override {
		g->transaction_type = WEB;
		SG(request_info).content_length = 0;
		MonitoredTest::TearDown();
	}

	/* The document, with the figures that differ from run to run checked and taken out. */
	std::string document() {
		kaq_node **nodes = kaq_validate_nodes();
		smart_str out = {nullptr, 0};
		size_t peak_before = zend_memory_peak_usage(0);
		kaq_form_payload(&out, nodes);
		size_t peak_after = zend_memory_peak_usage(0);
		free(nodes);
		std::string text = take_buffer(&out);
		std::string thread = ",\"thread_id\":" + std::to_string(syscall(SYS_gettid)) + ",";
		size_t at = text.find(thread);
		EXPECT_NE(std::string::npos, at);
		text.replace(at, thread.size(), ",\"thread_id\":T,");
		std::smatch memory;
		EXPECT_TRUE(std::regex_search(text, memory, std::regex(",\"memalloc\":([0-9]+),")));
		EXPECT_LE(peak_before, std::stoul(memory[1]));
		EXPECT_GE(peak_after, std::stoul(memory[1]));
		return text.replace(memory.position(1), memory.length(1), "M");
	}

	/* The part between the document's first section and its spans. */
	std::string transaction() {
		std::string text = document();
		size_t begin = text.find(",\"transaction_info\":{") + 1;
		return text.substr(begin, text.find(",\"method_info\":") - begin);
	}

	/* What stands between the trace id and the end of the transaction section. */
	std::string tail() {
		std::string text = transaction();
		static const std::string id = "\"0af7651916cd43dd8448eb211c80319c\"";
		return text.substr(text.find(id) + id.size());
	}

	std::string app_parameters() {
		std::string text = document();
		return text.substr(text.find(",\"app_parameters\":"));
	}

	zval *value_of(const char *expression) {
		zval *container = php_zval_alloc();
		*container = php_value(expression);
		return container;
	}

	void server_argv_is(const char *expression) {
		zval argv = php_value(expression);
		zend_hash_str_update(Z_ARRVAL(PG(http_globals)[TRACK_VARS_SERVER]), "argv", 4, &argv);
	}
};

TEST_F(PayloadRows, WebRequestByteForByte) {
	EXPECT_EQ("{\"apm\":{\"data\":true,\"application_info\":{\"application_type\":\"PHP\","
			  "\"application_name\":\"PHP-Application\",\"application_group\":\"\","
			  "\"instance_id\":\"i1\"},\"transaction_info\":{\"t_name\":\"\\/page\","
			  "\"http_query_str\":\"\",\"s_time\":1000000,\"e_time\":1000042,"
			  "\"http_method_name\":\"\",\"bytes_in\":0,\"bytes_out\":0,\"transaction_type\":1,"
			  "\"thread_id\":T,\"httpcode\":200,\"cputime\":9,\"memalloc\":M,"
			  "\"trace_id\":\"0af7651916cd43dd8448eb211c80319c\","
			  "\"origin\":{\"async\":false}}" SPANS ",\"app_parameters\":{}}}",
			  document());
}

TEST_F(PayloadRows, EverythingByteForByte) {
	free(g->application_group);
	g->application_group = kaq_strdup("group");
	g->request_uri_custom_name = kaq_strdup("Checkout");
	g->normalised_txn_name = kaq_strdup("/page/*");
	kaq_copy_bounded(g->http_host_name, KAQ_TEXT_BUFFER_SIZE, "shop:80");
	kaq_copy_bounded(g->query_string, KAQ_QUERY_BUFFER_SIZE, "a=1&b=\"");
	kaq_copy_bounded(g->request_method, KAQ_TEXT_BUFFER_SIZE, "POST");
	SG(request_info).content_length = 77;
	g->session_id = kaq_strdup("s1");
	g->request_headers_zv = value_of("['Host' => 'shop:80']");
	EXPECT_TRUE(run_php("$_REQUEST = ['a' => '1']; header('Content-Length: 12');"
						"header_remove('X-Powered-By'); http_response_code(404);"));
	g->custom_params_zv = value_of("['k' => 'v']");
	g->app_param_sum_zv = value_of("['s' => 1.5]");
	g->app_param_avg_zv = value_of("['a' => 2]");
	g->app_flow = kaq_strdup("f1");
	EXPECT_EQ("{\"apm\":{\"data\":true,\"application_info\":{\"application_type\":\"PHP\","
			  "\"application_name\":\"PHP-Application\",\"application_group\":\"group\","
			  "\"instance_id\":\"i1\"},\"transaction_info\":{\"t_name\":\"Checkout\","
			  "\"normalised_tname\":\"\\/page\\/*\",\"http_host\":\"shop:80\","
			  "\"http_query_str\":\"a=1&b=\\\"\",\"s_time\":1000000,\"e_time\":1000042,"
			  "\"http_method_name\":\"POST\",\"bytes_in\":77,\"bytes_out\":12,"
			  "\"transaction_type\":1,\"thread_id\":T,\"httpcode\":404,\"cputime\":9,"
			  "\"memalloc\":M,\"trace_id\":\"0af7651916cd43dd8448eb211c80319c\","
			  "\"session_id\":\"s1\",\"http_headers\":{\"Host\":\"shop:80\"},"
			  "\"http_input_params\":{\"a\":\"1\"},"
			  "\"http_resp_headers\":{\"Content-Length\":\"12\"},\"custom_params\":{\"k\":\"v\"},"
			  "\"origin\":{\"async\":false,\"flow\":\"f1\"}}" SPANS
			  ",\"app_parameters\":{\"sum\":{\"s\":1.5},\"average\":{\"a\":2},\"data\":true}}}",
			  document());
}

TEST_F(PayloadRows, BackgroundRunByteForByte) {
	g->transaction_type = BCKGRND;
	kaq_copy_bounded(g->php_self, KAQ_TEXT_BUFFER_SIZE, "job.php");
	server_argv_is("['job.php', '', '--all', 5]");
	g->request_headers_zv = value_of("['Host' => 'x']");
	EXPECT_TRUE(run_php("$_REQUEST = ['a' => '1']; header('A: b');"));
	EXPECT_EQ("\"transaction_info\":{\"t_name\":\"job.php\",\"http_query_str\":\"\","
			  "\"s_time\":1000000,\"e_time\":1000042,\"http_method_name\":\"\",\"bytes_in\":0,"
			  "\"bytes_out\":0,\"transaction_type\":0,\"thread_id\":T,\"cputime\":9,"
			  "\"memalloc\":M,\"trace_id\":\"0af7651916cd43dd8448eb211c80319c\","
			  "\"bckgrnd_input_params\":{\"$argv[0]\":\"job.php\",\"$argv[1]\":\"--all\"},"
			  "\"origin\":{\"async\":false}}",
			  transaction());
}

TEST_F(PayloadRows, BackgroundRunWithoutArgumentsHasNone) {
	g->transaction_type = BCKGRND;
	server_argv_is("['', 1]");
	EXPECT_EQ(",\"origin\":{\"async\":false}}", tail());
	server_argv_is("'job.php'");
	EXPECT_EQ(",\"origin\":{\"async\":false}}", tail());
}

TEST_F(PayloadRows, ArgumentsAreTheBackgroundsAlone) {
	server_argv_is("['job.php']");
	EXPECT_EQ(",\"origin\":{\"async\":false}}", tail());
}

TEST_F(PayloadRows, CustomNameWinsInABackgroundRunTooAndMayBeEmpty) {
	g->transaction_type = BCKGRND;
	g->request_uri_custom_name = kaq_strdup("");
	EXPECT_EQ(0u, transaction().find("\"transaction_info\":{\"t_name\":\"\",\"http_query_str\""));
}

TEST_F(PayloadRows, EmptyNormalisedNameIsLeftOut) {
	g->normalised_txn_name = kaq_strdup("");
	EXPECT_EQ(std::string::npos, transaction().find("normalised_tname"));
}

TEST_F(PayloadRows, NullTextsBecomeEmptyOnes) {
	free(g->application_name);
	g->application_name = nullptr;
	free(g->instance_id);
	g->instance_id = nullptr;
	std::string text = document();
	EXPECT_NE(std::string::npos, text.find("\"application_name\":\"\",\"application_group\":\"\","
										   "\"instance_id\":\"\"}"));
}

TEST_F(PayloadRows, EmptySessionIdIsStillWritten) {
	g->session_id = kaq_strdup("");
	EXPECT_EQ(",\"session_id\":\"\",\"origin\":{\"async\":false}}", tail());
}

TEST_F(PayloadRows, TimesAreUnsigned64Bit) {
	g->start_time = UINT64_MAX;
	g->end_time = 0;
	EXPECT_NE(std::string::npos,
			  transaction().find("\"s_time\":18446744073709551615,\"e_time\":0,"));
}

TEST_F(PayloadRows, BytesInAreSigned) {
	SG(request_info).content_length = -1;
	EXPECT_NE(std::string::npos, transaction().find("\"bytes_in\":-1,"));
}

TEST_F(PayloadRows, BytesOutComeFromTheContentLengthHeaderWhateverItsCase) {
	EXPECT_TRUE(run_php("header('CONTENT-length:   -12 bytes');"));
	EXPECT_NE(std::string::npos, transaction().find("\"bytes_out\":-12,"));
}

TEST_F(PayloadRows, StatusBelowOneIsTwoHundred) {
	for (int code : {0, -5}) {
		SG(sapi_headers).http_response_code = code;
		EXPECT_NE(std::string::npos, transaction().find("\"httpcode\":200,"));
	}
	SG(sapi_headers).http_response_code = 1;
	EXPECT_NE(std::string::npos, transaction().find("\"httpcode\":1,"));
}

TEST_F(PayloadRows, EmptyRequestHeadersAreWritten) {
	g->request_headers_zv = value_of("[]");
	EXPECT_EQ(",\"http_headers\":[],\"origin\":{\"async\":false}}", tail());
}

TEST_F(PayloadRows, EmptyRequestParametersAreLeftOut) {
	EXPECT_TRUE(run_php("$_REQUEST = [];"));
	EXPECT_EQ(",\"origin\":{\"async\":false}}", tail());
}

TEST_F(PayloadRows, RequestParametersAreWhateverTheScriptMadeOfThem) {
	EXPECT_TRUE(run_php("$_REQUEST = 5;"));
	EXPECT_EQ(",\"http_input_params\":5,\"origin\":{\"async\":false}}", tail());
}

TEST_F(PayloadRows, EmptyCustomParametersAreWritten) {
	g->custom_params_zv = value_of("[]");
	EXPECT_EQ(",\"custom_params\":[],\"origin\":{\"async\":false}}", tail());
}

TEST_F(PayloadRows, OriginOfAnAsyncCallBeginsWithACommaAndThatIsMeant) {
	g->is_async_call = 1;
	EXPECT_EQ(",\"origin\":{,\"async\":true}}", tail());
	g->app_flow = kaq_strdup("f1");
	EXPECT_EQ(",\"origin\":{,\"async\":true,\"flow\":\"f1\"}}", tail());
}

TEST_F(PayloadRows, EmptyFlowIsLeftOut) {
	g->app_flow = kaq_strdup("");
	EXPECT_EQ(",\"origin\":{\"async\":false}}", tail());
}

TEST_F(PayloadRows, AppParametersAreEmptyWithoutSumAndAverage) {
	EXPECT_EQ(",\"app_parameters\":{}}}", app_parameters());
}

TEST_F(PayloadRows, AppParametersWithASumAlone) {
	g->app_param_sum_zv = value_of("['s' => 1]");
	EXPECT_EQ(",\"app_parameters\":{\"sum\":{\"s\":1},\"data\":true}}}", app_parameters());
}

TEST_F(PayloadRows, AppParametersWithBoth) {
	g->app_param_sum_zv = value_of("[]");
	g->app_param_avg_zv = value_of("[]");
	EXPECT_EQ(",\"app_parameters\":{\"sum\":[],\"average\":[],\"data\":true}}}", app_parameters());
}

TEST_F(PayloadRows, AppParametersWithAnAverageAloneBeginWithACommaAndThatIsMeant) {
	g->app_param_avg_zv = value_of("['a' => 2]");
	EXPECT_EQ(",\"app_parameters\":{,\"average\":{\"a\":2},\"data\":true}}}", app_parameters());
}

TEST_F(PayloadRows, KeyWithoutASpanIsLeftOut) {
	g->node_buffer_len = 2;
	EXPECT_NE(std::string::npos, document().find(SPANS));
}

TEST_F(PayloadRows, SpansComeInTheOrderOfTheirKeys) {
	for (int key : {2, 1}) {
		kaq_node *node = kaq_create_new_node();
		node->data.key = key;
		node->data.state = KAQ_NODE_BUFFERED;
		kaq_insert_node(node);
	}
	g->node_buffer_len = 3;
	std::string text = document();
	size_t second = text.find("},{\"st\":0,\"et\":0,\"mo\":1,\"si\":");
	size_t third = text.find("},{\"st\":0,\"et\":0,\"mo\":2,\"si\":");
	ASSERT_NE(std::string::npos, second);
	ASSERT_NE(std::string::npos, third);
	EXPECT_LT(second, third);
}

/* Sending. */
class PayloadSend : public PayloadRows {};

TEST_F(PayloadSend, DocumentTravelsAsOneBase64Line) {
	kaq_request_data_dump_ex();
	std::vector<std::string> data = collector().take_data();
	ASSERT_EQ(1u, data.size());
	std::string text = decode_line(data[0]);
	EXPECT_EQ(0u, text.find("{\"apm\":{\"data\":true,"));
	EXPECT_EQ("}}", text.substr(text.size() - 2));
}

TEST_F(PayloadSend, WithoutAUriANoticeGoesOutInstead) {
	g->request_uri[0] = '\0';
	kaq_request_data_dump_ex();
	EXPECT_EQ((std::vector<std::string>{"message:\tNo request URI Found\n"}),
			  collector().take_data());
}

TEST_F(PayloadSend, WithoutSpansNothingGoesOut) {
	g->node_buffer_len = 0;
	kaq_request_data_dump_ex();
	EXPECT_TRUE(collector().take_data().empty());
}

TEST_F(PayloadSend, WithoutMemoryForTheIndexNothingGoesOut) {
	allocation_fails(1);
	kaq_request_data_dump_ex();
	EXPECT_TRUE(collector().take_data().empty());
}

/* The allocations before it are those of the index and of the ids. */
TEST_F(PayloadSend, WithoutMemoryForTheBase64TextNothingGoesOut) {
	bool was_lost = false;
	for (int nth = 3; nth < 10 && !was_lost; nth++) {
		free(g->payload_line);
		g->payload_line = nullptr;
		g->payload_line_room = 0;
		int calls_before = generator_calls();
		allocation_fails(nth);
		kaq_request_data_dump_ex();
		EXPECT_EQ(calls_before + 1, generator_calls()) << "it failed earlier than meant";
		std::vector<std::string> data = collector().take_data();
		was_lost = data.empty();
		if (!was_lost) {
			EXPECT_EQ(0u, decode_line(data[0]).find("{\"apm\":"));
		}
	}
	EXPECT_TRUE(was_lost);
}
