/*
 * The table of instrumented functions: one row each, in the order in which their records are made.
 * A row expands to the function's wrappers, slot and record (wrappers.cpp);
 * docs/adding-a-function.md explains how to add one.
 *
 * ROW(identifier, look-up key, capture group, component, class name and function name in the
 * payload, METHOD_TYPE, recipe)
 *
 * The key of withContactPoints lacks its last letter on purpose: with a driver that has only the
 * plural method this wrapper is not installed.
 */
// table
// clang-format off
#pragma once

#include "instrumentation/recipes.h"

#define KAQ_WRAPPED_FUNCTIONS(ROW) \
	/* Cassandra */ \
	ROW(cassandra_defaultclusterC_connect, "cassandra\\defaultcluster::connect", cassandra, "Cassandra", "Cassandra\\DefaultCluster", "connect", EXTERNAL, kaq_names{}) \
	ROW(cassandra_cluster_builderC_build, "cassandra\\cluster\\builder::build", cassandra, "Cassandra", "Cassandra\\Cluster\\Builder", "build", EXTERNAL, kaq_names{}) \
	ROW(cassandra_cluster_builderC_withport, "cassandra\\cluster\\builder::withport", cassandra, "Cassandra", "Cassandra\\Cluster\\Builder", "withPort", EXTERNAL, kaq_names{}) \
	ROW(cassandra_cluster_builderC_withcontactpoints, "cassandra\\cluster\\builder::withcontactpoint", cassandra, "Cassandra", "Cassandra\\Cluster\\Builder", "withContactPoints", EXTERNAL, kaq_contact_points{}) \
	ROW(cassandra_defaultsessionC_execute, "cassandra\\defaultsession::execute", cassandra, "Cassandra", "Cassandra\\DefaultSession", "execute", EXTERNAL, kaq_cql{"z|z"}) \
	ROW(cassandra_defaultsessionC_executeasync, "cassandra\\defaultsession::executeasync", cassandra, "Cassandra", "Cassandra\\DefaultSession", "executeAsync", EXTERNAL, kaq_cql{"z|z"}) \
	ROW(cassandra_batchstatementC_add, "cassandra\\batchstatement::add", cassandra, "Cassandra", "Cassandra\\BatchStatement", "add", EXTERNAL, kaq_cql{"z|z"}) \
	ROW(cassandra_simplestatementC___construct, "cassandra\\simplestatement::__construct", cassandra, "Cassandra", "Cassandra\\SimpleStatement", "__construct", EXTERNAL, kaq_cql{"z"}) \
	/* curl */ \
	ROW(curl_init, "curl_init", http, "HTTP", nullptr, "curl_init", INTERNAL, kaq_curl_init{}) \
	ROW(curl_exec, "curl_exec", http, "HTTP", nullptr, "curl_exec", EXTERNAL, kaq_curl_exec{}) \
	ROW(curl_setopt, "curl_setopt", http, "HTTP", nullptr, "curl_setopt", INTERNAL, kaq_curl_setopt{}) \
	ROW(curl_multi_init, "curl_multi_init", http, "HTTP", nullptr, "curl_multi_init", INTERNAL, kaq_names{}) \
	ROW(curl_multi_add_handle, "curl_multi_add_handle", http, "HTTP", nullptr, "curl_multi_add_handle", INTERNAL, kaq_curl_multi_add_handle{}) \
	ROW(curl_multi_exec, "curl_multi_exec", http, "HTTP", nullptr, "curl_multi_exec", INTERNAL, kaq_curl_multi_exec{}) \
	ROW(curl_multi_remove_handle, "curl_multi_remove_handle", http, "HTTP", nullptr, "curl_multi_remove_handle", INTERNAL, kaq_curl_multi_remove_handle{}) \
	ROW(curl_multi_close, "curl_multi_close", http, "HTTP", nullptr, "curl_multi_close", INTERNAL, kaq_curl_multi_close{}) \
	ROW(curl_setopt_array, "curl_setopt_array", http, "HTTP", nullptr, "curl_setopt_array", INTERNAL, kaq_curl_setopt_array{}) \
	/* Memcache */ \
	ROW(memcache_connect_function, "memcache_connect", memcached, "Memcache", nullptr, "memcache_connect", EXTERNAL, kaq_connect{"s|lll", true, false, true, KAQ_DIRECT}) \
	ROW(memcache_pconnect_function, "memcache_pconnect", memcached, "Memcache", nullptr, "memcache_pconnect", EXTERNAL, kaq_connect{"s|lll", true, false, true, KAQ_DIRECT}) \
	ROW(memcache_add_server_function, "memcache_add_server", memcached, "Memcache", nullptr, "memcache_add_server", INTERNAL, kaq_names{}) \
	ROW(memcache_add_function, "memcache_add", memcached, "Memcache", nullptr, "memcache_add", EXTERNAL, kaq_names{}) \
	ROW(memcache_set_function, "memcache_set", memcached, "Memcache", nullptr, "memcache_set", EXTERNAL, kaq_names{}) \
	ROW(memcache_replace_function, "memcache_replace", memcached, "Memcache", nullptr, "memcache_replace", EXTERNAL, kaq_names{}) \
	ROW(memcache_get_function, "memcache_get", memcached, "Memcache", nullptr, "memcache_get", EXTERNAL, kaq_names{}) \
	ROW(memcache_delete_function, "memcache_delete", memcached, "Memcache", nullptr, "memcache_delete", EXTERNAL, kaq_names{}) \
	ROW(memcache_increment_function, "memcache_increment", memcached, "Memcache", nullptr, "memcache_increment", EXTERNAL, kaq_names{}) \
	ROW(memcache_decrement_function, "memcache_decrement", memcached, "Memcache", nullptr, "memcache_decrement", EXTERNAL, kaq_names{}) \
	ROW(memcache_class_connect_function, "memcache::connect", memcached, "Memcache", "memcache", "connect", EXTERNAL, kaq_connect{"s|lll", true, false, true, KAQ_DIRECT}) \
	ROW(memcache_class_pconnect_function, "memcache::pconnect", memcached, "Memcache", "memcache", "pconnect", EXTERNAL, kaq_connect{"s|lll", true, false, true, KAQ_DIRECT}) \
	ROW(memcache_class_addserver_function, "memcache::addserver", memcached, "Memcache", "memcache", "addserver", INTERNAL, kaq_connect{"s|lblllbzl;Os|lblllbzl", true, false, true, KAQ_DIRECT}) \
	ROW(memcache_class_add_function, "memcache::add", memcached, "Memcache", "memcache", "add", EXTERNAL, kaq_names{}) \
	ROW(memcache_class_set_function, "memcache::set", memcached, "Memcache", "memcache", "set", EXTERNAL, kaq_names{}) \
	ROW(memcache_class_replace_function, "memcache::replace", memcached, "Memcache", "memcache", "replace", EXTERNAL, kaq_names{}) \
	ROW(memcache_class_get_function, "memcache::get", memcached, "Memcache", "memcache", "get", EXTERNAL, kaq_names{}) \
	ROW(memcache_class_delete_function, "memcache::delete", memcached, "Memcache", "memcache", "delete", EXTERNAL, kaq_names{}) \
	ROW(memcache_class_increment_function, "memcache::increment", memcached, "Memcache", "memcache", "increment", EXTERNAL, kaq_names{}) \
	ROW(memcache_class_decrement_function, "memcache::decrement", memcached, "Memcache", "memcache", "decrement", EXTERNAL, kaq_names{}) \
	/* Memcached */ \
	ROW(memcached_class_addserver_function, "memcached::addserver", memcached, "Memcached", "memcached", "addServer", INTERNAL, kaq_connect{"sl|l", true, false, true, KAQ_DIRECT}) \
	ROW(memcached_class_add_function, "memcached::add", memcached, "Memcached", "memcached", "add", EXTERNAL, kaq_names{}) \
	ROW(memcached_class_addbykey_function, "memcached::addbykey", memcached, "Memcached", "memcached", "addByKey", EXTERNAL, kaq_names{}) \
	ROW(memcached_class_append_function, "memcached::append", memcached, "Memcached", "memcached", "append", EXTERNAL, kaq_names{}) \
	ROW(memcached_class_appendbykey_function, "memcached::appendbykey", memcached, "Memcached", "memcached", "appendByKey", EXTERNAL, kaq_names{}) \
	ROW(memcached_class_cas_function, "memcached::cas", memcached, "Memcached", "memcached", "cas", EXTERNAL, kaq_names{}) \
	ROW(memcached_class_casbykey_function, "memcached::casbykey", memcached, "Memcached", "memcached", "casByKey", EXTERNAL, kaq_names{}) \
	ROW(memcached_class_decrement_function, "memcached::decrement", memcached, "Memcached", "memcached", "decrement", EXTERNAL, kaq_names{}) \
	ROW(memcached_class_delete_function, "memcached::delete", memcached, "Memcached", "memcached", "delete", EXTERNAL, kaq_names{}) \
	ROW(memcached_class_deletebykey_function, "memcached::deletebykey", memcached, "Memcached", "memcached", "deleteByKey", EXTERNAL, kaq_names{}) \
	ROW(memcached_class_get_function, "memcached::get", memcached, "Memcached", "memcached", "get", EXTERNAL, kaq_names{}) \
	ROW(memcached_class_getbykey_function, "memcached::getbykey", memcached, "Memcached", "memcached", "getByKey", EXTERNAL, kaq_names{}) \
	ROW(memcached_class_getdelayed_function, "memcached::getdelayed", memcached, "Memcached", "memcached", "getDelayed", EXTERNAL, kaq_names{}) \
	ROW(memcached_class_getdelayedbykey_function, "memcached::getdelayedbykey", memcached, "Memcached", "memcached", "getDelayedByKey", EXTERNAL, kaq_names{}) \
	ROW(memcached_class_getmulti_function, "memcached::getmulti", memcached, "Memcached", "memcached", "getMulti", EXTERNAL, kaq_names{}) \
	ROW(memcached_class_getmultibykey_function, "memcached::getmultibykey", memcached, "Memcached", "memcached", "getMultiByKey", EXTERNAL, kaq_names{}) \
	ROW(memcached_class_increment_function, "memcached::increment", memcached, "Memcached", "memcached", "increment", EXTERNAL, kaq_names{}) \
	ROW(memcached_class_prepend_function, "memcached::prepend", memcached, "Memcached", "memcached", "prepend", EXTERNAL, kaq_names{}) \
	ROW(memcached_class_prependbykey_function, "memcached::prependbykey", memcached, "Memcached", "memcached", "prependByKey", EXTERNAL, kaq_names{}) \
	ROW(memcached_class_replace_function, "memcached::replace", memcached, "Memcached", "memcached", "replace", EXTERNAL, kaq_names{}) \
	ROW(memcached_class_replacebykey_function, "memcached::replacebykey", memcached, "Memcached", "memcached", "replaceByKey", EXTERNAL, kaq_names{}) \
	ROW(memcached_class_set_function, "memcached::set", memcached, "Memcached", "memcached", "set", EXTERNAL, kaq_names{}) \
	ROW(memcached_class_setbykey_function, "memcached::setbykey", memcached, "Memcached", "memcached", "setByKey", EXTERNAL, kaq_names{}) \
	ROW(memcached_class_setmulti_function, "memcached::setmulti", memcached, "Memcached", "memcached", "setMulti", EXTERNAL, kaq_names{}) \
	ROW(memcached_class_setmultibykey_function, "memcached::setmultibykey", memcached, "Memcached", "memcached", "setMultiByKey", EXTERNAL, kaq_names{}) \
	/* MySQL */ \
	ROW(mysql_connect, "mysql_connect", mysql, "MySQL", nullptr, "mysql_connect", EXTERNAL, kaq_connect{"|s!s!s!l;|s!s!s!bl", false, false, false, KAQ_DIRECT}) \
	ROW(mysql_query, "mysql_query", mysql, "MySQL", nullptr, "mysql_query", EXTERNAL, kaq_query{"s|r", 0, KAQ_DIRECT}) \
	ROW(mysql_db_query, "mysql_db_query", mysql, "MySQL", nullptr, "mysql_db_query", EXTERNAL, kaq_query{"ss|r", 1, KAQ_DIRECT}) \
	ROW(mysql_unbuffered_query, "mysql_unbuffered_query", mysql, "MySQL", nullptr, "mysql_unbuffered_query", EXTERNAL, kaq_query{"s|r", 0, KAQ_DIRECT}) \
	ROW(mysql_close, "mysql_close", mysql, "MySQL", nullptr, "mysql_close", INTERNAL, kaq_names{}) \
	ROW(mysql_pconnect, "mysql_pconnect", mysql, "MySQL", nullptr, "mysql_pconnect", EXTERNAL, kaq_names{}) \
	ROW(mysql_select_db, "mysql_select_db", mysql, "MySQL", nullptr, "mysql_select_db", EXTERNAL, kaq_names{}) \
	/* MySQLi */ \
	ROW(mysqli_init, "mysqli_init", mysql, "MySQLi", nullptr, "mysqli_init", INTERNAL, kaq_names{}) \
	ROW(mysqli_multi_query, "mysqli_multi_query", mysql, "MySQLi", nullptr, "mysqli_multi_query", EXTERNAL, kaq_query{"Os;s|l", 0, KAQ_EMPTY}) \
	ROW(mysqli_prepare, "mysqli_prepare", mysql, "MySQLi", nullptr, "mysqli_prepare", INTERNAL, kaq_query{"Os", 0, KAQ_DIRECT}) \
	ROW(mysqli_query, "mysqli_query", mysql, "MySQLi", nullptr, "mysqli_query", EXTERNAL, kaq_query{"Os", 0, KAQ_EMPTY}) \
	ROW(mysqli_real_query, "mysqli_real_query", mysql, "MySQLi", nullptr, "mysqli_real_query", EXTERNAL, kaq_query{"Os", 0, KAQ_EMPTY}) \
	ROW(mysqli_stmt_prepare, "mysqli_stmt_prepare", mysql, "MySQLi", nullptr, "mysqli_stmt_prepare", INTERNAL, kaq_query{"Os", 0, KAQ_EMPTY}) \
	ROW(mysqli_connect, "mysqli_connect", mysql, "MySQLi", nullptr, "mysqli_connect", EXTERNAL, kaq_connect{"|ssssls", true, true, false, KAQ_DIRECT}) \
	ROW(mysqli_real_connect, "mysqli_real_connect", mysql, "MySQLi", nullptr, "mysqli_real_connect", EXTERNAL, kaq_connect{"O|sssslsl", true, true, false, KAQ_DIRECT}) \
	ROW(mysqli_close, "mysqli_close", mysql, "MySQLi", nullptr, "mysqli_close", INTERNAL, kaq_names{}) \
	ROW(mysqli_commit, "mysqli_commit", mysql, "MySQLi", nullptr, "mysqli_commit", EXTERNAL, kaq_names{}) \
	ROW(mysqli_options, "mysqli_options", mysql, "MySQLi", nullptr, "mysqli_options", INTERNAL, kaq_names{}) \
	ROW(mysqli_select_db, "mysqli_select_db", mysql, "MySQLi", nullptr, "mysqli_select_db", EXTERNAL, kaq_dbname{"Os"}) \
	ROW(mysqli_stmt_bind_param, "mysqli_stmt_bind_param", mysql, "MySQLi", nullptr, "mysqli_stmt_bind_param", INTERNAL, kaq_names{}) \
	ROW(mysqli_stmt_execute, "mysqli_stmt_execute", mysql, "MySQLi", nullptr, "mysqli_stmt_execute", EXTERNAL, kaq_names{}) \
	ROW(mysqli_stmt_init, "mysqli_stmt_init", mysql, "MySQLi", nullptr, "mysqli_stmt_init", INTERNAL, kaq_names{}) \
	ROW(mysqliC_multi_query, "mysqli::multi_query", mysql, "MySQLi", "mysqli", "multi_query", EXTERNAL, kaq_query{"s", 0, KAQ_EMPTY}) \
	ROW(mysqliC_prepare, "mysqli::prepare", mysql, "MySQLi", "mysqli", "prepare", INTERNAL, kaq_query{"s|z", 0, KAQ_DIRECT}) \
	ROW(mysqliC_query, "mysqli::query", mysql, "MySQLi", "mysqli", "query", EXTERNAL, kaq_query{"s|l", 0, KAQ_EMPTY}) \
	ROW(mysqliC_real_query, "mysqli::real_query", mysql, "MySQLi", "mysqli", "real_query", EXTERNAL, kaq_query{"s|l", 0, KAQ_EMPTY}) \
	ROW(mysqliC_connect, "mysqli::connect", mysql, "MySQLi", "mysqli", "connect", EXTERNAL, kaq_connect{"|ssssls", true, true, false, KAQ_DIRECT}) \
	ROW(mysqliC___construct, "mysqli::__construct", mysql, "MySQLi", "mysqli", "__construct", EXTERNAL, kaq_connect{"|ssssls", true, true, false, KAQ_DIRECT}) \
	ROW(mysqliC_real_connect, "mysqli::real_connect", mysql, "MySQLi", "mysqli", "real_connect", EXTERNAL, kaq_connect{"|sssslsl", true, true, false, KAQ_DIRECT}) \
	ROW(mysqliC_commit, "mysqli::commit", mysql, "MySQLi", "mysqli", "commit", EXTERNAL, kaq_names{}) \
	ROW(mysqliC_options, "mysqli::options", mysql, "MySQLi", "mysqli", "options", INTERNAL, kaq_names{}) \
	ROW(mysqliC_select_db, "mysqli::select_db", mysql, "MySQLi", "mysqli", "select_db", EXTERNAL, kaq_dbname{"Os"}) \
	ROW(mysqliC_stmt_init, "mysqli::stmt_init", mysql, "MySQLi", "mysqli", "stmt_init", INTERNAL, kaq_names{}) \
	ROW(mysqliC_close, "mysqli::close", mysql, "MySQLi", "mysqli", "close", INTERNAL, kaq_names{}) \
	ROW(mysqli_stmtC_bind_param, "mysqli_stmt::bind_param", mysql, "MySQLi", "mysqli_stmt", "bind_param", INTERNAL, kaq_names{}) \
	ROW(mysqli_stmtC___construct, "mysqli_stmt::__construct", mysql, "MySQLi", "mysqli_stmt", "__construct", EXTERNAL, kaq_names{}) \
	ROW(mysqli_stmtC_execute, "mysqli_stmt::execute", mysql, "MySQLi", "mysqli_stmt", "execute", EXTERNAL, kaq_names{}) \
	ROW(mysqli_stmtC_prepare, "mysqli_stmt::prepare", mysql, "MySQLi", "mysqli_stmt", "prepare", INTERNAL, kaq_query{"s", 0, KAQ_DIRECT}) \
	/* PDO */ \
	ROW(pdo_prepare, "pdo::prepare", pdo, "PDO", "PDO", "prepare", INTERNAL, kaq_query{"os;s|z", 0, KAQ_EMPTY}) \
	ROW(pdo_exec, "pdo::exec", pdo, "PDO", "PDO", "exec", EXTERNAL, kaq_query{"s", 0, KAQ_EMPTY}) \
	ROW(pdo_query, "pdo::query", pdo, "PDO", "PDO", "query", EXTERNAL, kaq_query{"1!s", 0, KAQ_EMPTY_IF_PASSED}) \
	ROW(pdo___construct, "pdo::__construct", pdo, "PDO", "PDO", "__construct", EXTERNAL, kaq_connect{"s|s!s!a!", false, false, false, KAQ_DIRECT}) \
	ROW(pdostatement_execute, "pdostatement::execute", pdo, "PDO", "PDOStatement", "execute", EXTERNAL, kaq_names{}) \
	ROW(pdostatement_fetch, "pdostatement::fetch", pdo, "PDO", "PDOStatement", "fetch", INTERNAL, kaq_names{}) \
	/* Postgres */ \
	ROW(pg_connect, "pg_connect", postgres, "Postgres", nullptr, "pg_connect", EXTERNAL, kaq_connect{"s|l", false, false, false, KAQ_EMPTY}) \
	ROW(pg_pconnect, "pg_pconnect", postgres, "Postgres", nullptr, "pg_pconnect", EXTERNAL, kaq_connect{"s|l", false, false, false, KAQ_EMPTY}) \
	ROW(pg_send_query, "pg_send_query", postgres, "Postgres", nullptr, "pg_send_query", EXTERNAL, kaq_query{"rs", 0, KAQ_EMPTY}) \
	ROW(pg_query, "pg_query", postgres, "Postgres", nullptr, "pg_query", EXTERNAL, kaq_query{"1:s;rs", 0, KAQ_EMPTY}) \
	ROW(pg_query_params, "pg_query_params", postgres, "Postgres", nullptr, "pg_query_params", EXTERNAL, kaq_query{"2:sa;rsa", 0, KAQ_EMPTY}) \
	ROW(pg_prepare, "pg_prepare", postgres, "Postgres", nullptr, "pg_prepare", INTERNAL, kaq_query{"2:ss;3:rss", 1, KAQ_IGNORED}) \
	ROW(pg_close, "pg_close", postgres, "Postgres", nullptr, "pg_close", INTERNAL, kaq_names{}) \
	ROW(pg_execute, "pg_execute", postgres, "Postgres", nullptr, "pg_execute", EXTERNAL, kaq_names{}) \
	/* Redis */ \
	ROW(redis_class_connect_function, "redis::connect", redis, "Redis", "redis", "connect", EXTERNAL, kaq_connect{"s|lzzz", true, false, false, KAQ_EMPTY}) \
	ROW(redis_class_pconnect_function, "redis::pconnect", redis, "Redis", "redis", "pconnect", EXTERNAL, kaq_connect{"s|lzzz", true, false, false, KAQ_EMPTY}) \
	ROW(redis_class_open_function, "redis::open", redis, "Redis", "redis", "open", EXTERNAL, kaq_connect{"s|lzzz", true, false, false, KAQ_EMPTY}) \
	ROW(redis_class_popen_function, "redis::popen", redis, "Redis", "redis", "popen", EXTERNAL, kaq_connect{"s|lzzz", true, false, false, KAQ_EMPTY}) \
	ROW(redis_class_close_function, "redis::close", redis, "Redis", "redis", "close", INTERNAL, kaq_names{}) \
	ROW(redis_class_select_function, "redis::select", redis, "Redis", "redis", "select", EXTERNAL, kaq_names{}) \
	ROW(redis_class_del_function, "redis::del", redis, "Redis", "redis", "del", EXTERNAL, kaq_names{}) \
	ROW(redis_class_delete_function, "redis::delete", redis, "Redis", "redis", "delete", EXTERNAL, kaq_names{}) \
	ROW(redis_class_get_function, "redis::get", redis, "Redis", "redis", "get", EXTERNAL, kaq_names{}) \
	ROW(redis_class_set_function, "redis::set", redis, "Redis", "redis", "set", EXTERNAL, kaq_names{}) \
	ROW(redis_class_setex_function, "redis::setex", redis, "Redis", "redis", "setex", EXTERNAL, kaq_names{}) \
	ROW(redis_class_setnx_function, "redis::setnx", redis, "Redis", "redis", "setnx", EXTERNAL, kaq_names{}) \
	ROW(redis_class_incr_function, "redis::incr", redis, "Redis", "redis", "incr", EXTERNAL, kaq_names{}) \
	ROW(redis_class_incrby_function, "redis::incrby", redis, "Redis", "redis", "incrby", EXTERNAL, kaq_names{}) \
	ROW(redis_class_decr_function, "redis::decr", redis, "Redis", "redis", "decr", EXTERNAL, kaq_names{}) \
	ROW(redis_class_decrby_function, "redis::decrby", redis, "Redis", "redis", "decrby", EXTERNAL, kaq_names{}) \
	ROW(redis_class_lset_function, "redis::lset", redis, "Redis", "redis", "lset", EXTERNAL, kaq_names{}) \
	ROW(redis_class_lrem_function, "redis::lrem", redis, "Redis", "redis", "lrem", EXTERNAL, kaq_names{}) \
	ROW(redis_class_lindex_function, "redis::lindex", redis, "Redis", "redis", "lindex", EXTERNAL, kaq_names{}) \
	ROW(redis_class_hset_function, "redis::hset", redis, "Redis", "redis", "hset", EXTERNAL, kaq_names{}) \
	ROW(redis_class_hsetnx_function, "redis::hsetnx", redis, "Redis", "redis", "hsetnx", EXTERNAL, kaq_names{}) \
	ROW(redis_class_hget_function, "redis::hget", redis, "Redis", "redis", "hget", EXTERNAL, kaq_names{}) \
	ROW(redis_class_hmset_function, "redis::hmset", redis, "Redis", "redis", "hmset", EXTERNAL, kaq_names{}) \
	ROW(redis_class_hmget_function, "redis::hmget", redis, "Redis", "redis", "hmget", EXTERNAL, kaq_names{}) \
	/* Oracle; a connection is never wrapped, by design */ \
	ROW(oci_connect, "oci_connect", never, "Oracle", nullptr, "oci_connect", EXTERNAL, kaq_names{}) \
	ROW(oci_pconnect, "oci_pconnect", never, "Oracle", nullptr, "oci_pconnect", EXTERNAL, kaq_names{}) \
	ROW(oci_parse, "oci_parse", oracle, "Oracle", nullptr, "oci_parse", EXTERNAL, kaq_query{"rs", 0, KAQ_EMPTY}) \
	ROW(oci_execute, "oci_execute", oracle, "Oracle", nullptr, "oci_execute", EXTERNAL, kaq_names{}) \
	/* SQL Server */ \
	ROW(sqlsrv_connect, "sqlsrv_connect", mssql, "MSSQL", nullptr, "sqlsrv_connect", EXTERNAL, kaq_connect{"sa!", false, false, false, KAQ_DIRECT}) \
	ROW(sqlsrv_query, "sqlsrv_query", mssql, "MSSQL", nullptr, "sqlsrv_query", EXTERNAL, kaq_query{"rs|a!a!", 0, KAQ_DIRECT}) \
	ROW(sqlsrv_prepare, "sqlsrv_prepare", mssql, "MSSQL", nullptr, "sqlsrv_prepare", INTERNAL, kaq_query{"rs|a!a!", 0, KAQ_DIRECT}) \
	ROW(sqlsrv_fetch_array, "sqlsrv_fetch_array", mssql, "MSSQL", nullptr, "sqlsrv_fetch_array", INTERNAL, kaq_names{}) \
	ROW(sqlsrv_execute, "sqlsrv_execute", mssql, "MSSQL", nullptr, "sqlsrv_execute", EXTERNAL, kaq_names{}) \
	ROW(sqlsrv_close, "sqlsrv_close", mssql, "MSSQL", nullptr, "sqlsrv_close", INTERNAL, kaq_names{})

// clang-format on
