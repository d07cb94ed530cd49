#include "core/settings.h"

#include "util/kaq_strings.h"

#include <stdlib.h>

/* One row per setting, in registration order: key, default, handler, field. */
// table
#define KAQ_SETTINGS(INTEGER, TEXT)                                                               \
	INTEGER("status_port", "20021", status_port_update, tcp_status_port)                          \
	INTEGER("data_port", "20022", data_port_update, tcp_data_port)                                \
	INTEGER("method_threshold", "10", method_threshold_update, method_threshold)                  \
	INTEGER("capture_clirequest", "1", method_capture_clirequest, capture_clirequest)             \
	TEXT("application_name", "PHP-Application", method_kaq_application_name, applicationname)     \
	INTEGER("stack_depth", "15", method_kaq_stack_depth, max_stack_depth)                         \
	INTEGER("capture_cassandra", "1", method_kaq_capture_cassandra, capture_cassandra)            \
	INTEGER("capture_http", "1", method_kaq_capture_http, capture_http)                           \
	INTEGER("capture_httpcall_metadata", "1", method_kaq_capture_httpcall_metadata,               \
			capture_httpcall_metadata)                                                            \
	INTEGER("capture_mssql", "1", method_kaq_capture_mssql, capture_mssql)                        \
	INTEGER("capture_mysql", "1", method_kaq_capture_mysql, capture_mysql)                        \
	INTEGER("capture_oracle", "1", method_kaq_capture_oracle, capture_oracle)                     \
	INTEGER("capture_pdo", "1", method_kaq_capture_pdo, capture_pdo)                              \
	INTEGER("capture_postgres", "1", method_kaq_capture_postgres, capture_postgres)               \
	INTEGER("capture_redis", "1", method_kaq_capture_redis, capture_redis)                        \
	INTEGER("capture_memcached", "1", method_kaq_capture_memcached, capture_memcached)            \
	INTEGER("capture_distributed_trace", "0", method_capture_distributed_trace,                   \
			capture_distributed_trace)                                                            \
	INTEGER("enable_auto_rum", "1", method_enable_auto_rum, enable_auto_rum)                      \
	TEXT("remote_exporter_hostname", "", method_remote_exporter_hostname, remoteexporterhostname) \
	TEXT("remote_exporter_ip", "", method_remote_exporter_ip, remoteexporterip)                   \
	INTEGER("track_errors", "1", method_kaq_track_errors, track_errors)                           \
	INTEGER("track_exceptions", "1", method_kaq_track_exceptions, track_exceptions)               \
	INTEGER("track_zend_execute", "1", method_kaq_track_zend_execute, track_zend_execute)         \
	INTEGER("track_zend_execute_internal", "1", method_kaq_track_zend_execute_internal,           \
			track_zend_execute_internal)                                                          \
	TEXT("application_group", "", method_application_group, applicationgroup)                     \
	INTEGER("span_limit", "10000", method_kaq_span_limit, span_limit)                             \
	INTEGER("prune_intermediate_spans", "0", method_kaq_prune_intermediate_spans,                 \
			prune_intermediate_spans)                                                             \
	TEXT("exclude_ports", "", method_kaq_exclude_ports, excludedports)                            \
	TEXT("include_ports", "", method_kaq_include_ports, includedports)                            \
	TEXT("use_static_port", "", method_kaq_use_static_port, use_static_port)

static void kaq_store_integer(int *field, const zend_string *value) {
	if (value && ZSTR_LEN(value) > 0) {
		*field = (int)strtol(ZSTR_VAL(value), nullptr, 10);
	}
}

/* The engine releases a run-time value when it restores the one of php.ini, and an empty one is
 * ignored here: only a copy of our own keeps the field valid. */
static void kaq_store_text(char **field, const zend_string *value) {
	if (value && ZSTR_LEN(value) > 0) {
		char *copy = kaq_strdup(ZSTR_VAL(value));
		free(*field);
		*field = copy;
	}
}

#define KAQ_INTEGER_HANDLER(key, initial, handler, field)        \
	static KAQ_INI_HANDLER(handler) {                            \
		KAQ_INI_HANDLER_IGNORES();                               \
		kaq_store_integer(&kaq_get_globals()->field, new_value); \
		return SUCCESS;                                          \
	}
#define KAQ_TEXT_HANDLER(key, initial, handler, field)        \
	static KAQ_INI_HANDLER(handler) {                         \
		KAQ_INI_HANDLER_IGNORES();                            \
		kaq_store_text(&kaq_get_globals()->field, new_value); \
		return SUCCESS;                                       \
	}
KAQ_SETTINGS(KAQ_INTEGER_HANDLER, KAQ_TEXT_HANDLER)

#define KAQ_INI_ROW(key, initial, handler, field) \
	PHP_INI_ENTRY("kaq." key, initial, PHP_INI_ALL, handler)

PHP_INI_BEGIN()
KAQ_SETTINGS(KAQ_INI_ROW, KAQ_INI_ROW)
PHP_INI_END()

void kaq_register_settings(int type, int module_number) {
	(void)type;
	REGISTER_INI_ENTRIES();
}

void kaq_unregister_settings(int type, int module_number) {
	(void)type;
	UNREGISTER_INI_ENTRIES();
}

static void kaq_refresh_copy(char **copy, const char *setting) {
	free(*copy);
	*copy = kaq_strdup(setting);
}

void kaq_set_request_global_strings(void) {
	zend_kaq_globals *g = kaq_get_globals();
	kaq_refresh_copy(&g->application_name, g->applicationname);
	kaq_refresh_copy(&g->remote_exporter_hostname, g->remoteexporterhostname);
	kaq_refresh_copy(&g->remote_exporter_ip, g->remoteexporterip);
	kaq_refresh_copy(&g->application_group, g->applicationgroup);
}
