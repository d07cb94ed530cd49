<?php
$item = isset($_GET['item']) ? (int) $_GET['item'] : 1;
$store = Store::open();
$cart = new Cart($store);
$problem = null;
try {
    $cart->add($item, 1);
    $cart->add(4, 5);
} catch (OutOfBoundsException $e) {
    http_response_code(404);
    $problem = $e->getMessage();
}
$store->close();
?>
<h1>Cart</h1>
<?php if ($problem !== null) { ?>
<p><?= escape($problem) ?></p>
<?php } else { ?>
<p>Total <?= money($cart->total()) ?></p>
<?php } ?>
