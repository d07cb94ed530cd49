<?php

class Cart
{
    private $store;
    private $lines = [];

    public function __construct(Store $store)
    {
        $this->store = $store;
    }

    public function add($id, $count)
    {
        $product = $this->store->find($id);
        if ($product === null) {
            throw new OutOfBoundsException("No product has the number $id");
        }
        $price = $count > 1 ? new VolumePrice($product['cents']) : new FixedPrice($product['cents']);
        $this->lines[] = ['name' => $product['name'], 'count' => $count, 'price' => $price];
    }

    public function total()
    {
        $sum = 0;
        foreach ($this->lines as $line) {
            $sum += $line['price']->total($line['count']);
        }
        return $sum;
    }

    public function checkout()
    {
        $this->reserve();
        return $this->pay($this->total());
    }

    private function reserve()
    {
        wait_for('the warehouse', 18);
    }

    private function pay($cents)
    {
        wait_for('the bank', 25);
        throw new RuntimeException("The bank declined $cents cents");
    }
}
