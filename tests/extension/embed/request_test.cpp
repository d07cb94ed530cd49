/* Request start and end: order, resets, releases. */
#include "engine.h"

#include <string.h>

#include "spans/kaq_execute.h"
#include "util/kaq_strings.h"
#include "util/kaq_util_functions.h"

static const char NO_URI[] = "message:\tNo request URI Found\n";
static const char DISABLED[] =
	"message:\tRequest ended. No data collected since instance is disabled\n";

class RequestStart : public EngineTest {
protected:
	/* Status requests as "?", data as its text (a payload as "payload"), in order. */
	std::string traffic() {
		std::string text;
		for (const Received &one : collector().take()) {
			bool is_notice = one.bytes.compare(0, 8, "message:") == 0;
			text += one.is_status ? "?" : is_notice ? one.bytes : "payload";
		}
		return text;
	}

	/* Everything that a request could have left behind. */
	void dirty_the_counters() {
		g->node_buffer_len = 1;
		g->stored_node_count = 2;
		g->control_signal = 3;
		g->exception_count = 4;
		g->error_count = 5;
		g->json_decode_function_exists = 6;
		g->rum_injected = 7;
		g->is_caller_same_user = 8;
		g->is_async_call = 9;
		for (int i = 0; i < KAQ_EXCEPTION_SLOTS; i++) {
			g->exceptionslist[i]->name = "Gone";
			g->exceptionslist[i]->count = 3;
		}
	}

	void monitored_web_request() {
		collector().answer(MONITORED_REPLY);
		server_variable("REQUEST_URI", "/page");
		start_request();
		ASSERT_EQ(1, g->control_signal);
	}
};

TEST_F(RequestStart, ResetsTheCountersOfASkippedRequest) {
	dirty_the_counters();
	start_request();
	EXPECT_EQ(0, g->node_buffer_len);
	EXPECT_EQ(0, g->stored_node_count);
	EXPECT_EQ(0, g->control_signal);
	EXPECT_EQ(0, g->exception_count);
	EXPECT_EQ(0, g->error_count);
	EXPECT_EQ(0, g->json_decode_function_exists) << "set only once the URI is known";
	EXPECT_EQ(0, g->rum_injected);
	EXPECT_EQ(0, g->is_caller_same_user);
	EXPECT_EQ(0, g->is_async_call);
	for (int i = 0; i < KAQ_EXCEPTION_SLOTS; i++) {
		EXPECT_EQ(nullptr, g->exceptionslist[i]->name);
		EXPECT_EQ(0, g->exceptionslist[i]->count);
	}
}

TEST_F(RequestStart, EmptiesTheTextBuffers) {
	char *buffers[] = {g->request_uri, g->http_host_name, g->php_self, g->request_method,
					   g->query_string};
	const size_t sizes[] = {8192, 8192, 8192, 8192, 12800};
	for (int i = 0; i < 5; i++) {
		memset(buffers[i], 'x', sizes[i]);
	}
	start_request();
	for (int i = 0; i < 5; i++) {
		EXPECT_STREQ("", buffers[i]) << i;
	}
}

TEST_F(RequestStart, NothingOfAnEarlierTextIsLeftBehindAShorterOne) {
	char *buffers[] = {g->request_uri, g->http_host_name, g->php_self, g->request_method,
					   g->query_string};
	const char *variables[] = {"REQUEST_URI", "HTTP_HOST", "PHP_SELF", "REQUEST_METHOD",
							   "QUERY_STRING"};
	for (int i = 0; i < 5; i++) {
		memset(buffers[i], 'x', 8192);
		server_variable(variables[i], "/a");
	}
	start_request();
	for (int i = 0; i < 5; i++) {
		EXPECT_STREQ("/a", buffers[i]) << i;
	}
}

TEST_F(RequestStart, MakesFiveEmptyStoresOfItsOwn) {
	start_request();
	zval *stores[] = {g->curl_req_headers_store, g->curl_res_headers_store,
					  g->curl_multi_handle_store, g->curl_multi_reported_store,
					  g->curl_multi_spanid_store};
	for (int i = 0; i < 5; i++) {
		ASSERT_NE(nullptr, stores[i]) << i;
		ASSERT_EQ(IS_ARRAY, Z_TYPE_P(stores[i])) << i;
		EXPECT_EQ(0u, zend_hash_num_elements(Z_ARRVAL_P(stores[i]))) << i;
		for (int other = 0; other < i; other++) {
			EXPECT_NE(stores[i], stores[other]);
			/* Writing into one must not show in another. */
			add_index_long(stores[i], 0, 1);
			EXPECT_EQ(1u, zend_hash_num_elements(Z_ARRVAL_P(stores[i])));
		}
	}
	EXPECT_EQ(0u, zend_hash_num_elements(Z_ARRVAL_P(stores[0])));
}

TEST_F(RequestStart, WithoutAUriSendsTheNoticeAndAsksNobody) {
	collector().answer(MONITORED_REPLY);
	start_request();
	EXPECT_EQ(NO_URI, traffic());
	EXPECT_EQ(nullptr, g->current_node);
	end_request();
	EXPECT_EQ(DISABLED, traffic()) << "the double report is meant";
}

TEST_F(RequestStart, AsksTheCollectorBeforeAnythingIsRecorded) {
	server_variable("REQUEST_URI", "/page");
	start_request();
	EXPECT_EQ("?", traffic());
	EXPECT_EQ(1, g->json_decode_function_exists);
	EXPECT_EQ(0, g->control_signal);
	EXPECT_EQ(nullptr, g->current_node);
	EXPECT_EQ(nullptr, g->request_headers_zv) << "read only when monitored";
	end_request();
	EXPECT_EQ(DISABLED, traffic());
}

TEST_F(RequestStart, MonitoredWebRequestHasHeadersTraceAndRoot) {
	set_request_headers(
		{{"traceparent", "00-0af7651916cd43dd8448eb211c80319c-b7ad6b7169203331-01"}});
	clock_stands_at(1700000000123);
	monitored_web_request();
	EXPECT_EQ("?", traffic());
	EXPECT_EQ(1700000000123u, g->start_time);
	ASSERT_NE(nullptr, g->request_headers_zv);
	EXPECT_STREQ("0af7651916cd43dd8448eb211c80319c", g->trace_id);
	EXPECT_STREQ("b7ad6b7169203331", g->root_parentspanid);
	ASSERT_NE(nullptr, g->current_node);
	EXPECT_STREQ("main", g->current_node->data.function_info.function_name);
	EXPECT_EQ(WEB, g->transaction_type);
}

TEST_F(RequestStart, MonitoredBackgroundRunHasAFreshTraceAndNoHeaders) {
	set_request_headers(
		{{"traceparent", "00-0af7651916cd43dd8448eb211c80319c-b7ad6b7169203331-01"}});
	kaq_copy_bounded(g->root_parentspanid, 17, "b7ad6b7169203331");
	kaq_copy_bounded(g->trace_id, 33, "old");
	collector().answer(MONITORED_REPLY);
	server_variable("PHP_SELF", "job.php");
	start_request();
	EXPECT_EQ(BCKGRND, g->transaction_type);
	EXPECT_EQ(nullptr, g->request_headers_zv);
	EXPECT_EQ(32u, strspn(g->trace_id, "0123456789abcdef"));
	EXPECT_STRNE("0af7651916cd43dd8448eb211c80319c", g->trace_id);
	EXPECT_STREQ("", g->root_parentspanid) << "the one before had a caller";
	ASSERT_NE(nullptr, g->current_node);
	EXPECT_EQ(0, g->current_node->data.key);
}

TEST_F(RequestStart, StartTimeIsTakenBeforeTheHandshake) {
	clock_stands_at(1000);
	monitored_web_request();
	EXPECT_EQ(1000u, g->start_time);
	EXPECT_EQ(1000u, g->current_node->data.start_time);
}

TEST_F(RequestStart, CpuSamplingStartsAfterTheRoot) {
	cpu_times_are(5, 0, 2, 0);
	monitored_web_request();
	EXPECT_EQ(5000u, g->cpu_time->user_start_time);
	EXPECT_EQ(2000u, g->cpu_time->sys_start_time);
	cpu_times_are(5, 30000, 2, 5000);
	end_request();
	EXPECT_EQ(35u, g->cpu_time->total_time);
}

TEST_F(RequestStart, UnmonitoredRequestReadsNoCpuTime) {
	g->cpu_time->user_start_time = 77;
	cpu_times_are(5, 0, 2, 0);
	server_variable("REQUEST_URI", "/page");
	start_request();
	EXPECT_EQ(77u, g->cpu_time->user_start_time);
}

TEST_F(RequestStart, UserCodeOfARequestWithoutAUriLeavesNoSpan) {
	g->method_threshold = 0;
	start_request();
	EXPECT_TRUE(run_php("function f() {} f(); f();"));
	EXPECT_EQ(0, g->stored_node_count);
	EXPECT_EQ(0, g->node_buffer_len);
	end_request();
}

TEST_F(RequestStart, PayloadIsTheLastThingSent) {
	monitored_web_request();
	end_request();
	EXPECT_EQ("?payload", traffic());
}

TEST_F(RequestStart, NothingIsCarriedIntoTheNextRequest) {
	monitored_web_request();
	EXPECT_TRUE(run_php("function f() { usleep(100); } f();"));
	end_request();
	collector().answer("");
	start_request();
	EXPECT_EQ(0, g->control_signal);
	EXPECT_EQ(nullptr, g->instance_id);
	EXPECT_EQ(0, g->node_buffer_len);
}

/* Request end. */
class RequestEnd : public RequestStart {
protected:
	void fill_everything() {
		char **texts[] = {&g->request_uri_custom_name,
						  &g->normalised_txn_name,
						  &g->rum_snippet,
						  &g->session_id,
						  &g->app_id,
						  &g->app_flow};
		for (char **text : texts) {
			free(*text);
			*text = kaq_strdup("a text that only the heap holds");
		}
		zval **values[] = {&g->curlinfo_effective_url, &g->curlinfo_http_code,
						   &g->curlinfo_total_time,    &g->custom_params_zv,
						   &g->app_param_avg_zv,       &g->app_param_sum_zv};
		for (zval **value : values) {
			*value = php_zval_alloc();
			array_init(*value);
			add_assoc_string(*value, "k", (char *)"v");
		}
		add_assoc_string(g->curl_req_headers_store, "index1", (char *)"v");
	}

	void expect_all_released() {
		const void *fields[] = {g->request_uri_custom_name,
								g->application_name,
								g->instance_id,
								g->normalised_txn_name,
								g->rum_snippet,
								g->session_id,
								g->remote_exporter_hostname,
								g->remote_exporter_ip,
								g->application_group,
								g->app_id,
								g->app_flow,
								g->request_headers_zv,
								g->curl_req_headers_store,
								g->curl_res_headers_store,
								g->curl_multi_handle_store,
								g->curl_multi_reported_store,
								g->curl_multi_spanid_store,
								g->curlinfo_effective_url,
								g->curlinfo_http_code,
								g->curlinfo_total_time,
								g->custom_params_zv,
								g->app_param_avg_zv,
								g->app_param_sum_zv,
								g->node_buffer->head,
								g->current_node};
		for (size_t i = 0; i < sizeof(fields) / sizeof(fields[0]); i++) {
			EXPECT_EQ(nullptr, fields[i]) << i;
		}
	}
};

TEST_F(RequestEnd, MonitoredRequestReleasesEverything) {
	monitored_web_request();
	fill_everything();
	EXPECT_NE(nullptr, g->application_name);
	end_request();
	expect_all_released();
}

TEST_F(RequestEnd, UnmonitoredRequestReleasesTheSame) {
	server_variable("REQUEST_URI", "/page");
	start_request();
	fill_everything();
	end_request();
	expect_all_released();
}

TEST_F(RequestEnd, SkippedRequestReleasesTheSame) {
	start_request();
	fill_everything();
	end_request();
	expect_all_released();
}

TEST_F(RequestEnd, OneThatWasSkippedLeavesTheNextRequestNothing) {
	monitored_web_request();
	fill_everything();
	skip_request_end();
	EXPECT_NE(nullptr, g->request_headers_zv);
	start_request_in_vain();
	const void *fields[] = {g->request_uri_custom_name,
							g->instance_id,
							g->normalised_txn_name,
							g->rum_snippet,
							g->session_id,
							g->app_id,
							g->app_flow,
							g->request_headers_zv,
							g->curl_req_headers_store,
							g->curl_res_headers_store,
							g->curl_multi_handle_store,
							g->curl_multi_reported_store,
							g->curl_multi_spanid_store,
							g->curlinfo_effective_url,
							g->curlinfo_http_code,
							g->curlinfo_total_time,
							g->custom_params_zv,
							g->app_param_avg_zv,
							g->app_param_sum_zv};
	for (size_t i = 0; i < sizeof(fields) / sizeof(fields[0]); i++) {
		EXPECT_EQ(nullptr, fields[i]) << i;
	}
	kaq_request_end();
	expect_all_released();
}

TEST_F(RequestEnd, BuffersOfTheThreadStay) {
	monitored_web_request();
	end_request();
	EXPECT_STREQ("/page", g->request_uri);
	EXPECT_NE(nullptr, g->trace_id);
	EXPECT_NE(nullptr, g->root_parentspanid);
	EXPECT_NE(nullptr, g->cpu_time);
	EXPECT_NE(nullptr, g->applicationname);
}

TEST_F(RequestEnd, ManyRequestsLeaveNothingBehind) {
	collector().answer(MONITORED_REPLY);
	server_variable("REQUEST_URI", "/page");
	EXPECT_FALSE(leaks([&] {
		start_request();
		fill_everything();
		EXPECT_TRUE(run_php("function f() { return str_repeat('x', 100); } f();"));
		end_request();
		collector().take();
	}));
}

TEST_F(RequestEnd, EndTimeIsTakenFirst) {
	clock_stands_at(5000);
	monitored_web_request();
	clock_advances(17);
	end_request();
	EXPECT_EQ(5000u, g->start_time);
	EXPECT_EQ(5017u, g->end_time);
}

TEST_F(RequestEnd, UnmonitoredRequestHasAnEndTimeToo) {
	start_request();
	clock_stands_at(7777);
	end_request();
	EXPECT_EQ(7777u, g->end_time);
}

TEST_F(RequestEnd, OpenSpansAreClosedBeforeThePayloadIsWritten) {
	monitored_web_request();
	collector().take();
	for (const char *name : {"outer", "inner"}) {
		kaq_node *node = kaq_create_new_node();
		kaq_copy_function_info(&node->data.function_info, nullptr, name, "PHP", INTERNAL);
		kaq_set_function_priority(&node->data.function_info, PRIORITY_1);
		kaq_open_node(node);
	}
	end_request();
	std::vector<std::string> data = collector().take_data();
	ASSERT_EQ(1u, data.size());
	std::string document = decode_line(data[0]);
	for (const char *name : {"\"fn\":\"main\"", "\"fn\":\"outer\"", "\"fn\":\"inner\""}) {
		EXPECT_NE(std::string::npos, document.find(name)) << name;
	}
	EXPECT_EQ(std::string::npos, document.find("\"et\":0,")) << "every span has an end";
}
