--TEST--
Twenty thousand nested calls do not exhaust the C stack
--SKIPIF--
<?php
if (!extension_loaded('kaq')) die('skip kaq is not loaded');
if (getenv('ASAN_OPTIONS')) die('skip stack frames are several times as large in this engine');
?>
--INI--
memory_limit=512M
--FILE--
<?php
function down($n) { return $n === 0 ? 0 : 1 + down($n - 1); }
echo down(20000), "\n";
?>
--EXPECT--
20000
