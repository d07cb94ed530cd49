"""Cost per user call: time, instructions, and the recursion that fits an 8 MB stack."""
import os

import harness
from harness import BARE, CHAIN, DROPPED, KEPT, VARIANTS, BenchError

WORKLOADS = {
    "fib": "recursive Fibonacci",
    "methods": "method calls",
    "autoload": "autoload of small classes",
}
CLASSES = 300
AUTOLOAD_BLOCKS = 5

_CLASS = """<?php
namespace Bench\\Shop%(block)d;

class Model%(n)d
{
    const KIND = 'model%(n)d';
    private $id;
    private $values = array('a' => 1, 'b' => array(2, 3));

    public function __construct($id)
    {
        $this->id = $id;
    }

    public function id()
    {
        return $this->id;
    }

    public function name()
    {
        return self::KIND . '-' . $this->id;
    }

    public function with($key, $value)
    {
        $this->values[$key] = $value;
        return count($this->values);
    }
}
"""


def generate_classes(directory):
    """A directory per block, since a class can be loaded only once."""
    for block in range(AUTOLOAD_BLOCKS):
        name = os.path.join(directory, "Shop%d" % block)
        os.makedirs(name)
        for number in range(CLASSES):
            path = os.path.join(name, "Model%d.php" % number)
            with open(path, "w", encoding="ascii") as file:
                file.write(_CLASS % {"block": block, "n": number})
    return directory


def _command(setup, variant, script, *numbers):
    return ([setup.php] + setup.arguments(variant) + [setup.script(script)]
            + [str(number) for number in numbers])


def _timed_command(setup, variant, workload, classes):
    # Spans that are kept cost memory, so their blocks are shorter.
    kept = variant == KEPT
    if workload == "fib":
        return _command(setup, variant, "fib.php", 20, 1 if kept else 8, 5)
    if workload == "methods":
        return _command(setup, variant, "methods.php", 20000 if kept else 150000, 5)
    return _command(setup, variant, "autoload.php", classes, CLASSES, AUTOLOAD_BLOCKS)


def time_calls(setup, rounds):
    """Best block of each round: {workload: {variant: [ns per call, one per round]}}."""
    classes = generate_classes(os.path.join(setup.scratch, "classes"))
    times = {workload: {variant: [] for variant in VARIANTS} for workload in WORKLOADS}
    for turn in range(rounds):
        harness.progress("per call: round %d of %d" % (turn + 1, rounds))
        for workload in WORKLOADS:
            for variant in harness.rotated(VARIANTS, turn):
                text = harness.output(_timed_command(setup, variant, workload, classes))
                blocks = [float(line) for line in text.split()[1:]]
                times[workload][variant].append(min(blocks))
    return times


def count_instructions(setup):
    """{workload: {variant: instructions per call}}, from two run lengths each."""
    lengths = {"fib": ((12, 10, 1), (12, 60, 1)), "methods": ((6000, 1), (36000, 1))}
    counts = {}
    for workload, (short, long) in lengths.items():
        counts[workload] = {}
        for variant in VARIANTS:
            harness.progress("instructions: %s, %s" % (workload, harness.TITLES[variant]))
            cost = []
            for size in (short, long):
                command = _command(setup, variant, workload + ".php", *size)
                calls = int(harness.output(command).split()[0])
                # A call takes long in there; none shall be kept for that.
                if variant == DROPPED:
                    command[1:1] = ["-d", "kaq.method_threshold=3600000"]
                cost.append((calls, harness.instructions(command, setup.scratch)))
            counts[workload][variant] = (cost[1][1] - cost[0][1]) / (cost[1][0] - cost[0][0])
    return counts


def _reaches(setup, variant, kind, depth):
    done = harness.child(_command(setup, variant, "recursion.php", kind, depth))
    if done.returncode == 0 and done.stdout.strip() == "reached":
        return True
    if done.returncode < 0:
        return False
    raise BenchError("recursion to %d ended with %d: %s"
                     % (depth, done.returncode, (done.stderr or done.stdout)[-400:]))


def _deepest(setup, variant, kind, precision):
    low, high = 1000, 2000
    if not _reaches(setup, variant, kind, low):
        raise BenchError("not even %d calls deep" % low)
    while _reaches(setup, variant, kind, high):
        low, high = high, high * 2
        if high > 1 << 24:
            return None
    while high - low > low * precision:
        middle = (low + high) // 2
        if _reaches(setup, variant, kind, middle):
            low = middle
        else:
            high = middle
    return low


def recursion_depths(setup):
    """{kind: {variant: deepest recursion, None without a limit}}."""
    precision = 0.01 if setup.quick else 0.002
    depths = {}
    for kind in ("function", "method"):
        depths[kind] = {}
        for variant in (BARE, CHAIN, harness.CLOCK, DROPPED, KEPT):
            harness.progress("recursion: %s, %s" % (kind, harness.TITLES[variant]))
            # The bare engine keeps its calls off the C stack; it is known not to have a limit.
            depths[kind][variant] = (None if variant == BARE
                                     else _deepest(setup, variant, kind, precision))
    return depths
