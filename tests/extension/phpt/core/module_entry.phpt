--TEST--
The module names itself, its version and its settings, and nothing else
--SKIPIF--
<?php if (!extension_loaded('kaq')) die('skip kaq is not loaded'); ?>
--FILE--
<?php
$module = new ReflectionExtension('kaq');
var_dump($module->getName(), $module->getVersion());
var_dump($module->getDependencies(), $module->getClassNames(), $module->getConstants());
var_dump(count($module->getINIEntries()));
var_dump(phpversion('kaq'));
?>
--EXPECT--
string(3) "kaq"
string(3) "4.9"
array(0) {
}
array(0) {
}
array(0) {
}
int(30)
string(3) "4.9"
