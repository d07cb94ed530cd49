--TEST--
Generators that are abandoned or destroyed in mid-run end quietly
--SKIPIF--
<?php if (!extension_loaded('kaq')) die('skip kaq is not loaded'); ?>
--FILE--
<?php
function endless() {
	try {
		while (true) yield inner();
	} finally {
		echo "closed\n";
	}
}
function inner() { return 1; }
$a = endless();
$a->current();
$b = endless();
foreach ($b as $value) { if ($value) break; }
unset($a);
echo "end\n";
?>
--EXPECT--
closed
end
closed
