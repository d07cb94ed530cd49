<?php
// recursion.php function|method DEPTH: prints "reached" at the bottom of that many calls.
function descend($left)
{
    return $left > 0 ? 1 + descend($left - 1) : 0;
}

class Stairs
{
    private $height = 1;

    public function descend($left)
    {
        return $left > 0 ? $this->height + $this->descend($left - 1) : 0;
    }
}

$depth = (int) $argv[2];
$stairs = new Stairs();
$reached = $argv[1] === 'method' ? $stairs->descend($depth) : descend($depth);
echo $reached === $depth ? 'reached' : 'lost', "\n";
