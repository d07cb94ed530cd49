<?php
// redis.php SOCKET TURNS BLOCKS: four wrapped calls a turn. Prints ns per turn of each block.
list(, $socket, $turns, $blocks) = $argv;
$redis = new Redis();
$redis->connect($socket);
$redis->set('visits', '0');
$sum = 0;
for ($block = 0; $block < $blocks; $block++) {
    $begin = microtime(true);
    for ($i = 0; $i < $turns; $i++) {
        $redis->set('session:1', 'a session with some content');
        $sum += strlen($redis->get('session:1'));
        $redis->hSet('basket:1', 'item', '3');
        $sum += strlen($redis->hGet('basket:1', 'item'));
    }
    printf("%.1f\n", (microtime(true) - $begin) * 1e9 / $turns);
}
if ($sum !== 28 * $turns * $blocks) {
    exit(1);
}
