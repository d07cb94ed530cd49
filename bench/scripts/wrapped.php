<?php
// wrapped.php names|query BYTES CALLS BLOCKS [plain|wrapped]: a function and its wrapped twin in
// turn. Prints ns per call of both, a line per block. With a side, runs that one only and ends
// before request end.
function names_plain($calls, $text)
{
    for ($i = 0; $i < $calls; $i++) {
        probe_call();
    }
}

function names_wrapped($calls, $text)
{
    for ($i = 0; $i < $calls; $i++) {
        oci_execute();
    }
}

function query_plain($calls, $text)
{
    for ($i = 0; $i < $calls; $i++) {
        probe_query($text);
    }
}

function query_wrapped($calls, $text)
{
    for ($i = 0; $i < $calls; $i++) {
        mysql_query($text);
    }
}

function time_of($function, $calls, $text)
{
    $begin = microtime(true);
    $function($calls, $text);
    return (microtime(true) - $begin) * 1e9 / $calls;
}

list(, $kind, $bytes, $calls, $blocks) = $argv;
$text = str_pad('SELECT ', (int) $bytes, 'name, ');
// The first call may be recorded whatever the limit is.
oci_execute();
if (isset($argv[5])) {
    time_of($kind . '_' . $argv[5], (int) $calls, $text);
    probe_end();
}
while ($blocks-- > 0) {
    $plain = time_of($kind . '_plain', (int) $calls, $text);
    $wrapped = time_of($kind . '_wrapped', (int) $calls, $text);
    printf("%.3f %.3f\n", $plain, $wrapped);
}
