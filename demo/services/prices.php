<?php
// The service that knows prices:  php -S 127.0.0.1:8081 demo/services/prices.php
error_reporting(E_ALL);
ini_set('display_errors', '0');

require __DIR__ . '/../app/shop/work.php';
require __DIR__ . '/client.php';

function price_of($item)
{
    $left = ask(stock_url('/left?item=' . $item));
    fingerprint('price list', 20);
    return ['cents' => $left['pieces'] > 5 ? 8900 : 9900];
}

function discount_on($item)
{
    usleep(25000);
    return ['percent' => 5 + $item];
}

$page = page_wanted(['/price' => 'price_of', '/discount' => 'discount_on']);
header('Content-Type: application/json');
echo json_encode($page(item_wanted()));
