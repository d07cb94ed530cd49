--TEST--
A fatal error deep in calls shows the engine's own message and nothing else
--SKIPIF--
<?php
if (!extension_loaded('kaq')) die('skip kaq is not loaded');
if (getenv('USE_ZEND_ALLOC') === '0') die('skip no memory_limit without the engine\'s allocator');
?>
--INI--
memory_limit=8M
--FILE--
<?php
function deep($level) {
	return $level === 0 ? str_repeat('x', 64 << 20) : deep($level - 1);
}
register_shutdown_function(function () {
	echo "shutdown\n";
});
deep(10);
?>
--EXPECTF--

Fatal error: Allowed memory size of 8388608 bytes exhausted%s(tried to allocate %d bytes) in %s on line %d
shutdown
