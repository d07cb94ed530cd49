/*
 * The functions and methods that stand in for drivers, under their drivers' names. How an argument
 * list takes references: any (by value), out2 (the second and later ones are outputs if they can
 * be), bound (the same, but only looked at by the call), running (the second is an output).
 */
// table
// clang-format off
#pragma once

#define STANDIN_FUNCTIONS(F) \
	F(mysql_connect, any) F(mysql_pconnect, any) F(mysql_query, any) F(mysql_db_query, any) \
	F(mysql_unbuffered_query, any) F(mysql_close, any) F(mysql_select_db, any) \
	F(mysqli_init, any) F(mysqli_multi_query, any) F(mysqli_prepare, any) F(mysqli_query, any) \
	F(mysqli_real_query, any) F(mysqli_stmt_prepare, any) F(mysqli_connect, any) \
	F(mysqli_real_connect, any) F(mysqli_close, any) F(mysqli_commit, any) F(mysqli_options, any) \
	F(mysqli_select_db, any) F(mysqli_stmt_bind_param, bound) F(mysqli_stmt_execute, any) \
	F(mysqli_stmt_init, any) \
	F(pg_connect, any) F(pg_pconnect, any) F(pg_send_query, any) F(pg_query, any) \
	F(pg_query_params, any) F(pg_prepare, any) F(pg_close, any) F(pg_execute, any) \
	F(oci_connect, any) F(oci_pconnect, any) F(oci_parse, any) F(oci_execute, any) \
	F(sqlsrv_connect, any) F(sqlsrv_query, any) F(sqlsrv_prepare, any) \
	F(sqlsrv_fetch_array, any) F(sqlsrv_execute, any) F(sqlsrv_close, any) \
	F(memcache_connect, any) F(memcache_pconnect, any) F(memcache_add_server, any) \
	F(memcache_add, any) F(memcache_set, any) F(memcache_replace, any) F(memcache_get, out2) \
	F(memcache_delete, any) F(memcache_increment, any) F(memcache_decrement, any) \
	F(curl_init, any) F(curl_exec, any) F(curl_setopt, any) F(curl_setopt_array, any) \
	F(curl_multi_init, any) F(curl_multi_add_handle, any) F(curl_multi_exec, running) \
	F(curl_multi_remove_handle, any) F(curl_multi_close, any)

/* CLASS(name as C identifier, name, its methods) */
#define STANDIN_CLASSES(CLASS) \
	CLASS(mysqli, "mysqli", STANDIN_MYSQLI) \
	CLASS(mysqli_stmt, "mysqli_stmt", STANDIN_MYSQLI_STMT) \
	CLASS(pdo, "PDO", STANDIN_PDO) \
	CLASS(pdostatement, "PDOStatement", STANDIN_PDOSTATEMENT) \
	CLASS(redis, "Redis", STANDIN_REDIS) \
	CLASS(memcache, "Memcache", STANDIN_MEMCACHE) \
	CLASS(memcached, "Memcached", STANDIN_MEMCACHED) \
	CLASS(cassandra_cluster, "Cassandra\\DefaultCluster", STANDIN_CASSANDRA_CLUSTER) \
	CLASS(cassandra_builder, "Cassandra\\Cluster\\Builder", STANDIN_CASSANDRA_BUILDER) \
	CLASS(cassandra_session, "Cassandra\\DefaultSession", STANDIN_CASSANDRA_SESSION) \
	CLASS(cassandra_batch, "Cassandra\\BatchStatement", STANDIN_CASSANDRA_BATCH) \
	CLASS(cassandra_simple, "Cassandra\\SimpleStatement", STANDIN_CASSANDRA_SIMPLE)

#define STANDIN_MYSQLI(M) \
	M(__construct, any) M(connect, any) M(real_connect, any) M(query, any) M(real_query, any) \
	M(multi_query, any) M(prepare, any) M(select_db, any) M(commit, any) M(options, any) \
	M(stmt_init, any) M(close, any)
#define STANDIN_MYSQLI_STMT(M) \
	M(__construct, any) M(prepare, any) M(execute, any) M(bind_param, bound)
#define STANDIN_PDO(M) \
	M(__construct, any) M(prepare, any) M(exec, any) M(query, any)
#define STANDIN_PDOSTATEMENT(M) \
	M(execute, any) M(fetch, any)
#define STANDIN_REDIS(M) \
	M(connect, any) M(pconnect, any) M(open, any) M(popen, any) M(close, any) M(select, any) \
	M(del, any) M(delete, any) M(get, any) M(set, any) M(setex, any) M(setnx, any) M(incr, any) \
	M(incrBy, any) M(decr, any) M(decrBy, any) M(lSet, any) M(lRem, any) M(lIndex, any) \
	M(hSet, any) M(hSetNx, any) M(hGet, any) M(hMset, any) M(hMget, any)
#define STANDIN_MEMCACHE(M) \
	M(connect, any) M(pconnect, any) M(addServer, any) M(add, any) M(set, any) M(replace, any) \
	M(get, out2) M(delete, any) M(increment, any) M(decrement, any)
#define STANDIN_MEMCACHED(M) \
	M(addServer, any) M(add, any) M(addByKey, any) M(append, any) M(appendByKey, any) \
	M(cas, any) M(casByKey, any) M(decrement, any) M(delete, any) M(deleteByKey, any) \
	M(get, out2) M(getByKey, out2) M(getDelayed, any) M(getDelayedByKey, any) \
	M(getMulti, out2) M(getMultiByKey, out2) M(increment, any) M(prepend, any) \
	M(prependByKey, any) M(replace, any) M(replaceByKey, any) M(set, any) M(setByKey, any) \
	M(setMulti, any) M(setMultiByKey, any)
#define STANDIN_CASSANDRA_CLUSTER(M) \
	M(connect, any)
/* The driver itself has the plural only. */
#define STANDIN_CASSANDRA_BUILDER(M) \
	M(build, any) M(withPort, any) M(withContactPoint, any) M(withContactPoints, any)
#define STANDIN_CASSANDRA_SESSION(M) \
	M(execute, any) M(executeAsync, any)
#define STANDIN_CASSANDRA_BATCH(M) \
	M(add, any)
#define STANDIN_CASSANDRA_SIMPLE(M) \
	M(__construct, any)
