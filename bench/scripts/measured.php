<?php
// What the scripts that run a library share. measure($iterations, $work) calls $work once to warm
// up and then $iterations times. Prints the user calls of an iteration (0 unless the probe counts
// them), microseconds of processor time of each iteration, separated by commas, the same of a fixed
// piece of arithmetic before the first and after each of them (0 unless the environment has
// BENCH_CALIBRATE), what user and system time have of an iteration on average, and a checksum of
// what $work returned, which has to be the same each time.
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

// How fast the processor is at the moment: the fastest of some rounds of arithmetic that neither
// calls user code nor leaves the processor's nearest cache.
function calibrate()
{
    static $block = null;
    if ($block === null) {
        $block = getenv('BENCH_CALIBRATE') ? str_repeat('0123456789abcdef', 1024) : '';
    }
    $best = 0;
    for ($round = 0; $block !== '' && $round < 5; $round++) {
        $begin = array_sum(used());
        for ($i = 0; $i < 32; $i++) {
            md5($block);
        }
        $taken = array_sum(used()) - $begin;
        $best = $best && $best < $taken ? $best : $taken;
    }
    return $best;
}

function measure($iterations, $work)
{
    $sum = md5($work());
    $profiler = start_profiler(getenv('BENCH_PROFILER'));
    $counts = function_exists('probe_calls');
    $calls = 0;
    $times = array();
    $user = $system = 0;
    $speeds = array(calibrate());
    for ($i = 0; $i < $iterations; $i++) {
        $begin = used();
        $calls -= $counts ? probe_calls() : 0;
        $text = $work();
        $calls += $counts ? probe_calls() : 0;
        $end = used();
        $times[] = array_sum($end) - array_sum($begin);
        $user += $end[0] - $begin[0];
        $system += $end[1] - $begin[1];
        if (md5($text) !== $sum) {
            exit('an iteration gave something else');
        }
        $speeds[] = calibrate();
    }
    if ($profiler) {
        $profiler->stop();
    }
    printf("%d %s %s %.1f %.1f %s\n", $calls / $iterations, implode(',', $times),
        implode(',', $speeds), $user / $iterations, $system / $iterations, $sum);
}
