<?php
// Two other services are asked: first one after the other, on purpose, then both at once.
$item = isset($_GET['item']) ? (int) $_GET['item'] : 1;
$problem = null;
try {
    $stock = ask(stock_url('/left?item=' . $item));
    $price = ask(prices_url('/price?item=' . $item));
    $terms = ask_all([
        'delivery' => stock_url('/delivery?item=' . $item),
        'discount' => prices_url('/discount?item=' . $item),
    ]);
} catch (RuntimeException $e) {
    http_response_code(502);
    $problem = $e->getMessage();
}
?>
<h1>Order</h1>
<?php if ($problem !== null) { ?>
<p><?= escape($problem) ?></p>
<?php } else { ?>
<p><?= money($price['cents'] * (1 - $terms['discount']['percent'] / 100)) ?>,
   <?= (int) $stock['pieces'] ?> left,
   there in <?= (int) $terms['delivery']['days'] ?> days</p>
<?php } ?>
