--TEST--
Every kind of user call returns what it returns without the extension
--SKIPIF--
<?php if (!extension_loaded('kaq')) die('skip kaq is not loaded'); ?>
--FILE--
<?php
function &by_reference(array &$list) { return $list[0]; }
function generate() { $got = yield 1; yield $got; return 9; }
function delegate() { $r = yield from generate(); yield $r; }
class Base {
	static function make() { return new static; }
	function __call($name, $args) { return "$name(" . implode(',', $args) . ')'; }
	static function __callStatic($name, $args) { return "static $name"; }
	function __invoke($x) { return $x * 2; }
	function __toString() { return get_class($this); }
	function __get($name) { return "got $name"; }
}
class Derived extends Base {}

$list = [1, 2];
$first = &by_reference($list);
$first = 5;
echo $list[0], "\n";
$g = delegate();
echo $g->current(), $g->send(4), $g->send(null), "\n";
$d = Derived::make();
echo $d, ' ', $d->anything(1, 2), ' ', Derived::other(), ' ', $d(21), ' ', $d->field, "\n";
echo implode(',', array_map(function ($x) use ($d) { return $d($x); }, [1, 2, 3])), "\n";
usort($list, function ($a, $b) { return $a - $b; });
echo implode(',', $list), "\n";
echo call_user_func_array([$d, '__invoke'], [4]), "\n";
echo eval('return (function () { return strtok(__FUNCTION__, ":}") . "}"; })();'), "\n";
function factorial($n) { return $n < 2 ? 1 : $n * factorial($n - 1); }
echo factorial(15), "\n";
spl_autoload_register(function ($class) { eval("class $class { const X = '$class'; }"); });
echo Loaded::X, "\n";
foreach (debug_backtrace() as $frame) echo "no frame expected\n";
function frames() { return count(debug_backtrace()); }
echo frames(), "\n";
?>
--EXPECT--
5
149
Derived anything(1,2) static other 42 got field
2,4,6
2,5
8
{closure}
1307674368000
Loaded
1
