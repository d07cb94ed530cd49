"""Cost per wrapped call, against the same function under a name that is not wrapped."""
import os
import subprocess
import time

import harness
from harness import BARE, KEPT, LIMIT, UNMONITORED, BenchError

VARIANTS = (BARE, UNMONITORED, LIMIT, KEPT)

# What is called: a title, the script's arguments, and the calls of a block, of which fewer are
# affordable where each leaves a span.
KINDS = {
    "names": ("names only", ("names", "0"), 200000, 5000),
    "query100": ("query of 100 bytes", ("query", "100"), 100000, 5000),
    "query10k": ("query of 10 kB", ("query", "10000"), 100000, 500),
}
LOOPS = {"sqlite": "PDO SQLite, 5 wrapped calls", "redis": "Redis, 4 wrapped calls"}
BLOCKS = 7
_MODULES = {
    "curl": ((), ("curl.so",)),
    "pdo_sqlite": ((), ("pdo.so", "pdo_sqlite.so")),
    "redis": ((), ("{drivers}/redis.so",), ("redis.so",), ("igbinary.so", "redis.so"),
              ("igbinary.so", "msgpack.so", "redis.so")),
}


def _command(setup, variant, script, *words, modules=()):
    return ([setup.php] + setup.wrapped_arguments(variant, modules) + [setup.script(script)]
            + [str(word) for word in words])


def _check(setup):
    """The calls of the recorded variants reach the collector, those of the others do not."""
    calls = 50
    for variant in VARIANTS:
        before = setup.collector.counts()
        harness.output(_command(setup, variant, "wrapped.php", "query", 1000, calls, 1))
        if variant in (LIMIT, KEPT) and not setup.collector.transactions_reach(before[0] + 1):
            raise BenchError("%s: no transaction arrived" % variant)
        grown = setup.collector.counts()[2] - before[2]
        if (grown > 1000 * calls) != (variant == KEPT):
            raise BenchError("%s: the payload has %d bytes" % (variant, grown))


def time_calls(setup, rounds):
    """{kind: {variant: [(ns unwrapped, ns wrapped), best of each round]}}."""
    _check(setup)
    times = {kind: {variant: [] for variant in VARIANTS} for kind in KINDS}
    for turn in range(rounds):
        harness.progress("per wrapped call: round %d of %d" % (turn + 1, rounds))
        for kind, (_, words, calls, kept_calls) in KINDS.items():
            for variant in harness.rotated(VARIANTS, turn):
                size = kept_calls if variant == KEPT else calls
                lines = harness.output(_command(setup, variant, "wrapped.php", *words, size,
                                                BLOCKS)).splitlines()
                blocks = [tuple(float(word) for word in line.split()) for line in lines]
                times[kind][variant].append(tuple(min(side) for side in zip(*blocks)))
    return times


def modules_of(setup, name):
    """What to load for a driver, or None if the engine has none."""
    for candidate in _MODULES[name]:
        modules = [module.format(drivers=setup.drivers) for module in candidate]
        options = [word for module in modules for word in ("-d", "extension=" + module)]
        if all(os.path.exists(module) for module in modules if "/" in module):
            done = harness.child([setup.php, "-n"] + options
                                 + ["-r", "exit(extension_loaded('%s') ? 0 : 3);" % name])
            if done.returncode == 0:
                return modules
    return None


class RedisServer:
    """A server of the benchmark's own, on a socket in the scratch directory."""

    def __init__(self, setup):
        self.socket = os.path.join(setup.scratch, "redis.sock")
        self._child = subprocess.Popen(
            [setup.redis_server, "--port", "0", "--unixsocket", self.socket, "--save", "",
             "--appendonly", "no", "--daemonize", "no", "--dir", setup.scratch],
            stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        deadline = time.monotonic() + 10
        while not os.path.exists(self.socket):
            if self._child.poll() is not None or time.monotonic() > deadline:
                self.stop()
                raise BenchError("redis-server did not start")
            time.sleep(0.02)

    def stop(self):
        self._child.terminate()
        harness.wait_or_kill(self._child)


def _time_loop(setup, rounds, name, modules, words):
    """{variant: [ns per turn, best block of each round]}."""
    times = {variant: [] for variant in VARIANTS}
    for turn in range(rounds):
        harness.progress("%s loop: round %d of %d" % (name, turn + 1, rounds))
        for variant in harness.rotated(VARIANTS, turn):
            command = _command(setup, variant, name + ".php", *words, BLOCKS, modules=modules)
            text = harness.output(command)
            times[variant].append(min(float(line) for line in text.split()))
    return times


def time_loops(setup, rounds):
    """{loop: {variant: [ns per turn]}, or the reason why it was left out}."""
    result = {}
    modules = modules_of(setup, "pdo_sqlite")
    if modules is None:
        result["sqlite"] = "this engine has no PDO driver for SQLite"
    else:
        result["sqlite"] = _time_loop(setup, rounds, "sqlite", modules, (1000,))
    modules = modules_of(setup, "redis")
    if modules is None:
        result["redis"] = "this engine has no Redis driver (script/drivers)"
    elif not setup.redis_server:
        result["redis"] = "there is no redis-server"
    else:
        server = RedisServer(setup)
        try:
            result["redis"] = _time_loop(setup, rounds, "redis", modules, (server.socket, 500))
        finally:
            server.stop()
    return result


def _instructions(setup, commands, lengths):
    short, long = (harness.instructions(command, setup.scratch) for command in commands)
    return (long - short) / (lengths[1] - lengths[0])


def count_instructions(setup):
    """{kind: {variant: instructions per call}}; the bare engine's is the plain function's."""
    lengths = (200, 1200)
    counts = {}
    for kind, (title, words, _, _) in KINDS.items():
        harness.progress("instructions: wrapped, " + title)
        counts[kind] = {}
        for variant in VARIANTS:
            side = "plain" if variant == BARE else "wrapped"
            commands = [_command(setup, variant, "wrapped.php", *words, calls, 1, side)
                        for calls in lengths]
            counts[kind][variant] = _instructions(setup, commands, lengths)
    modules = modules_of(setup, "pdo_sqlite")
    if modules is not None:
        harness.progress("instructions: " + LOOPS["sqlite"])
        counts["sqlite"] = {}
        for variant in VARIANTS:
            commands = [_command(setup, variant, "sqlite.php", turns, 1, "end", modules=modules)
                        for turns in lengths]
            counts["sqlite"][variant] = _instructions(setup, commands, lengths)
    return counts
