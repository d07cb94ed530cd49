--TEST--
A script that fills its memory to the last byte ends with the engine's message alone
--SKIPIF--
<?php
if (!extension_loaded('kaq')) die('skip kaq is not loaded');
if (getenv('USE_ZEND_ALLOC') === '0') die('skip no memory_limit without the engine\'s allocator');
?>
--INI--
memory_limit=4M
--FILE--
<?php
function fill($level) {
	if ($level > 0) {
		fill($level - 1);
	}
	$slots = new SplFixedArray(100000);
	for ($i = 0; true; $i++) {
		$slots[$i] = str_repeat('x', 30 + $i % 3);
	}
}
fill(10);
?>
--EXPECTF--

Fatal error: Allowed memory size of 4194304 bytes exhausted%s(tried to allocate %d bytes) in %s on line %d
