--TEST--
Fibers that switch in the middle of calls run as without the extension
--SKIPIF--
<?php
if (!extension_loaded('kaq')) die('skip kaq is not loaded');
if (!class_exists('Fiber')) die('skip no fibers in this engine');
?>
--FILE--
<?php
function worker($name) {
	for ($i = 0; $i < 3; $i++) {
		step($name, $i);
	}
	return "$name done";
}
function step($name, $i) {
	Fiber::suspend("$name$i");
}
function run(array $fibers) {
	foreach ($fibers as $name => $fiber) echo $fiber->start($name), "\n";
	while ($fibers) {
		foreach ($fibers as $name => $fiber) {
			$value = $fiber->resume();
			if ($fiber->isTerminated()) {
				echo $fiber->getReturn(), "\n";
				unset($fibers[$name]);
			} else {
				echo $value, "\n";
			}
		}
	}
}
run(['a' => new Fiber('worker'), 'b' => new Fiber('worker')]);
$left = new Fiber('worker');
$left->start('c');
echo "end\n";
?>
--EXPECT--
a0
b0
a1
b1
a2
b2
a done
b done
end
