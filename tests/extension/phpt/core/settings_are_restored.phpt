--TEST--
A setting that a script changed and restored has its php.ini value again
--SKIPIF--
<?php if (!extension_loaded('kaq')) die('skip kaq is not loaded'); ?>
--INI--
kaq.application_name=shop
kaq.method_threshold=25
--FILE--
<?php
var_dump(ini_set('kaq.application_name', 'other'), ini_set('kaq.method_threshold', '3'));
ini_restore('kaq.application_name');
ini_restore('kaq.method_threshold');
var_dump(ini_get('kaq.application_name'), ini_get('kaq.method_threshold'));
?>
--EXPECT--
string(4) "shop"
string(2) "25"
string(4) "shop"
string(2) "25"
