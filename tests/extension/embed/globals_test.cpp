/* The per-thread record as its constructor leaves it, and its release. */
#include "engine.h"

#include <stdlib.h>
#include <string.h>

class Globals : public ::testing::Test {
protected:
	void SetUp() override {
		memset((void *)&fresh, 0xa5, sizeof(fresh));
		kaq_construct_globals(&fresh);
	}

	void TearDown() override {
		free_globals(&fresh);
	}

	zend_kaq_globals fresh;
};

TEST_F(Globals, NumbersHaveTheirDefaults) {
	EXPECT_EQ(0, fresh.control_signal);
	EXPECT_EQ(0, fresh.node_buffer_len);
	EXPECT_EQ(10, fresh.method_threshold);
	EXPECT_EQ(1, fresh.capture_clirequest);
	EXPECT_EQ(15, fresh.max_stack_depth);
	EXPECT_EQ(1, fresh.transaction_type);
	EXPECT_EQ(0, fresh.capture_distributed_trace);
	EXPECT_EQ(1, fresh.capture_cassandra);
	EXPECT_EQ(1, fresh.capture_http);
	EXPECT_EQ(1, fresh.capture_httpcall_metadata);
	EXPECT_EQ(1, fresh.capture_mssql);
	EXPECT_EQ(1, fresh.capture_mysql);
	EXPECT_EQ(1, fresh.capture_pdo);
	EXPECT_EQ(1, fresh.capture_postgres);
	EXPECT_EQ(1, fresh.capture_redis);
	EXPECT_EQ(1, fresh.capture_memcached);
	EXPECT_EQ(1, fresh.capture_oracle);
	EXPECT_EQ(20021, fresh.tcp_status_port);
	EXPECT_EQ(20022, fresh.tcp_data_port);
	EXPECT_EQ(0, fresh.exception_count);
	EXPECT_EQ(0, fresh.error_count);
	EXPECT_EQ(0, fresh.enable_auto_rum);
	EXPECT_EQ(1, fresh.track_errors);
	EXPECT_EQ(1, fresh.track_exceptions);
	EXPECT_EQ(1, fresh.track_zend_execute);
	EXPECT_EQ(1, fresh.track_zend_execute_internal);
	EXPECT_EQ(0, fresh.json_decode_function_exists);
	EXPECT_EQ(10000, fresh.span_limit);
	EXPECT_EQ(0, fresh.prune_intermediate_spans);
	EXPECT_EQ(0, fresh.stored_node_count);
	EXPECT_EQ(0, fresh.rum_injected);
	EXPECT_EQ(0, fresh.is_caller_same_user);
	EXPECT_EQ(0, fresh.is_async_call);
	EXPECT_EQ(3.0f, fresh.sql_trace_threshold);
	EXPECT_EQ(0u, fresh.start_time);
	EXPECT_EQ(0u, fresh.end_time);
	EXPECT_EQ(0, fresh.memory_usage);
}

TEST_F(Globals, RequestAndCollectorTextsAreUnset) {
	const char *texts[] = {fresh.applicationname,
						   fresh.application_name,
						   fresh.remoteexporterhostname,
						   fresh.remote_exporter_hostname,
						   fresh.remoteexporterip,
						   fresh.remote_exporter_ip,
						   fresh.request_uri_custom_name,
						   fresh.instance_id,
						   fresh.rum_snippet,
						   fresh.session_id,
						   fresh.applicationgroup,
						   fresh.application_group,
						   fresh.excludedports,
						   fresh.includedports,
						   fresh.use_static_port,
						   fresh.app_id,
						   fresh.app_flow,
						   fresh.normalised_txn_name};
	for (size_t i = 0; i < sizeof(texts) / sizeof(texts[0]); i++) {
		EXPECT_EQ(nullptr, texts[i]) << i;
	}
}

TEST_F(Globals, ValuesAndSpansAreUnset) {
	const zval *values[] = {fresh.request_headers_zv,        fresh.curl_req_headers_store,
							fresh.curl_res_headers_store,    fresh.curl_multi_handle_store,
							fresh.curl_multi_reported_store, fresh.curl_multi_spanid_store,
							fresh.curlinfo_effective_url,    fresh.curlinfo_http_code,
							fresh.curlinfo_total_time,       fresh.app_param_avg_zv,
							fresh.app_param_sum_zv,          fresh.custom_params_zv};
	for (size_t i = 0; i < sizeof(values) / sizeof(values[0]); i++) {
		EXPECT_EQ(nullptr, values[i]) << i;
	}
	EXPECT_EQ(nullptr, fresh.current_node);
	EXPECT_EQ(nullptr, fresh.node_buffer->head);
}

static bool is_zeroed(const char *buffer, size_t size) {
	return std::string(buffer, size) == std::string(size, '\0');
}

TEST_F(Globals, FixedBuffersAreZeroedOverTheirWholeCapacity) {
	EXPECT_TRUE(is_zeroed(fresh.trace_id, 33));
	EXPECT_TRUE(is_zeroed(fresh.root_parentspanid, 17));
	EXPECT_TRUE(is_zeroed(fresh.request_uri, 8192));
	EXPECT_TRUE(is_zeroed(fresh.http_host_name, 8192));
	EXPECT_TRUE(is_zeroed(fresh.php_self, 8192));
	EXPECT_TRUE(is_zeroed(fresh.request_method, 8192));
	EXPECT_TRUE(is_zeroed(fresh.query_string, 12800));
}

TEST_F(Globals, RecordsOfCpuTimeAndExceptionsAreThereAndZero) {
	static const kaq_cpu no_cpu = {};
	ASSERT_NE(nullptr, fresh.cpu_time);
	EXPECT_EQ(0, memcmp(&no_cpu, fresh.cpu_time, sizeof(no_cpu)));
	ASSERT_NE(nullptr, fresh.exceptionslist);
	for (int i = 0; i < 10; i++) {
		ASSERT_NE(nullptr, fresh.exceptionslist[i]);
		EXPECT_EQ(nullptr, fresh.exceptionslist[i]->name);
		EXPECT_EQ(0, fresh.exceptionslist[i]->count);
	}
}

TEST_F(Globals, HostFactsAreFilled) {
	EXPECT_TRUE(strcmp(fresh.hosttype, "LINUX") == 0 || strcmp(fresh.hosttype, "DOCKER") == 0);
	EXPECT_STRNE("", fresh.hostname);
	EXPECT_STRNE("", fresh.fqdn);
	EXPECT_STREQ("LINUX", fresh.os);
	EXPECT_STREQ("amd64", fresh.os_arch);
	EXPECT_STRNE("", fresh.os_version);
	ASSERT_NE(nullptr, fresh.current_host_ips);
	EXPECT_NE(nullptr, strstr(fresh.current_host_ips, "\"127.0.0.1\""));
}

TEST_F(Globals, ReleaseNullsEveryFieldThatItFrees) {
	fresh.applicationname = strdup("a");
	fresh.excludedports = strdup("1");
	free_globals(&fresh);
	const void *fields[] = {fresh.trace_id,
							fresh.root_parentspanid,
							fresh.request_uri,
							fresh.http_host_name,
							fresh.php_self,
							fresh.request_method,
							fresh.exceptionslist,
							fresh.query_string,
							fresh.cpu_time,
							fresh.hostname,
							fresh.os,
							fresh.os_version,
							fresh.os_arch,
							fresh.fqdn,
							fresh.hosttype,
							fresh.current_host_ips,
							fresh.applicationname,
							fresh.excludedports};
	for (size_t i = 0; i < sizeof(fields) / sizeof(fields[0]); i++) {
		EXPECT_EQ(nullptr, fields[i]) << i;
	}
}

TEST_F(Globals, SecondReleaseDoesNothing) {
	free_globals(&fresh);
	free_globals(&fresh);
	EXPECT_EQ(nullptr, fresh.request_uri);
}

TEST_F(Globals, ConstructAndReleaseLeaveNothingBehind) {
	EXPECT_FALSE(leaks([&] {
		zend_kaq_globals one;
		kaq_construct_globals(&one);
		free_globals(&one);
	}));
}
