--TEST--
What the script does to the superglobals stays its own affair
--SKIPIF--
<?php if (!extension_loaded('kaq')) die('skip kaq is not loaded'); ?>
--FILE--
<?php
$_SERVER['REQUEST_URI'] = "/x\0y";
$_SERVER['argv'] = new stdClass;
$_REQUEST = ['a' => "\xff\xfe\0", 'b' => 1.5, 'c' => [1, [2, [3]]], -1 => fopen('php://memory', 'r')];
$_REQUEST['self'] = &$_REQUEST;
$_REQUEST['globals'] = $GLOBALS;
echo count($_REQUEST), "\n";
?>
--EXPECT--
6
