--TEST--
With kaq.track_zend_execute=0 in php.ini nothing is hooked, whatever the script sets
--SKIPIF--
<?php if (!extension_loaded('kaq')) die('skip kaq is not loaded'); ?>
--INI--
kaq.track_zend_execute=0
kaq.track_errors=0
kaq.track_exceptions=0
memory_limit=1G
--FILE--
<?php
ini_set('kaq.track_zend_execute', '1');
/* Without a hook the engine needs no C stack for a user call: this depth needs that. */
function down($n) { return $n === 0 ? 0 : 1 + down($n - 1); }
echo down(1000000), "\n";
?>
--EXPECT--
1000000
