<?php
// What the scripts that run a library share. measure($iterations, $work) calls $work once to warm
// up and then $iterations times. Prints the user calls of an iteration (0 unless the probe counts
// them), microseconds of user and of system time of an iteration, and a checksum of what $work
// returned, which has to be the same each time.
// With the environment's BENCH_PROFILER the named profiler runs from the end of the warm-up on.

// The libraries are older than the newest engine and have it complain, in each variant alike.
error_reporting(E_ALL & ~E_DEPRECATED & ~E_NOTICE & ~E_WARNING);

function start_profiler($name)
{
    if ($name === 'tideways_xhprof') {
        tideways_xhprof_enable();
    } elseif ($name === 'excimer') {
        $profiler = new ExcimerProfiler();
        $profiler->start();
        return $profiler;
    } elseif ($name === 'xdebug' && ini_get('xdebug.mode') !== 'profile') {
        exit('xdebug does not profile');
    }
    return null;
}

function measure($iterations, $work)
{
    $sum = md5($work());
    $profiler = start_profiler(getenv('BENCH_PROFILER'));
    $counts = function_exists('probe_calls');
    $calls = $counts ? probe_calls() : 0;
    $before = getrusage();
    for ($i = 0; $i < $iterations; $i++) {
        if (md5($work()) !== $sum) {
            exit('an iteration gave something else');
        }
    }
    $after = getrusage();
    $calls = $counts ? (probe_calls() - $calls) / $iterations : 0;
    $times = array();
    foreach (array('ru_utime', 'ru_stime') as $name) {
        $times[] = (($after["$name.tv_sec"] - $before["$name.tv_sec"]) * 1e6
            + $after["$name.tv_usec"] - $before["$name.tv_usec"]) / $iterations;
    }
    printf("%d %.1f %.1f %s\n", $calls, $times[0], $times[1], $sum);
}
