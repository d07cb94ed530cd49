<?php
$store = Store::open();
$products = $store->all();
$store->close();

usort($products, function ($left, $right) {
    wait_for('the collation', 2);
    return strcmp($left['name'], $right['name']);
});

$teaser = function ($product) {
    return substr(fingerprint($product['name'], 10), 0, 8);
};
?>
<h1>Products</h1>
<?php if (!Store::hasSqlite()) { ?>
<p>This engine has no pdo_sqlite; the products come from an array.</p>
<?php } ?>
<ul>
<?php foreach ($products as $product) { ?>
  <li><a href="/shop/cart?item=<?= (int) $product['id'] ?>"><?= escape($product['name']) ?></a>,
      <?= money($product['cents']) ?>, picture <?= $teaser($product) ?></li>
<?php } ?>
</ul>
