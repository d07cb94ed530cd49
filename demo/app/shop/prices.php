<?php
// A small class hierarchy: how a price comes about.

abstract class Price
{
    protected $cents;

    public function __construct($cents)
    {
        $this->cents = $cents;
    }

    public function total($count)
    {
        return $this->round($this->perPiece($count) * $count);
    }

    abstract protected function perPiece($count);

    protected function round($cents)
    {
        return (int) round($cents);
    }
}

class FixedPrice extends Price
{
    protected function perPiece($count)
    {
        fingerprint('price list', 12);
        return $this->cents;
    }
}

class VolumePrice extends FixedPrice
{
    protected function perPiece($count)
    {
        return parent::perPiece($count) * (1 - static::discount($count));
    }

    protected static function discount($count)
    {
        wait_for('discount rules', 14);
        return min(0.3, 0.05 * $count);
    }
}
