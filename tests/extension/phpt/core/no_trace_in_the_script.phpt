--TEST--
A script finds no function, class, constant, global or last error of ours
--SKIPIF--
<?php if (!extension_loaded('kaq')) die('skip kaq is not loaded'); ?>
--FILE--
<?php
var_dump(error_get_last());
var_dump(json_last_error());
var_dump(headers_list() === [] || count(preg_grep('/kaq|trace/i', headers_list())) === 0);
var_dump(ob_get_level());
var_dump(count(preg_grep('/kaq/i', array_keys($GLOBALS))));
var_dump(count(preg_grep('/kaq/i', get_declared_classes())));
var_dump(count(preg_grep('/kaq/i', array_keys(get_defined_constants()))));
?>
--EXPECT--
NULL
int(0)
bool(true)
int(0)
int(0)
int(0)
int(0)
