"""What every measurement needs: the programs, the variants, the collector, the arithmetic."""
import math
import os
import resource
import statistics
import subprocess
import sys
import time

CHILD_SECONDS = 300
STACK_BYTES = 8 * 1024 * 1024
KEEP_ALL = ("-d", "kaq.method_threshold=0", "-d", "kaq.span_limit=2000000000")

BARE, CHAIN, CLOCK, GATED, COUNT = "bare", "chain", "clock", "gated", "count"
UNMONITORED, DROPPED, KEPT = "unmonitored", "dropped", "kept"
LIMIT, TALK = "limit", "talk"
HOOK_OFF = "hook off"
TITLES = {
    BARE: "bare engine",
    CHAIN: "hook that only chains",
    CLOCK: "hook with two clock reads",
    GATED: "hook with two gated reads",
    HOOK_OFF: "kaq, track_zend_execute=0",
    UNMONITORED: "kaq, request not monitored",
    DROPPED: "kaq, short calls dropped",
    KEPT: "kaq, every span kept",
    LIMIT: "kaq, span limit reached",
}
VARIANTS = (BARE, CHAIN, CLOCK, GATED, UNMONITORED, DROPPED, KEPT)


class BenchError(Exception):
    """A measurement that could not be made, or one that measured something else."""


def progress(text):
    print("[bench] " + text, file=sys.stderr, flush=True)


def wait_or_kill(child, seconds=10):
    try:
        child.wait(seconds)
    except subprocess.TimeoutExpired:
        child.kill()
        child.wait()


class Listener:
    """A program of the benchmarks that prints "NAME PORT" for each of its ports, then answers each
    line with "NAME COUNT" for each of its counts, until its standard input ends."""

    def __init__(self, command, what, ports):
        self._child = subprocess.Popen(command, stdin=subprocess.PIPE, stdout=subprocess.PIPE,
                                       text=True)
        words = self._child.stdout.readline().split()
        if len(words) != 2 * ports:
            raise BenchError("%s did not start" % what)
        self.ports = [int(port) for port in words[1::2]]

    def counts(self):
        self._child.stdin.write("counts\n")
        self._child.stdin.flush()
        return tuple(int(word) for word in self._child.stdout.readline().split()[1::2])

    def stop(self):
        self._child.stdin.close()
        wait_or_kill(self._child)


class Collector(Listener):
    """The collector of the benchmarks. It counts transactions, notices, bytes, and bytes of
    questions, and with a snippet sends it along with each answer."""

    def __init__(self, program, *snippet):
        super().__init__([program, *snippet], "the collector", 3)
        self.monitored, self.unmonitored, self.data = self.ports

    def transactions_reach(self, expected, seconds=10.0):
        """Waits for the collector to have read what clients have sent already."""
        deadline = time.monotonic() + seconds
        while self.counts()[0] < expected:
            if time.monotonic() > deadline:
                return False
            time.sleep(0.01)
        return True


class Setup:
    """The programs of one engine, and the options that make each variant."""

    def __init__(self, options, collector, scratch):
        self.php = options.php
        self.php_cgi = options.php_cgi
        self.conversations = options.conversations
        self.encode = options.encode
        self.drivers = options.drivers
        self.redis_server = options.redis_server
        self.quick = options.quick
        self.extension_dir = options.extension_dir
        self.packages = options.packages
        self.collector = collector
        self.scratch = scratch
        self._kaq = options.kaq
        self._probe = options.probe

    def arguments(self, variant):
        base = ["-n", "-d", "memory_limit=-1", "-d", "display_errors=stderr"]
        if variant == BARE:
            return base
        if variant in (CHAIN, CLOCK, GATED, COUNT, TALK):
            return base + ["-d", "extension=" + self._probe, "-d", "probe.mode=" + variant]
        port = self.collector.unmonitored if variant == UNMONITORED else self.collector.monitored
        options = base + ["-d", "extension=" + self._kaq, "-d", "kaq.status_port=%d" % port,
                          "-d", "kaq.data_port=%d" % self.collector.data]
        if variant == LIMIT:
            return options + ["-d", "kaq.span_limit=1"]
        if variant == HOOK_OFF:
            return options + ["-d", "kaq.track_zend_execute=0"]
        return options + list(KEEP_ALL) if variant == KEPT else options

    def wrapped_arguments(self, variant, modules=()):
        """The same with the functions to be wrapped, and more modules."""
        options = self.arguments(variant) + ["-d", "extension=" + self._probe,
                                             "-d", "probe.mode=none"]
        for module in modules:
            options += ["-d", "extension=" + module]
        return options

    def script(self, name):
        return os.path.join(os.path.dirname(os.path.abspath(__file__)), "scripts", name)


def _usual_stack():
    hard = resource.getrlimit(resource.RLIMIT_STACK)[1]
    resource.setrlimit(resource.RLIMIT_STACK, (STACK_BYTES, hard))
    resource.setrlimit(resource.RLIMIT_CORE, (0, 0))


def _usual_stack_on_one_processor():
    _usual_stack()
    os.sched_setaffinity(0, {max(os.sched_getaffinity(0))})


def child(command, seconds=CHILD_SECONDS, environment=None, is_pinned=False):
    """Runs a program under a stack of 8 MB, on one processor if it is pinned; its completed
    process, whatever its status."""
    prepare = _usual_stack_on_one_processor if is_pinned else _usual_stack
    return subprocess.run(command, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                          stderr=subprocess.PIPE, text=True, errors="replace", timeout=seconds,
                          env=environment, preexec_fn=prepare)


def output(command, seconds=CHILD_SECONDS):
    """The standard output of a program that has to succeed."""
    done = child(command, seconds)
    if done.returncode != 0:
        raise BenchError("%s ended with %d: %s" % (" ".join(command), done.returncode,
                                                   (done.stderr or done.stdout)[-400:]))
    return done.stdout


def instructions(command, scratch, environment=None):
    """Instructions that a program executes, as callgrind counts them."""
    profile = os.path.join(scratch, "callgrind.out")
    done = child(["valgrind", "--tool=callgrind", "--callgrind-out-file=" + profile] + command,
                 environment=environment)
    if done.returncode != 0:
        raise BenchError("valgrind %s ended with %d: %s"
                         % (" ".join(command), done.returncode, done.stderr[-400:]))
    for line in done.stderr.splitlines():
        if "Collected :" in line:
            return int(line.split(":", 1)[1].split()[0])
    raise BenchError("callgrind told no count")


def rotated(items, turn):
    """The items from another one on in each round, so that none always runs first."""
    turn %= len(items)
    return items[turn:] + items[:turn]


def ratios(over, under):
    """Median of the rounds' ratios, and the ratio of the two minima."""
    return (statistics.median(a / b for a, b in zip(over, under)), min(over) / min(under))


def difference(over, under):
    """Median of the rounds' differences, and the bounds of an interval that holds the true median
    with at least 95 %; None for both bounds where there are fewer than six rounds.

    The bounds are two of the differences themselves, by rank: how many of them lie below the true
    median is binomial, whatever their distribution is."""
    sorted_ones = sorted(a - b for a, b in zip(over, under))
    count = len(sorted_ones)
    outside = 0
    rank = 0
    while outside + math.comb(count, rank) <= 0.025 * 2 ** count:
        outside += math.comb(count, rank)
        rank += 1
    bounds = (sorted_ones[rank - 1], sorted_ones[count - rank]) if rank else (None, None)
    return (statistics.median(sorted_ones), *bounds)
