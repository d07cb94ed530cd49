"""Cost per error and per exception of a request that has ten thousand of them."""
import harness
from harness import BARE, DROPPED, UNMONITORED, BenchError

VARIANTS = (BARE, UNMONITORED, DROPPED)
COUNT = 10000

# What fails, and whether only the first ten are recorded.
KINDS = {
    "errors": ("errors, ten are recorded", True),
    "classes": ("exceptions of ten classes, ten are recorded", True),
    "exceptions": ("exceptions of one class, all are recorded", False),
}


def _command(setup, variant, kind, count):
    return ([setup.php] + setup.arguments(variant) + [setup.script("failures.php")]
            + [kind, str(count)])


def _check(setup):
    """The payload grows with the failures only where all are recorded."""
    for kind, (_, is_capped) in KINDS.items():
        sizes = []
        for count in (10, 1010):
            before = setup.collector.counts()
            harness.output(_command(setup, DROPPED, kind, count))
            if not setup.collector.transactions_reach(before[0] + 1):
                raise BenchError("%s: no transaction arrived" % kind)
            sizes.append(setup.collector.counts()[2] - before[2])
        if (sizes[1] - sizes[0] < 1000) != is_capped:
            raise BenchError("%s: payloads of %d and %d bytes" % (kind, *sizes))


def time_failures(setup, rounds):
    """{kind: {variant: [(ns of the first ten, ns of the rest), one per round]}}."""
    _check(setup)
    times = {kind: {variant: [] for variant in VARIANTS} for kind in KINDS}
    for turn in range(rounds):
        harness.progress("per failure: round %d of %d" % (turn + 1, rounds))
        for kind in KINDS:
            for variant in harness.rotated(VARIANTS, turn):
                lines = harness.output(_command(setup, variant, kind, COUNT)).split()
                times[kind][variant].append(tuple(float(line) for line in lines))
    return times
