--TEST--
Every setting has its default and may be changed at every level
--SKIPIF--
<?php if (!extension_loaded('kaq')) die('skip kaq is not loaded'); ?>
--INI--
kaq.status_port=20021
kaq.data_port=20022
--FILE--
<?php
foreach (ini_get_all('kaq') as $name => $setting) {
	printf("%s '%s' %d\n", $name, $setting['global_value'], $setting['access']);
}
?>
--EXPECT--
kaq.application_group '' 7
kaq.application_name 'PHP-Application' 7
kaq.capture_cassandra '1' 7
kaq.capture_clirequest '1' 7
kaq.capture_distributed_trace '0' 7
kaq.capture_http '1' 7
kaq.capture_httpcall_metadata '1' 7
kaq.capture_memcached '1' 7
kaq.capture_mssql '1' 7
kaq.capture_mysql '1' 7
kaq.capture_oracle '1' 7
kaq.capture_pdo '1' 7
kaq.capture_postgres '1' 7
kaq.capture_redis '1' 7
kaq.data_port '20022' 7
kaq.enable_auto_rum '1' 7
kaq.exclude_ports '' 7
kaq.include_ports '' 7
kaq.method_threshold '10' 7
kaq.prune_intermediate_spans '0' 7
kaq.remote_exporter_hostname '' 7
kaq.remote_exporter_ip '' 7
kaq.span_limit '10000' 7
kaq.stack_depth '15' 7
kaq.status_port '20021' 7
kaq.track_errors '1' 7
kaq.track_exceptions '1' 7
kaq.track_zend_execute '1' 7
kaq.track_zend_execute_internal '1' 7
kaq.use_static_port '' 7
