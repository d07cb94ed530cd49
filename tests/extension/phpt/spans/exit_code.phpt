--TEST--
exit ten calls deep runs the shutdown functions and keeps its status
--SKIPIF--
<?php
if (!extension_loaded('kaq')) die('skip kaq is not loaded');
?>
--FILE--
<?php
function deep($level) {
	if ($level === 0) {
		echo "leaving\n";
		exit(0);
	}
	deep($level - 1);
	echo "never\n";
}
register_shutdown_function(function () {
	echo "shutdown\n";
	array_map(function ($n) { echo $n, "\n"; }, [1, 2]);
});
deep(10);
?>
--EXPECT--
leaving
shutdown
1
2
