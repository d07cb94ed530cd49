<?php
// sqlite.php TURNS BLOCKS [end]: a page's queries on a small table in memory; five of a turn's
// calls are wrapped. Prints ns per turn of each block. With "end", ends before request end.
list(, $turns, $blocks) = $argv;
$db = new PDO('sqlite::memory:');
$db->exec('CREATE TABLE item (id INTEGER PRIMARY KEY, name TEXT, stock INTEGER)');
for ($id = 0; $id < 100; $id++) {
    $db->exec("INSERT INTO item VALUES ($id, 'item number $id', 10)");
}
$find = $db->prepare('SELECT id, name, stock FROM item WHERE id = ?');
$found = 0;
for ($block = 0; $block < $blocks; $block++) {
    $begin = microtime(true);
    for ($i = 0; $i < $turns; $i++) {
        $find->execute(array($i % 100));
        $found += count($find->fetch(PDO::FETCH_ASSOC));
        $few = $db->query('SELECT id, name FROM item WHERE stock > 5 ORDER BY id LIMIT 3');
        $found += count($few->fetch(PDO::FETCH_NUM));
        $few = null;
        $db->exec('UPDATE item SET stock = 10 WHERE id = 7');
    }
    printf("%.1f\n", (microtime(true) - $begin) * 1e9 / $turns);
}
if ($found !== 5 * $turns * $blocks) {
    exit(1);
}
if (isset($argv[3])) {
    probe_end();
}
