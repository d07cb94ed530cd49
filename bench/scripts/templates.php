<?php
// templates.php LIBRARY PAGES ITERATIONS COMPILED: renders pages of a shop with the template engine,
// whose compiled templates are kept in the directory COMPILED. See measured.php.
require __DIR__ . '/measured.php';

list(, $library, $pages, $iterations, $compiled) = $argv;
date_default_timezone_set('UTC');
require $library . '/Smarty.class.php';

function products($count)
{
    $products = array();
    for ($i = 0; $i < $count; $i++) {
        $products[] = array(
            'id' => $i,
            'name' => "Lamp & shade no. $i",
            'cents' => 1995 + 250 * $i,
            'text' => str_repeat("A lamp <for> the table, \"made\" of brass. ", 1 + $i % 4),
            'sizes' => array('s' => 'small', 'm' => 'middle', 'l' => 'large'),
            'tags' => array('brass', 'light', "shelf $i"),
        );
    }
    return $products;
}

$menu = array('Shop' => array('Lamps' => array('Table' => array(), 'Floor' => array()),
    'Chairs' => array('Oak' => array(), 'Ash' => array())), 'About us' => array('Team' => array()));
$products = products(20);
measure((int) $iterations, function () use ($pages, $compiled, $menu, $products) {
    $text = '';
    for ($page = 1; $page <= $pages; $page++) {
        $smarty = new Smarty();
        $smarty->setTemplateDir(__DIR__ . '/templates');
        $smarty->setCompileDir($compiled);
        $smarty->error_reporting = error_reporting();
        $smarty->assign('page', $page);
        $smarty->assign('menu', $menu);
        $smarty->assign('products', $products);
        $text .= $smarty->fetch('page.tpl');
    }
    return $text;
});
