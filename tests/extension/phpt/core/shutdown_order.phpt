--TEST--
Shutdown functions, destructors and output buffers end as without the extension
--SKIPIF--
<?php if (!extension_loaded('kaq')) die('skip kaq is not loaded'); ?>
--FILE--
<?php
class Last {
	function __destruct() { echo "destructor\n"; }
}
$kept = new Last;
register_shutdown_function(function () {
	echo "first\n";
	register_shutdown_function(function () { echo "second\n"; });
});
ob_start(function ($text) { return strtoupper($text); });
echo "buffered\n";
?>
--EXPECT--
BUFFERED
FIRST
SECOND
DESTRUCTOR
