--TEST--
Functions that the site has disabled are not called behind its back
--SKIPIF--
<?php if (!extension_loaded('kaq')) die('skip kaq is not loaded'); ?>
--INI--
disable_functions=json_decode,getallheaders
--FILE--
<?php
echo "quiet\n";
var_dump(error_get_last());
?>
--EXPECT--
quiet
NULL
