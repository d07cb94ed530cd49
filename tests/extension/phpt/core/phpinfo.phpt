--TEST--
phpinfo has three rows of the module's own and then the settings
--SKIPIF--
<?php if (!extension_loaded('kaq')) die('skip kaq is not loaded'); ?>
--FILE--
<?php
ob_start();
phpinfo(INFO_MODULES);
$text = ob_get_clean();
$start = strpos($text, "\nkaq\n");
$section = substr($text, $start + 1);
$lines = array_values(array_filter(explode("\n", $section), 'strlen'));
echo implode("\n", array_slice($lines, 0, 6)), "\n";
echo implode("\n", array_map(function ($line) {
	return explode(' => ', $line)[0];
}, array_slice($lines, 6, 30))), "\n";
?>
--EXPECT--
kaq
key => value
kaq.version => 4.9
kaq.version_info => 4.9.2.0
kaq.date => 15 May 2026
Directive => Local Value => Master Value
kaq.application_group
kaq.application_name
kaq.capture_cassandra
kaq.capture_clirequest
kaq.capture_distributed_trace
kaq.capture_http
kaq.capture_httpcall_metadata
kaq.capture_memcached
kaq.capture_mssql
kaq.capture_mysql
kaq.capture_oracle
kaq.capture_pdo
kaq.capture_postgres
kaq.capture_redis
kaq.data_port
kaq.enable_auto_rum
kaq.exclude_ports
kaq.include_ports
kaq.method_threshold
kaq.prune_intermediate_spans
kaq.remote_exporter_hostname
kaq.remote_exporter_ip
kaq.span_limit
kaq.stack_depth
kaq.status_port
kaq.track_errors
kaq.track_exceptions
kaq.track_zend_execute
kaq.track_zend_execute_internal
kaq.use_static_port
