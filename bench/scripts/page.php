<?php
// A page that makes as many user calls as its query string says.
function step($i)
{
    return $i + 1;
}

$sum = 0;
for ($i = (int) $_SERVER['QUERY_STRING']; $i > 0; $i--) {
    $sum = step($sum);
}
echo '<p>', $sum, "</p>\n";
