<?php
// failures.php KIND COUNT: errors, exceptions of one class, or exceptions of many classes, from
// five calls deep. Prints ns per failure: of the first ten, and of the COUNT after these.
function deep($depth, $kind, $from, $to)
{
    return $depth > 1 ? deep($depth - 1, $kind, $from, $to) : fail($kind, $from, $to);
}

function fail($kind, $from, $to)
{
    if ($kind == 'errors') {
        for ($i = $from; $i < $to; $i++) {
            trigger_error('out of stock');
        }
        return;
    }
    for ($i = $from; $i < $to; $i++) {
        $class = $kind == 'classes' ? 'Failure' . $i % 10 : 'Failure0';
        try {
            throw new $class('out of stock');
        } catch (Exception $caught) {
        }
    }
}

ini_set('display_errors', '0');
ini_set('log_errors', '0');
for ($i = 0; $i < 10; $i++) {
    eval("class Failure$i extends Exception {}");
}
list(, $kind, $count) = $argv;
foreach (array(array(0, 10), array(10, 10 + $count)) as $range) {
    $begin = microtime(true);
    deep(4, $kind, $range[0], $range[1]);
    printf("%.1f\n", (microtime(true) - $begin) * 1e9 / ($range[1] - $range[0]));
}
