<?php
// fib.php N REPEAT BLOCKS: recursive Fibonacci. Prints calls per block, then ns per call of each.
function fib($n)
{
    return $n < 2 ? 1 : fib($n - 1) + fib($n - 2);
}

list(, $n, $repeat, $blocks) = array_map('intval', $argv);
$calls = (2 * fib($n) - 1) * $repeat;
echo $calls, "\n";
while ($blocks-- > 0) {
    $begin = microtime(true);
    for ($i = 0; $i < $repeat; $i++) {
        fib($n);
    }
    printf("%.3f\n", (microtime(true) - $begin) * 1e9 / $calls);
}
