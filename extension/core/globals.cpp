#include "core/lifecycle.h"
#include "json/kaq_json.h"
#include "spans/kaq_util.h"
#include "spans/node_pool.h"
#include "wire/host_facts.h"

#include <stdlib.h>
#include <string.h>

static void kaq_set_default_settings(zend_kaq_globals *g) {
	g->method_threshold = 10;
	g->capture_clirequest = 1;
	g->max_stack_depth = 15;
	g->transaction_type = WEB;
	g->capture_cassandra = 1;
	g->capture_http = 1;
	g->capture_httpcall_metadata = 1;
	g->capture_mssql = 1;
	g->capture_mysql = 1;
	g->capture_pdo = 1;
	g->capture_postgres = 1;
	g->capture_redis = 1;
	g->capture_memcached = 1;
	g->capture_oracle = 1;
	g->tcp_status_port = 20021;
	g->tcp_data_port = 20022;
	g->track_errors = 1;
	g->track_exceptions = 1;
	g->track_zend_execute = 1;
	g->track_zend_execute_internal = 1;
	g->span_limit = 10000;
	g->sql_trace_threshold = 3.0f;
}

static void kaq_get_host_details(zend_kaq_globals *g) {
	g->hosttype = (char *)calloc(1, KAQ_HOST_TYPE_SIZE);
	g->hostname = (char *)calloc(1, KAQ_HOST_NAME_SIZE);
	kaq_get_host_type_name(g->hosttype, g->hostname);
	g->fqdn = (char *)calloc(1, KAQ_HOST_NAME_SIZE);
	kaq_get_host_fqdn(g->hostname, g->fqdn);
	kaq_get_current_host_ip(&g->current_host_ips);
	kaq_get_os(&g->os);
	kaq_get_os_arch(&g->os_arch);
	kaq_get_os_version(&g->os_version);
}

void kaq_construct_globals(zend_kaq_globals *g) {
	memset(g, 0, sizeof(*g));
	kaq_set_default_settings(g);
	g->trace_id = (char *)calloc(1, KAQ_TRACE_ID_LENGTH + 1);
	g->root_parentspanid = (char *)calloc(1, KAQ_SPAN_ID_LENGTH + 1);
	g->request_uri = (char *)calloc(1, KAQ_TEXT_BUFFER_SIZE);
	g->http_host_name = (char *)calloc(1, KAQ_TEXT_BUFFER_SIZE);
	g->php_self = (char *)calloc(1, KAQ_TEXT_BUFFER_SIZE);
	g->request_method = (char *)calloc(1, KAQ_TEXT_BUFFER_SIZE);
	g->query_string = (char *)calloc(1, KAQ_QUERY_BUFFER_SIZE);
	g->cpu_time = (kaq_cpu *)calloc(1, sizeof(kaq_cpu));
	g->exceptionslist = (kaq_exception **)calloc(KAQ_EXCEPTION_SLOTS, sizeof(kaq_exception *));
	for (int i = 0; i < KAQ_EXCEPTION_SLOTS; i++) {
		g->exceptionslist[i] = (kaq_exception *)calloc(1, sizeof(kaq_exception));
	}
	g->node_buffer = &g->node_list;
	kaq_get_host_details(g);
}

static void kaq_free_exceptions(zend_kaq_globals *g) {
	for (int i = 0; g->exceptionslist && i < KAQ_EXCEPTION_SLOTS; i++) {
		free(g->exceptionslist[i]);
	}
	free(g->exceptionslist);
	g->exceptionslist = nullptr;
}

void free_globals(zend_kaq_globals *g) {
	char **texts[] = {&g->trace_id,
					  &g->root_parentspanid,
					  &g->request_uri,
					  &g->http_host_name,
					  &g->php_self,
					  &g->request_method,
					  &g->query_string,
					  &g->hostname,
					  &g->os,
					  &g->os_version,
					  &g->os_arch,
					  &g->fqdn,
					  &g->hosttype,
					  &g->current_host_ips,
					  &g->applicationname,
					  &g->remoteexporterhostname,
					  &g->remoteexporterip,
					  &g->applicationgroup,
					  &g->excludedports,
					  &g->includedports,
					  &g->use_static_port};
	for (char **text : texts) {
		free(*text);
		*text = nullptr;
	}
	kaq_free_exceptions(g);
	free(g->cpu_time);
	g->cpu_time = nullptr;
	kaq_buf_free(&g->payload_text);
	kaq_buf_free(&g->host_texts.text);
	free(g->payload_line);
	g->payload_line = nullptr;
	g->payload_line_room = 0;
	kaq_release_spans(g);
	kaq_free_open_spans(g);
	kaq_pool_destroy(&g->node_pool);
}
