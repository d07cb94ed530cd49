<?php

function escape($text)
{
    return htmlspecialchars((string) $text, ENT_QUOTES, 'UTF-8');
}

function money($cents)
{
    return number_format($cents / 100, 2);
}

function layout($page, $body)
{
    header('Content-Type: text/html; charset=utf-8');
    echo '<!doctype html><meta charset="utf-8"><title>Demo shop: ', escape($page), '</title>', "\n";
    echo '<p><a href="/">Products</a> <a href="/shop/cart?item=3">Cart</a> ';
    echo '<a href="/report">Report</a> <a href="/order?item=3">Order</a> ';
    echo '<a href="/error">Error</a></p>', "\n", $body;
}
