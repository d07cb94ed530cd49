"""The figures as tables, and each target beside its figure."""
import statistics

import calls
import curl
import failures
import harness
import web
import wrapped
from harness import BARE, CHAIN, CLOCK, DROPPED, LIMIT, UNMONITORED, VARIANTS

CALL_TARGET = 1.0
WRAPPED_TARGET_NS = 10.0
GROWTH_TARGET = 1.5
ENCODING_TARGET = 3.0
DEPTH_TARGET = 0.8
BEYOND_TARGET_US = 10.0


def heading(text):
    print("\n" + text)
    print("-" * len(text))


def target(targets, name, figure, text, met):
    targets.append({"name": name, "figure": figure, "target": text, "met": met})
    print("  %-58s %7.2f   target %s: %s" % (name, figure, text, "met" if met else "missed"))


def _compare(times, unit):
    """A table of the variants: best, ratio to the bare engine, ratio to the two clock reads."""
    print("  %-28s %9s %9s  %15s  %15s" % ("", "best " + unit, "added", "to bare", "to two clock"))
    print("  %-28s %9s %9s  %15s  %15s" % ("", "", "to bare", "median   best", "median   best"))
    for variant in VARIANTS:
        bare = harness.ratios(times[variant], times[BARE])
        clock = harness.ratios(times[variant], times[CLOCK])
        print("  %-28s %9.1f %9.1f  %7.2f %7.2f  %7.2f %7.2f"
              % (harness.TITLES[variant], min(times[variant]),
                 min(times[variant]) - min(times[BARE]), *bare, *clock))


def print_calls(times, targets):
    for workload, title in calls.WORKLOADS.items():
        heading("Cost per user call: %s (ns)" % title)
        _compare(times[workload], "ns")
    print()
    for workload, title in calls.WORKLOADS.items():
        median = harness.ratios(times[workload][DROPPED], times[workload][CLOCK])[0]
        target(targets, "short calls dropped to two clock reads, %s" % workload, median,
                "<= %.2f" % CALL_TARGET, median <= CALL_TARGET)


def print_instructions(counts):
    heading("Instructions per user call (callgrind)")
    print("  %-28s %9s %9s" % ("", *counts))
    for variant in VARIANTS:
        print("  %-28s %9.1f %9.1f"
              % (harness.TITLES[variant], *(counts[workload][variant] for workload in counts)))
    print("  The two clock reads count less than they cost: valgrind turns each into a system call,"
          "\n  whose instructions it does not see.")


def _added(pairs):
    """What wrapping adds, in ns: median of the rounds, and the difference of the two minima."""
    return (statistics.median(wrapped_ns - plain for plain, wrapped_ns in pairs),
            min(pair[1] for pair in pairs) - min(pair[0] for pair in pairs))


def print_wrapped_calls(times, targets):
    for kind, (title, *_) in wrapped.KINDS.items():
        heading("Cost per wrapped call: %s (ns)" % title)
        print("  %-28s %9s %9s  %15s" % ("", "same call", "wrapped", "added"))
        print("  %-28s %9s %9s  %15s" % ("", "unwrapped", "best", "median   best"))
        for variant, pairs in times[kind].items():
            print("  %-28s %9.1f %9.1f  %7.1f %7.1f"
                  % (harness.TITLES[variant], min(pair[0] for pair in pairs),
                     min(pair[1] for pair in pairs), *_added(pairs)))
    print("  Both functions run in the same process. Without the extension neither is wrapped: what"
          "\n  is added there is the error of the measurement.\n")
    for variant in (UNMONITORED, LIMIT):
        median = _added(times["names"][variant])[0]
        target(targets, "ns added to a wrapped call: %s" % harness.TITLES[variant], median,
                "<= %.0f" % WRAPPED_TARGET_NS, median <= WRAPPED_TARGET_NS)


def print_wrapped_loops(loops):
    for name, times in loops.items():
        heading("Cost per turn of a loop: %s (us)" % wrapped.LOOPS[name])
        if isinstance(times, str):
            print("  left out: %s" % times)
            continue
        print("  %-28s %9s %9s  %15s" % ("", "best us", "added", "to bare"))
        print("  %-28s %9s %9s  %15s" % ("", "", "to bare", "median   best"))
        for variant, rounds in times.items():
            print("  %-28s %9.2f %9.2f  %7.2f %7.2f"
                  % (harness.TITLES[variant], min(rounds) / 1e3,
                     (min(rounds) - min(times[BARE])) / 1e3,
                     *harness.ratios(rounds, times[BARE])))


def print_wrapped_instructions(counts):
    heading("Instructions per wrapped call, and per turn of the SQLite loop (callgrind)")
    print("  %-28s %s" % ("", " ".join("%9s" % kind for kind in counts)))
    for variant in wrapped.VARIANTS:
        print("  %-28s %s" % (harness.TITLES[variant],
                              " ".join("%9.1f" % counts[kind][variant] for kind in counts)))


def _median_added(rounds, bare, column):
    return statistics.median(a[column] - b[column] for a, b in zip(rounds, bare))


def print_transfers(times, targets):
    if isinstance(times, str):
        heading("Cost per transfer with curl")
        print("  left out: %s" % times)
        return
    for kind, (title, *_) in curl.KINDS.items():
        per = "handle and curl_multi_exec call" if kind.startswith("poll") else "transfer"
        heading("Cost per %s: %s (us)" % (per, title))
        print("  %-28s %19s  %19s  %8s %6s" % ("", "wall clock", "processor", "to bare", "calls"))
        print("  %-28s %9s %9s  %9s %9s  %8s %6s"
              % ("", "best", "added", "best", "added", "median", "median"))
        for variant, rounds in times[kind].items():
            bare = times[kind][BARE]
            cells = [value / 1e3 for column in (0, 1)
                     for value in (min(r[column] for r in rounds),
                                   _median_added(rounds, bare, column))]
            print("  %-28s %9.2f %9.2f  %9.2f %9.2f  %8.2f %6.0f"
                  % (curl.TITLES[variant], *cells,
                     statistics.median(a[1] / b[1] for a, b in zip(rounds, bare)),
                     statistics.median(r[2] for r in rounds)))
    print("  Added: median of the rounds' differences to the bare engine. To bare: processor time."
          "\n  Calls: of curl_multi_exec per run.\n")
    _print_growth(times, targets)


def _print_growth(times, targets):
    """What the extension adds per handle must not grow with their number."""
    for kind, few, many in curl.GROWTH:
        for variant in curl.CAPTURES:
            small, large = (_median_added(times[kind + str(size)][variant],
                                          times[kind + str(size)][BARE], 1)
                            for size in (few, many))
            growth = large / small if small > 0 else float("nan")
            target(targets, "%s, added per handle, %d to %d, %s"
                    % (kind, many, few, curl.TITLES[variant]), growth,
                    "<= %.2f" % GROWTH_TARGET, growth <= GROWTH_TARGET)


def print_transfer_instructions(counts):
    if not counts:
        return
    heading("Instructions per transfer, and per handle without an answer and curl_multi_exec call")
    print("  %-28s %s" % ("", " ".join("%9s %9s" % (kind, "added") for kind in counts)))
    for variant in curl.VARIANTS:
        print("  %-28s %s" % (curl.TITLES[variant],
                              " ".join("%9.0f %9.0f" % (counts[kind][variant],
                                                        counts[kind][variant] - counts[kind][BARE])
                                       for kind in counts)))


def print_failures(times):
    for kind, (title, is_capped) in failures.KINDS.items():
        heading("Cost per failure of %d in a request: %s (ns)" % (failures.COUNT, title))
        rest = "each that is passed on" if is_capped else "each further one"
        print("  %-28s %19s  %28s" % ("", "each of the first ten", rest))
        print("  %-28s %9s %9s  %9s %9s  %8s" % ("", "best", "added", "best", "added", "to bare"))
        bare = times[kind][BARE]
        for variant, rounds in times[kind].items():
            cells = [value for column in (0, 1)
                     for value in (min(r[column] for r in rounds),
                                   _median_added(rounds, bare, column))]
            print("  %-28s %9.0f %9.0f  %9.0f %9.0f  %8.2f"
                  % (harness.TITLES[variant], *cells,
                     statistics.median(a[1] / b[1] for a, b in zip(rounds, bare))))


def print_requests(times, targets):
    for query, title in web.PAGES.items():
        heading("Cost per web request: %s (us, FastCGI)" % title)
        _compare(times[query], "us")
    _print_floor(times[web.CALM], targets)


def _print_floor(times, targets):
    """What is left of what the extension adds once the two conversations are taken off."""
    heading("Beyond the two conversations with the collector: page without a call (us)")
    print("  %-40s %9s %9s  %17s" % ("", "added", "added", "beyond the floor"))
    print("  %-40s %9s %9s  %8s %8s" % ("", "median", "best", "median", "best"))
    floor, floor_best = _difference(times[web.TALKING], times[web.SILENT])
    rows = {"floor: the two in a bare C program": (floor, floor_best)}
    for variant, title in ((web.ENGINE_TALKING, "the two in the bare engine"),
                           (UNMONITORED, harness.TITLES[UNMONITORED]),
                           (DROPPED, harness.TITLES[DROPPED])):
        rows[title] = _difference(times[variant], times[BARE])
    for title, (rounds, best) in rows.items():
        beyond = statistics.median(a - b for a, b in zip(rounds, floor))
        print("  %-40s %9.1f %9.1f  %8.1f %8.1f"
              % (title, statistics.median(rounds), best, beyond, best - floor_best))
    print()
    target(targets, "us beyond the conversations, " + title, beyond,
            "<= %.0f" % BEYOND_TARGET_US, beyond <= BEYOND_TARGET_US)


def _difference(over, under):
    """The rounds' differences, and the difference of the two minima."""
    return [a - b for a, b in zip(over, under)], min(over) - min(under)


def print_system_calls(counts):
    heading("System calls per web request: page without a call")
    if isinstance(counts, str):
        print("  left out: %s" % counts)
        return
    for variant, title, base in (
            (web.TALKING, "the conversations in a bare C program", web.SILENT),
            (UNMONITORED, harness.TITLES[UNMONITORED], BARE),
            (DROPPED, harness.TITLES[DROPPED], BARE)):
        names = sorted(set(counts[variant]) | set(counts[base]))
        added = {name: round(counts[variant].get(name, 0) - counts[base].get(name, 0))
                 for name in names}
        print("  %-40s %3d added" % (title, sum(added.values())))
        print("      " + ", ".join("%s %d" % pair for pair in added.items() if pair[1]))


def print_request_instructions(counts):
    heading("Instructions per web request: page without a call (callgrind)")
    for variant, count in counts.items():
        print("  %-40s %8.0f %8.0f added" % (harness.TITLES[variant], count, count - counts[BARE]))


def print_encoding(times, counts, targets):
    heading("Encoding: payload and Base64 against json_encode and base64_encode")
    print("  %8s %10s %12s %12s %12s  %15s"
          % ("spans", "bytes", "kaq us", "engine us", "kaq ns/span", "median   best"))
    for spans, (size, own, engine) in times.items():
        print("  %8d %10d %12.1f %12.1f %12.1f  %7.2f %7.2f"
              % (spans, size, min(own) / 1e3, min(engine) / 1e3, min(own) / spans,
                 *harness.ratios(engine, own)))
    if counts:
        print("  instructions per span: kaq %.0f, engine %.0f, ratio %.2f"
              % (counts["own"], counts["engine"], counts["engine"] / counts["own"]))
    print()
    for spans, (_, own, engine) in times.items():
        median = harness.ratios(engine, own)[0]
        target(targets, "engine's time to ours, %d spans" % spans, median,
                ">= %.1f" % ENCODING_TARGET, median >= ENCODING_TARGET)


def print_depths(depths, targets):
    heading("Recursion depth under an 8 MB stack")
    print("  %-28s %10s %10s" % ("", *depths))
    for variant in depths["function"]:
        row = [depths[kind][variant] for kind in depths]
        print("  %-28s %10s %10s"
              % (harness.TITLES[variant],
                 *("no limit" if depth is None else depth for depth in row)))
    print()
    for kind in depths:
        share = depths[kind][DROPPED] / depths[kind][CHAIN]
        target(targets, "depth to that of a hook that only chains, %s" % kind, share,
                ">= %.2f" % DEPTH_TARGET, share >= DEPTH_TARGET)
