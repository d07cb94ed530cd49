<?php
// The demo shop. It serves every page, also under PHP's built-in web server:
//   php -S 127.0.0.1:8080 demo/app/index.php
error_reporting(E_ALL);
ini_set('display_errors', '0');

require __DIR__ . '/shop/work.php';
require __DIR__ . '/shop/prices.php';
require __DIR__ . '/shop/store.php';
require __DIR__ . '/shop/cart.php';
require __DIR__ . '/shop/report.php';
require __DIR__ . '/../services/client.php';
require __DIR__ . '/pages/layout.php';

function route($path)
{
    $pages = [
        '/' => 'home',
        '/shop/cart' => 'cart',
        '/report' => 'report',
        '/order' => 'order',
        '/error' => 'error',
    ];
    return isset($pages[$path]) ? $pages[$path] : 'missing';
}

function serve($uri)
{
    $path = (string) parse_url($uri, PHP_URL_PATH);
    $page = route($path);
    ob_start();
    include __DIR__ . '/pages/' . $page . '.php';
    layout($page, ob_get_clean());
}

serve($_SERVER['REQUEST_URI']);
