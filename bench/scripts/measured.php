<?php
// What the scripts that run a library share. measure($iterations, $work) calls $work once to warm
// up and then $iterations times. Prints the user calls of an iteration (0 unless the probe counts
// them), microseconds of processor time of the fastest iteration, what user and system time have of
// an iteration on average, and a checksum of what $work returned, which has to be the same each time.
// With the environment's BENCH_PROFILER the named profiler runs from the end of the warm-up on.

// The libraries are older than the newest engine and have it complain, in each variant alike.
error_reporting(E_ALL & ~E_DEPRECATED & ~E_NOTICE & ~E_WARNING);

function start_profiler($name)
{
    if ($name === 'tideways_xhprof') {
        tideways_xhprof_enable();
    } elseif ($name === 'excimer') {
        $profiler = new ExcimerProfiler();
        $profiler->setPeriod(0.01);
        $profiler->start();
        return $profiler;
    } elseif ($name === 'xdebug' && ini_get('xdebug.mode') !== 'profile') {
        exit('xdebug does not profile');
    }
    return null;
}

// Microseconds of user and of system time so far. The kernel may tell them apart by samples, some
// milliseconds apart; their sum is exact.
function used()
{
    $usage = getrusage();
    return array($usage['ru_utime.tv_sec'] * 1e6 + $usage['ru_utime.tv_usec'],
        $usage['ru_stime.tv_sec'] * 1e6 + $usage['ru_stime.tv_usec']);
}

function measure($iterations, $work)
{
    $sum = md5($work());
    $profiler = start_profiler(getenv('BENCH_PROFILER'));
    $counts = function_exists('probe_calls');
    $calls = $counts ? probe_calls() : 0;
    $times = array();
    $begin = $end = used();
    for ($i = 0; $i < $iterations; $i++) {
        $text = $work();
        $before = array_sum($end);
        $end = used();
        $times[] = array_sum($end) - $before;
        if (md5($text) !== $sum) {
            exit('an iteration gave something else');
        }
    }
    if ($profiler) {
        $profiler->stop();
    }
    $calls = $counts ? (probe_calls() - $calls) / $iterations : 0;
    printf("%d %.1f %.1f %.1f %s\n", $calls, min($times), ($end[0] - $begin[0]) / $iterations,
        ($end[1] - $begin[1]) / $iterations, $sum);
}
