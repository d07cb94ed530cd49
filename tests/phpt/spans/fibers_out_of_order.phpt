--TEST--
Calls of fibers that end in another order than they began do not hold up the request
--SKIPIF--
<?php
if (!extension_loaded('kaq')) die('skip kaq is not loaded');
if (!class_exists('Fiber')) die('skip no fibers in this engine');
?>
--INI--
kaq.method_threshold=0
--FILE--
<?php
function waits() { usleep(1000); Fiber::suspend(); inner(); }
function inner() { usleep(1000); }
function ends(Fiber $fiber) { usleep(1000); $fiber->resume(); }
for ($i = 0; $i < 20; $i++) {
	$fiber = new Fiber('waits');
	$fiber->start();
	ends($fiber);
}
$left = new Fiber('waits');
$left->start();
function other() { inner(); return 'done'; }
echo other(), "\n";
?>
--EXPECT--
done
