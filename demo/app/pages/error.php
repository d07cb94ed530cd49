<?php
// Two things go wrong here on purpose: a notice, kept out of the log, and an exception.
@unserialize('half a cart');
$notice = error_get_last();

$store = Store::open();
$cart = new Cart($store);
try {
    $cart->add(2, 3);
    $cart->checkout();
    $message = 'Paid';
} catch (RuntimeException $e) {
    http_response_code(500);
    $message = $e->getMessage();
}
$store->close();
?>
<h1>Checkout</h1>
<p><?= escape($message) ?></p>
<p>Also: <?= escape($notice === null ? 'nothing' : $notice['message']) ?></p>
