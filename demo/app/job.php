<?php
// A command-line job:  php job.php nightly --orders=2
error_reporting(E_ALL);

require __DIR__ . '/shop/work.php';
require __DIR__ . '/shop/prices.php';
require __DIR__ . '/shop/store.php';
require __DIR__ . '/shop/cart.php';

function orders_wanted($arguments)
{
    foreach ($arguments as $argument) {
        if (strpos($argument, '--orders=') === 0) {
            return max(1, (int) substr($argument, strlen('--orders=')));
        }
    }
    return 3;
}

function book(Store $store, $number)
{
    $cart = new Cart($store);
    $cart->add(1 + $number % 5, 1 + $number % 2);
    return $cart->total();
}

function close_day(array $totals)
{
    return fingerprint(implode(',', $totals), 20);
}

function main_job($arguments)
{
    $store = Store::open();
    $totals = [];
    for ($number = 0; $number < orders_wanted($arguments); $number++) {
        $totals[] = book($store, $number);
    }
    $store->close();
    $seal = substr(close_day($totals), 0, 12);
    echo count($totals), ' orders booked, ', array_sum($totals), ' cents, seal ', $seal, "\n";
}

main_job($argv);
