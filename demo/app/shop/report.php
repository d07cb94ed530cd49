<?php
// Sums over a tree of departments (recursion), each leaf worked out by a closure.

function departments()
{
    return [
        'kitchen' => ['pots' => 3, 'machines' => ['kettles' => 2, 'mixers' => 4]],
        'light' => ['lamps' => 2],
    ];
}

function department_total($department, callable $leaf)
{
    if (!is_array($department)) {
        return $leaf($department);
    }
    $sum = 0;
    foreach ($department as $part) {
        $sum += department_total($part, $leaf);
    }
    return $sum;
}

function months($count)
{
    for ($month = 1; $month <= $count; $month++) {
        wait_for('the archive', 70);
        yield $month;
    }
}

function yearly_report($price)
{
    $leaf = function ($pieces) use ($price) {
        fingerprint('leaf', 10 + $pieces);
        return $pieces * $price;
    };
    $total = department_total(departments(), $leaf);
    $sum = 0;
    foreach (months(3) as $month) {
        $sum += $total * $month;
    }
    return $sum;
}
