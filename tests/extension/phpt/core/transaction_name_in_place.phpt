--TEST--
Naming a transaction changes the caller's variable, and nothing that shares its text
--SKIPIF--
<?php if (!extension_loaded('kaq')) die('skip kaq is not loaded'); ?>
--FILE--
<?php
class Held {
	const TEXT = 'a b?c';
	static $shared = 'a b?c';
	public $text;
	function __construct($text) { $this->text = $text; }
	function __toString() { return $this->text; }
}
function made() {
	return str_repeat('a b?c', mt_rand(1, 1));
}
function by_default($text = 'a b?c') {
	kaq_transaction_name($text);
	return $text;
}
function show($what, ...$values) {
	echo $what, ': ', json_encode($values), "\n";
}
function variables() {
	$n = $m = made(); kaq_transaction_name($n); show('shared copy', $n, $m);
	show('literal', by_default(), by_default(), 'a b?c');
	$n = made(); $a = [$n => 1]; kaq_transaction_name($n);
	show('key', $n, $a, isset($a['a b?c']), isset($a['a_b_c']));
	foreach ($a as $k => $v) { kaq_transaction_name($k); show('foreach', $k, $a, isset($a['a b?c'])); }
	$n = made(); $r = &$n; kaq_transaction_name($r); show('reference', $n);
	extract(['x' => made()]); kaq_transaction_name($x); show('extract', $x);
	$n = made(); $held = [$n]; kaq_transaction_name($n); $n = null; show('let go', $held);
}
function elements() {
	$a = ['k' => made()]; kaq_transaction_name($a['k']); show('own', $a);
	$n = made(); $a = ['k' => &$n]; kaq_transaction_name($a['k']); show('reference', $a, $n);
	$a = ['k' => new Held(made())]; kaq_transaction_name($a['k']); show('object', $a['k']->text);
	$a = ['k' => 'a b?c']; kaq_transaction_name($a['k']); show('literals', $a);
}
function others() {
	$o = new Held(made()); kaq_transaction_name($o->text); kaq_transaction_name($o);
	kaq_transaction_name(Held::$shared); kaq_transaction_name(Held::TEXT);
	show('properties', $o->text, Held::$shared, Held::TEXT);
	$_SERVER['X'] = made(); kaq_transaction_name($_SERVER['X']); show('server', $_SERVER['X']);
	$n = made(); kaq_transaction_name($n . ''); call_user_func('kaq_transaction_name', $n);
	kaq_transaction_name(...[$n]); show('not passed', $n);
}
for ($i = 0; $i < 2; $i++) {
	ob_start();
	variables();
	elements();
	others();
	$runs[$i] = ob_get_clean();
}
echo $runs[0];
var_dump($runs[1] === $runs[0]);
?>
--EXPECT--
shared copy: ["a_b_c","a b?c"]
literal: ["a_b_c","a_b_c","a b?c"]
key: ["a_b_c",{"a b?c":1},true,false]
foreach: ["a_b_c",{"a b?c":1},true]
reference: ["a_b_c"]
extract: ["a_b_c"]
let go: [["a b?c"]]
own: [{"k":"a b?c"}]
reference: [{"k":"a b?c"},"a b?c"]
object: ["a b?c"]
literals: [{"k":"a b?c"}]
properties: ["a b?c","a b?c","a b?c"]
server: ["a b?c"]
not passed: ["a b?c"]
bool(true)
