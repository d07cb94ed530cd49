<?php
// The service that knows the warehouse:  php -S 127.0.0.1:8082 demo/services/stock.php
error_reporting(E_ALL);
ini_set('display_errors', '0');

require __DIR__ . '/client.php';

function pieces_left($item)
{
    usleep(30000);
    return ['pieces' => 4 * $item];
}

function delivery_of($item)
{
    usleep(45000);
    return ['days' => 1 + $item];
}

$page = page_wanted(['/left' => 'pieces_left', '/delivery' => 'delivery_of']);
header('Content-Type: application/json');
echo json_encode($page(item_wanted()));
