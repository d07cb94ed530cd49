--TEST--
Ports that are none, and an address that is none, only lose data
--SKIPIF--
<?php if (!extension_loaded('kaq')) die('skip kaq is not loaded'); ?>
--INI--
kaq.status_port=-1
kaq.data_port=99999999999
kaq.remote_exporter_ip=not.an.address
--FILE--
<?php
function work() { return 'done'; }
echo work(), "\n";
?>
--EXPECT--
done
