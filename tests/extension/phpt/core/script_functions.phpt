--TEST--
What the script functions return and print
--SKIPIF--
<?php if (!extension_loaded('kaq')) die('skip kaq is not loaded'); ?>
--INI--
kaq.stack_depth=3
--FILE--
<?php
$name = str_repeat('a b', mt_rand(2, 2));
var_dump(kaq_transaction_name($name), $name);
var_dump(kaq_transaction_name(str_repeat('?', 9000)));
var_dump(kaq_app_param_increment('x'), kaq_app_param_increment('x', 2.5));
var_dump(kaq_app_param_avg('5', 1), kaq_custom_params('k', 'v'), kaq_custom_params('k', 'w'));
var_dump(kaq_set_appname('shop'), kaq_set_appname('shop again'));
foreach ([8191, 8192, 9000, 1] as $length) {
	var_dump(kaq_set_session_id(str_repeat('s', $length)));
}
var_dump(kaq_agent_version(), kaq_span_id(), in_array(strlen(kaq_trace_id()), [0, 32]));
kaq_stack_depth();
echo "\n";
function f() {
	kaq_print_stacktrace();
}
ob_start();
f();
echo str_replace(str_replace('/', '\/', __DIR__), '', ob_get_clean()), "|\n";
var_dump(kaq_store_curl_response_headers(1, 'X-A: b'));
var_dump(kaq_store_curl_response_headers(1, ''));
var_dump(kaq_store_curl_response_headers(1));
var_dump(kaq_store_curl_response_headers());
?>
--EXPECTF--
NULL
string(6) "a_ba_b"
NULL
NULL
NULL
NULL
NULL
NULL
NULL
NULL
NULL
NULL
NULL
NULL
string(3) "4.9"
NULL
bool(true)
stack depth = 3<br>
kaq st: ["","kaq_print_stacktrace","\/%s.php",15],["","f","\/%s.php",18]	|
int(6)
int(0)
int(0)
int(0)
