"""Cost per transfer with curl on loopback, with the captures of the extension off and on."""
import harness
import wrapped
from harness import BARE, KEPT, UNMONITORED, BenchError

OFF, TRACE, HEADERS, BOTH = "off", "trace", "headers", "both"
CAPTURES = {OFF: (0, 0), TRACE: (1, 0), HEADERS: (0, 1), BOTH: (1, 1)}
VARIANTS = (BARE, UNMONITORED, OFF, TRACE, HEADERS, BOTH)
TITLES = {OFF: "kaq, both captures off", TRACE: "kaq, trace headers",
          HEADERS: "kaq, header capture", BOTH: "kaq, both captures"}
TITLES.update((variant, harness.TITLES[variant]) for variant in (BARE, UNMONITORED))

# What is run: a title, the script's kind and size, and the runs of a block.
KINDS = {
    "exec": ("curl_exec, one handle", ("exec", 1000), 1),
    "multi10": ("multi run of 10 handles", ("multi", 10), 20),
    "multi100": ("multi run of 100 handles", ("multi", 100), 3),
    "multi1000": ("multi run of 1000 handles", ("multi", 1000), 1),
    "poll10": ("10 handles without an answer", ("poll", 10), 1000),
    "poll100": ("100 handles without an answer", ("poll", 100), 200),
    "poll1000": ("1000 handles without an answer", ("poll", 1000), 20),
}
GROWTH = (("multi", 10, 1000), ("poll", 10, 1000))
BLOCKS = 3
# Two run lengths each; what lies between them is what is counted.
_COUNTED = {"exec": ((50, 1), (250, 1)), "multi100": ((100, 1), (100, 3)),
            "poll100": ((100, 20), (100, 120))}


class Server(harness.Listener):
    """The HTTP server of the benchmarks. It counts requests, and those that had a traceparent."""

    def __init__(self, program):
        super().__init__([program], "the HTTP server", 1)
        self.url = "http://127.0.0.1:%d/" % self.ports[0]


def _command(setup, server, variant, words, modules):
    recorded = KEPT if variant in CAPTURES else variant
    command = [setup.php] + setup.wrapped_arguments(recorded, modules)
    for name, value in zip(("distributed_trace", "httpcall_metadata"), CAPTURES.get(variant, ())):
        command += ["-d", "kaq.capture_%s=%d" % (name, value)]
    kind, *numbers = words
    return command + [setup.script("curl.php"), kind, server.url] + [str(n) for n in numbers]


def _check(setup, server, modules):
    """The server sees a traceparent where it should, the collector spans and captured headers."""
    sizes = {}
    for variant in VARIANTS:
        requests, traced = server.counts()
        before = setup.collector.counts()
        harness.output(_command(setup, server, variant, ("exec", 49, 1, 1), modules))
        if variant in CAPTURES and not setup.collector.transactions_reach(before[0] + 1):
            raise BenchError("%s: no transaction arrived" % variant)
        seen = server.counts()
        expected = 50 if variant in (TRACE, BOTH) else 0
        if (seen[0] - requests, seen[1] - traced) != (50, expected):
            raise BenchError("%s: %d requests, %d traced" % (variant, seen[0] - requests,
                                                             seen[1] - traced))
        sizes[variant] = setup.collector.counts()[2] - before[2]
    if not (sizes[BARE] == sizes[UNMONITORED] == 0 < 50 * 50 < sizes[OFF]
            and sizes[OFF] + 50 * 200 < sizes[HEADERS]):
        raise BenchError("payloads of another size than expected: %s" % sizes)


def time_transfers(setup, server, rounds):
    """{kind: {variant: [(wall ns, processor ns, calls) of each round]}}, or why it was left out."""
    modules = wrapped.modules_of(setup, "curl")
    if modules is None:
        return "this engine has no curl"
    _check(setup, server, modules)
    times = {kind: {variant: [] for variant in VARIANTS} for kind in KINDS}
    for turn in range(rounds):
        harness.progress("curl: round %d of %d" % (turn + 1, rounds))
        for kind, (_, words, runs) in KINDS.items():
            for variant in harness.rotated(VARIANTS, turn):
                lines = harness.output(_command(setup, server, variant,
                                                words + (runs, BLOCKS), modules)).splitlines()
                blocks = [tuple(float(word) for word in line.split()) for line in lines]
                times[kind][variant].append(tuple(min(column) for column in zip(*blocks)))
    return times


def count_instructions(setup, server):
    """{kind: {variant: instructions per transfer, or per handle and call}}; None without curl."""
    modules = wrapped.modules_of(setup, "curl")
    if modules is None:
        return None
    counts = {}
    for kind, lengths in _COUNTED.items():
        harness.progress("instructions: " + KINDS[kind][0])
        counts[kind] = {}
        for variant in VARIANTS:
            short, long = (harness.instructions(
                _command(setup, server, variant, (KINDS[kind][1][0],) + length + (1, "end"),
                         modules), setup.scratch) for length in lengths)
            transfers = [size * runs for size, runs in lengths]
            counts[kind][variant] = (long - short) / (transfers[1] - transfers[0])
    return counts
