<?php
// Time that real applications spend: waiting for somebody, and computing.

function wait_for($what, $milliseconds)
{
    usleep($milliseconds * 1000);
    return $what;
}

function fingerprint($text, $milliseconds)
{
    $until = microtime(true) + $milliseconds / 1000;
    do {
        for ($round = 0; $round < 200; $round++) {
            $text = sha1($text . $round);
        }
    } while (microtime(true) < $until);
    return $text;
}
