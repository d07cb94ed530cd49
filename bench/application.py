"""Cost of a library at work without a server: a parser and a template engine, in one process each.

What is compared is the processor time that the script itself used, all variants by turns, round
by round. The machine's speed may wander by more than a variant costs, so each iteration is held
against a fixed piece of arithmetic right before and after it."""
import glob
import os
import re

import harness
from harness import (BARE, CHAIN, COUNT, DROPPED, GATED, HOOK_OFF, KEPT, UNMONITORED, BenchError)

BARE_AGAIN = "bare again"
PROFILERS = ("tideways_xhprof", "excimer", "xdebug")
TITLES = dict(harness.TITLES)
TITLES[BARE_AGAIN] = "bare engine, again"
TITLES.update((name, name) for name in PROFILERS)
TITLES["xdebug"] = "xdebug, mode profile"
TITLES["excimer"] = "excimer, a sample each 10 ms"
# Those that are compared with each other run one after the other.
VARIANTS = (BARE, BARE_AGAIN, HOOK_OFF, UNMONITORED, CHAIN, DROPPED, GATED, KEPT)
COUNTED = (BARE, CHAIN, GATED, UNMONITORED, DROPPED)

# A title, the size of an iteration where it is timed, and where its instructions are counted.
KINDS = {
    "parser": ("PHP-Parser reads and prints its sources", 100000, 15000),
    "templates": ("Smarty renders pages of a shop", 40, 10),
}
ITERATIONS = 12
# What keeps or writes something for every call.
HEAVY_ITERATIONS = 2
# Those that are slow, and that no target is about, run in the first of every three rounds.
RARE = (KEPT,) + PROFILERS
RARE_ROUNDS = slice(0, None, 3)


class Library:
    """The libraries of Debian's packages, unpacked, and how this engine runs them."""

    def __init__(self, setup):
        self._setup = setup
        self._modules = []
        for name in ("ctype", "tokenizer"):
            if not self._is_there(name, []):
                self._modules += ["-d", "extension=%s.so" % name]
                if not self._is_there(name, self._modules):
                    raise BenchError("this engine has no %s" % name)
        version = harness.output([setup.php, "-n", "-r", "echo PHP_VERSION_ID;"])
        # The newer one complains less of newer engines.
        smarty = "smarty4" if int(version) >= 70100 else "smarty3"
        self._paths = {"parser": self._path("php-parser"),
                       "templates": os.path.join(self._path(smarty), smarty)}
        opcache = os.path.join(setup.extension_dir, "opcache.so")
        is_built_in = self._is_there("Zend OPcache", [])
        self.opcache_states = (False, True) if is_built_in or os.path.exists(opcache) else (False,)
        self._opcache = ["-d", "opcache.enable_cli=1", "-d", "opcache.file_update_protection=0"]
        if not is_built_in:
            self._opcache += ["-d", "zend_extension=" + opcache]

    def _is_there(self, module, options):
        return harness.child([self._setup.php, "-n"] + options
                             + ["-r", "exit(extension_loaded('%s') ? 0 : 3);" % module]
                             ).returncode == 0

    def _path(self, package):
        return os.path.join(self._setup.packages, package, "usr/share/php")

    def profilers(self):
        """{name: path} of those that were built for this engine."""
        api = os.path.basename(self._setup.extension_dir)
        found = {}
        for name in PROFILERS:
            paths = glob.glob(os.path.join(self._setup.packages, "*/usr/lib/php", api,
                                           name + ".so"))
            if paths:
                found[name] = paths[0]
        return found

    def command(self, variant, kind, opcache, size, iterations):
        setup = self._setup
        profilers = self.profilers()
        known = BARE if variant in profilers or variant == BARE_AGAIN else variant
        command = [setup.php] + setup.arguments(known) + self._modules
        command += self._opcache if opcache else []
        if variant == "xdebug":
            command += ["-d", "zend_extension=" + profilers[variant], "-d", "xdebug.mode=profile",
                        "-d", "xdebug.start_with_request=yes",
                        "-d", "xdebug.output_dir=" + setup.scratch]
        elif variant in profilers:
            command += ["-d", "extension=" + profilers[variant]]
        compiled = os.path.join(setup.scratch, "templates")
        os.makedirs(compiled, exist_ok=True)
        return command + [setup.script(kind + ".php"), self._paths[kind], str(size),
                          str(iterations), compiled]

    @staticmethod
    def _output(variant, command):
        environment = dict(os.environ, BENCH_PROFILER=variant, BENCH_CALIBRATE="1")
        for _ in range(3 if variant in PROFILERS else 1):
            done = harness.child(command, environment=environment, is_pinned=True)
            if done.returncode == 0:
                return done.stdout
            # Some crash now and then when the process ends.
            harness.progress("%s ended with %d" % (variant, done.returncode))
        raise BenchError("%s ended with %d: %s" % (" ".join(command), done.returncode,
                                                   (done.stderr or done.stdout)[-400:]))

    def run(self, variant, kind, opcache, size, iterations):
        """Calls of an iteration; its processor time (the lower quartile, in units of the arithmetic
        beside it) with the user and system time of one on average in us; the us that the arithmetic took
        when it was fastest; and the checksum of what it gave."""
        text = self._output(variant, self.command(variant, kind, opcache, size, iterations))
        found = re.fullmatch(r"(\d+) ([\d.,]+) ([\d.,]+) (\S+) (\S+) ([0-9a-f]{32})\n", text)
        if not found:
            raise BenchError("%s, %s: %r" % (kind, variant, text[-200:]))
        for path in glob.glob(os.path.join(self._setup.scratch, "cachegrind.out.*")):
            os.remove(path)
        times, speeds = ([float(word) for word in found[at].split(",")] for at in (2, 3))
        if len(speeds) != len(times) + 1 or min(speeds) <= 0:
            raise BenchError("%s, %s: not measured: %r" % (kind, variant, text[-200:]))
        relative = sorted(2 * taken / (before + after) for taken, before, after
                          in zip(times, speeds, speeds[1:]))
        quartile = relative[len(relative) // 4]
        return (int(found[1]), (quartile, float(found[4]), float(found[5])), min(speeds),
                found[6])


def _check(setup, library, kind, opcache):
    """The user calls of a timed iteration. The collector gets of each variant what it should."""
    size = KINDS[kind][2]
    calls = library.run(COUNT, kind, opcache, size, 1)[0]
    if calls < 1000:
        raise BenchError("%s: only %d calls" % (kind, calls))
    for variant in (HOOK_OFF, UNMONITORED, DROPPED, KEPT):
        before = setup.collector.counts()
        library.run(variant, kind, opcache, size, 1)
        if variant != UNMONITORED and not setup.collector.transactions_reach(before[0] + 1):
            raise BenchError("%s, %s: no transaction arrived" % (kind, variant))
        grown = setup.collector.counts()[2] - before[2]
        if (grown > 50 * calls) != (variant == KEPT) or (grown > 0) == (variant == UNMONITORED):
            raise BenchError("%s, %s: the payload has %d bytes" % (kind, variant, grown))
    return library.run(COUNT, kind, opcache, KINDS[kind][1], 1)[0]


def time_libraries(setup, rounds):
    """{(kind, opcache): {"calls": calls of an iteration, "times": {variant: [(us of an iteration
    at the machine's best speed, user us, system us as they were), one per round, of a rare one per
    RARE_ROUNDS]}}}."""
    library = Library(setup)
    variants = VARIANTS + tuple(library.profilers())
    figures = {(kind, opcache): {"calls": _check(setup, library, kind, opcache),
                                 "times": {variant: [] for variant in variants}}
               for kind in KINDS for opcache in library.opcache_states}
    sums = {}
    speeds = []
    for turn in range(rounds):
        harness.progress("libraries: round %d of %d" % (turn + 1, rounds))
        for (kind, opcache), figure in figures.items():
            rare = RARE if turn % RARE_ROUNDS.step else ()
            for variant in harness.rotated([one for one in variants if one not in rare], turn):
                iterations = HEAVY_ITERATIONS if variant in (KEPT, "xdebug") else ITERATIONS
                _, times, speed, text = library.run(variant, kind, opcache, KINDS[kind][1],
                                                    iterations)
                speeds.append(speed)
                if sums.setdefault(kind, text) != text:
                    raise BenchError("%s, %s: gave something else" % (kind, variant))
                figure["times"][variant].append(times)
    for figure in figures.values():
        for variant, rounds in figure["times"].items():
            figure["times"][variant] = [(relative * min(speeds), user, system)
                                        for relative, user, system in rounds]
    return figures


def count_instructions(setup):
    """{(kind, opcache): {variant: instructions per user call}}, from two run lengths each."""
    library = Library(setup)
    counts = {}
    lengths = (1, 3)
    for kind, (title, _, size) in KINDS.items():
        for opcache in library.opcache_states:
            calls = library.run(COUNT, kind, opcache, size, 1)[0] * (lengths[1] - lengths[0])
            counts[kind, opcache] = {}
            for variant in COUNTED:
                harness.progress("instructions: %s, opcache %s, %s"
                                 % (title, "on" if opcache else "off", TITLES[variant]))
                cost = []
                for iterations in lengths:
                    command = library.command(variant, kind, opcache, size, iterations)
                    # A call takes long in there; none shall be kept for that.
                    if variant == DROPPED:
                        command[1:1] = ["-d", "kaq.method_threshold=3600000"]
                    cost.append(harness.instructions(command, setup.scratch))
                counts[kind, opcache][variant] = (cost[1] - cost[0]) / calls
    return counts
