--TEST--
A site that has disabled stdClass sees no warning of ours
--SKIPIF--
<?php if (!extension_loaded('kaq')) die('skip kaq is not loaded'); ?>
--INI--
disable_classes=stdclass
--FILE--
<?php
echo "quiet\n";
var_dump(error_get_last());
?>
--EXPECT--
quiet
NULL
