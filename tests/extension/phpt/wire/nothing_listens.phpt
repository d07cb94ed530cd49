--TEST--
Without a collector the script runs as ever
--SKIPIF--
<?php if (!extension_loaded('kaq')) die('skip kaq is not loaded'); ?>
--INI--
kaq.status_port=1
kaq.data_port=1
--FILE--
<?php
function work() { return array_sum(range(1, 10)); }
echo work(), "\n";
?>
--EXPECT--
55
