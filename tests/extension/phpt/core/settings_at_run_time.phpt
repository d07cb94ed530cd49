--TEST--
Any value is taken at run time without a complaint, and the engine reads back what was set
--SKIPIF--
<?php if (!extension_loaded('kaq')) die('skip kaq is not loaded'); ?>
--FILE--
<?php
$values = ['', '-1', '0', '7', 'text', '12abc', '99999999999999999999', str_repeat('x', 20000)];
$refused = 0;
foreach (array_keys(ini_get_all('kaq')) as $name) {
	foreach ($values as $value) {
		if (ini_set($name, $value) === false || ini_get($name) !== $value) {
			$refused++;
			echo "$name refused ", substr($value, 0, 20), "\n";
		}
	}
	if (ini_set($name, "a\0b") === false) {
		$refused++;
	}
	ini_restore($name);
}
var_dump($refused);
?>
--EXPECT--
int(0)
