"""The figures of the libraries as tables."""
import statistics

import application
import harness
import report
from application import KINDS, TITLES
from harness import BARE, CHAIN, DROPPED, GATED, UNMONITORED

# The first is no difference at all, and shows how far the others can be trusted.
PAIRS = ((application.BARE_AGAIN, BARE), (UNMONITORED, CHAIN), (DROPPED, CHAIN), (DROPPED, GATED))
# What a request that is not monitored may cost above the hook that chains, in percent of the bare
# engine's time.
UNMONITORED_TARGET = 1


def _title(key):
    kind, opcache = key
    return "%s, opcache %s" % (KINDS[kind][0], "on" if opcache else "off")


def _interval(values):
    median, low, high = values
    if low is None:
        return "%9.2f %20s" % (median, "")
    return "%9.2f %20s" % (median, "[%.2f, %.2f]" % (low, high))


def _per_call(values, calls):
    """Milliseconds as ns per call."""
    return [None if value is None else value * 1e6 / calls for value in values]


def _base(variant, times):
    """The hook that only chains, in the rounds in which the variant ran."""
    return times[CHAIN][application.RARE_ROUNDS] if variant in application.RARE else times[CHAIN]


def _rows(figure, times):
    """Milliseconds per iteration, and ns per call above the hook that only chains."""
    print("  %-28s %8s %8s %8s %8s  %9s %20s"
          % ("", "best ms", "median", "user", "to bare", "ns/call", ""))
    print("  %-28s %8s %8s %8s %8s  %9s %20s"
          % ("", "", "ms", "ms", "of best", "to chain", "95 % interval"))
    for variant, rounds in times.items():
        above = _per_call(harness.difference(rounds, _base(variant, times)), figure["calls"])
        print("  %-28s %8.2f %8.2f %8.2f %8.3f  %s"
              % (TITLES[variant], min(rounds), statistics.median(rounds),
                 statistics.median(values[1] / 1e3 for values in figure["times"][variant]),
                 min(rounds) / min(times[BARE]), _interval(above)))


def _pairs(figure, times):
    """{(over, under): the difference in percent of the bare engine's time, with its interval}."""
    bare = statistics.median(times[BARE])
    points = {}
    for over, under in PAIRS:
        added = harness.difference(times[over], times[under])
        points[over, under] = [None if value is None else 100 * value / bare for value in added]
        print("  %-54s %%   %s" % ("%s - %s" % (TITLES[over], TITLES[under]),
                                  _interval(points[over, under])))
        print("  %-54s ns  %s" % ("    for each call",
                                  _interval(_per_call(added, figure["calls"]))))
    return points


def _print_targets(title, points, targets):
    median, low, high = points[application.BARE_AGAIN, BARE]
    if low is None:
        return
    report.target(targets, "bare - bare, distance of the interval from 0, %s" % title,
                  max(low, -high, 0), "0 %", low <= 0 <= high)
    median, low, high = points[UNMONITORED, CHAIN]
    report.target(targets, "not monitored - chain, end of the interval, %s" % title, high,
                  "< %d %%" % UNMONITORED_TARGET, high < UNMONITORED_TARGET)
    median, low, high = points[DROPPED, GATED]
    report.target(targets, "dropped - gated, start of the interval, %s" % title, low,
                  "<= 0 %", low <= 0)


def print_times(figures, targets):
    for key, figure in figures.items():
        report.heading("A library without a server: %s (%d user calls)"
                       % (_title(key), figure["calls"]))
        times = {variant: [values[0] / 1e3 for values in rounds]
                 for variant, rounds in figure["times"].items()}
        _rows(figure, times)
        points = _pairs(figure, times)
        _print_targets("%s, opcache %s" % (key[0], "on" if key[1] else "off"), points, targets)
    print("  Processor time of an iteration, user and system, of which the kernel tells the user's"
          "\n  share by samples. Each process gives the lower quartile of its iterations, in units of a fixed"
          "\n  piece of arithmetic beside it, times what that takes at the machine's best speed."
          "\n  To chain, and below: median of the rounds' differences, below in percent of the bare"
          "\n  engine's time. Interval: distribution-free, from the ranks of these differences; there"
          "\n  is none below six rounds.")


def print_instructions(counts):
    report.heading("Instructions per user call of a library (callgrind)")
    print("  %-28s %s" % ("", " ".join("%15s" % kind for kind, _ in counts)))
    print("  %-28s %s" % ("", " ".join("%15s" % ("opcache on" if opcache else "opcache off")
                                       for _, opcache in counts)))
    for variant in application.COUNTED:
        print("  %-28s %s" % (TITLES[variant],
                              " ".join("%15.1f" % count[variant] for count in counts.values())))
        if variant != BARE and variant != CHAIN:
            print("  %-28s %s" % ("  above the hook that chains",
                                  " ".join("%15.1f" % (count[variant] - count[CHAIN])
                                           for count in counts.values())))
