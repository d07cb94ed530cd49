--TEST--
Arguments, return values and objects keep their reference counts
--SKIPIF--
<?php if (!extension_loaded('kaq')) die('skip kaq is not loaded'); ?>
--FILE--
<?php
class Watched {
	function __destruct() { echo "gone\n"; }
}
function pass($x) { return $x; }
function drop($x) { $x = null; echo "dropped\n"; }
drop(new Watched);
$w = pass(pass(new Watched));
echo "kept\n";
$w = null;
$text = str_repeat('ab', 3);
pass($text);
debug_zval_refcount();
function debug_zval_refcount() {
	$inner = str_repeat('cd', 3);
	pass($inner);
	ob_start();
	debug_zval_dump($inner);
	echo trim(preg_replace('/.*refcount\((\d+)\).*/s', '$1', ob_get_clean())), "\n";
}
?>
--EXPECT--
gone
dropped
kept
gone
2
