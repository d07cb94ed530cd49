<?php
// curl.php exec|multi|poll URL SIZE RUNS BLOCKS [end]: SIZE transfers one after another on one
// handle; or of SIZE handles on one multi handle, RUNS times a block; or RUNS calls of
// curl_multi_exec while none of SIZE handles has an answer. Prints wall-clock and processor ns per
// transfer (poll: per handle and call) and the calls of curl_multi_exec per run, a line per block.
// With "end", ends before request end.
function processor_seconds()
{
    $usage = getrusage();
    return $usage['ru_utime.tv_sec'] + $usage['ru_stime.tv_sec']
        + ($usage['ru_utime.tv_usec'] + $usage['ru_stime.tv_usec']) / 1e6;
}

function new_handle($url)
{
    $handle = curl_init($url);
    curl_setopt($handle, CURLOPT_HTTPHEADER, array('Accept: text/plain', 'X-Shop: 7'));
    curl_setopt($handle, CURLOPT_RETURNTRANSFER, true);
    return $handle;
}

function new_multi($url, $size, &$handles)
{
    $multi = curl_multi_init();
    curl_multi_setopt($multi, MAX_TOTAL_CONNECTIONS, 20);
    $handles = array();
    for ($i = 0; $i < $size; $i++) {
        $handles[] = $handle = new_handle($url);
        curl_multi_add_handle($multi, $handle);
    }
    return $multi;
}

function end_multi($multi, $handles, $expected)
{
    $right = true;
    foreach ($handles as $handle) {
        $right = $right && (string) curl_multi_getcontent($handle) === $expected;
        curl_multi_remove_handle($multi, $handle);
        curl_close($handle);
    }
    curl_multi_close($multi);
    return $right;
}

function run_exec($handle, $size)
{
    $bytes = 0;
    for ($i = 0; $i < $size; $i++) {
        $bytes += strlen(curl_exec($handle));
    }
    return $bytes === 3 * $size ? 0 : -1;
}

function run_multi($url, $size)
{
    $multi = new_multi($url, $size, $handles);
    $calls = 0;
    do {
        $calls++;
        curl_multi_exec($multi, $running);
        if ($running) {
            curl_multi_select($multi, 1.0);
        }
    } while ($running);
    return end_multi($multi, $handles, "ok\n") ? $calls : -1;
}

function run_poll($multi, $size)
{
    curl_multi_exec($multi, $running);
    return $running === $size ? 1 : -1;
}

list(, $kind, $url, $size, $runs, $blocks) = $argv;
$size = (int) $size;
define('MAX_TOTAL_CONNECTIONS', 13);
if ($kind === 'exec') {
    $handle = new_handle($url);
    run_exec($handle, 1);
} elseif ($kind === 'poll') {
    $multi = new_multi($url . 'never', $size, $handles);
    for ($i = 0; $i < 20; $i++) {
        run_poll($multi, $size);
        usleep(1000);
    }
}
while ($blocks-- > 0) {
    $calls = 0;
    $processor = processor_seconds();
    $begin = microtime(true);
    for ($run = 0; $run < $runs; $run++) {
        switch ($kind) {
        case 'exec':
            $done = run_exec($handle, $size);
            break;
        case 'multi':
            $done = run_multi($url, $size);
            break;
        default:
            $done = run_poll($multi, $size);
        }
        if ($done < 0) {
            fwrite(STDERR, "a transfer went wrong\n");
            exit(1);
        }
        $calls += $done;
    }
    $transfers = $size * $runs;
    printf("%.1f %.1f %.1f\n", (microtime(true) - $begin) * 1e9 / $transfers,
        (processor_seconds() - $processor) * 1e9 / $transfers, $calls / $runs);
}
if (isset($argv[6])) {
    probe_end();
}
if ($kind === 'poll' && !end_multi($multi, $handles, '')) {
    exit(1);
}
