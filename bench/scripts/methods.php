<?php
// methods.php CALLS BLOCKS: an instance method that calls another one and a static one.
// Prints calls per block, then ns per call of each block.
abstract class Amount
{
    protected $cents = 0;

    public function cents()
    {
        return $this->cents;
    }
}

final class Basket extends Amount
{
    private static function rounded($cents)
    {
        return $cents - $cents % 5;
    }

    public function add($cents)
    {
        $this->cents = self::rounded($this->cents() + $cents);
    }
}

list(, $wanted, $blocks) = array_map('intval', $argv);
$rounds = intdiv($wanted, 3);
echo $rounds * 3, "\n";
while ($blocks-- > 0) {
    $basket = new Basket();
    $begin = microtime(true);
    for ($i = 0; $i < $rounds; $i++) {
        $basket->add(7);
    }
    printf("%.3f\n", (microtime(true) - $begin) * 1e9 / ($rounds * 3));
}
