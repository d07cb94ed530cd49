--TEST--
Exceptions pass through every call, caught, rethrown and uncaught
--SKIPIF--
<?php if (!extension_loaded('kaq')) die('skip kaq is not loaded'); ?>
--FILE--
<?php
function thrower($text) { throw new RuntimeException($text); }
function relay($text) {
	try {
		thrower($text);
	} finally {
		echo "finally\n";
	}
}
try {
	relay('one');
} catch (RuntimeException $e) {
	echo $e->getMessage(), ' ', count($e->getTrace()), "\n";
}
relay('two');
?>
--EXPECTF--
finally
one 2
finally

Fatal error: Uncaught RuntimeException: two in %s:%d
Stack trace:
#0 %s(%d): thrower('two')
#1 %s(%d): relay('two')
#2 {main}
  thrown in %s on line %d
