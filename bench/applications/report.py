"""The figures as tables, and what was found wrong."""
import timing
import variants

_SHOWN = 12
_WIDTH = 160


def _heading(text):
    print("\n" + text)
    print("-" * len(text))


def print_pages(label, runs, noise):
    """One line for each variant; true if none has anything wrong."""
    _heading("%s: pages compared with the bare engine's" % label)
    noisy = sum(bool(each.lines) for each in noise.values())
    print("  %d pages, of which %d differ between bare runs, in %d lines: the noise"
          % (len(noise), noisy, sum(len(each.lines) for each in noise.values())))
    print("  %-30s %6s %9s %12s %9s %11s %8s %9s" % (
        "", "pages", "differing", "transactions", "missing", "undecodable", "snippets", "MiB peak"))
    clean = True
    for run in runs.values():
        watch = run.watch
        print("  %-30s %6d %9d %12d %9d %11d %8d %9.1f" % (
            run.variant.title, len(run.visits), len(run.differing), watch.transactions,
            watch.missing, watch.undecoded, watch.snippets, run.peak_kib / 1024))
        if run.variant.extension == "kaq":
            clean = clean and not run.differing and not run.problems
    for run in runs.values():
        _print_wrong(run)
    return clean


def _print_wrong(run):
    """What is not ours is only mentioned: what the engine's own settings change."""
    is_ours = run.variant.extension == "kaq"
    mark, shown = ("!", _SHOWN) if is_ours else ("~", 3)
    for line in run.said_at_start.splitlines():
        print("  ~ %s, at its start: %s" % (run.variant.name, _cut(line)))
    for page, text in run.problems[:shown]:
        print("  %s %s, %s: %s" % (mark, run.variant.name, page, text[:400]))
    if len(run.problems) > shown:
        print("  %s %s: %d more" % (mark, run.variant.name, len(run.problems) - shown))
    for page, pairs in run.differing[:shown]:
        print("  %s %s, %s: %d lines differ" % (mark, run.variant.name, page, len(pairs)))
        for ours, theirs in pairs[:4]:
            print("      bare: %s" % _cut(ours))
            print("      here: %s" % _cut(theirs))
    if len(run.differing) > shown:
        print("  %s %s: %d more pages differ" % (mark, run.variant.name, len(run.differing) - shown))


def _cut(line):
    if line is None:
        return "(no such line)"
    text = line.encode("utf-8", "replace").decode("utf-8")
    return text if len(text) <= _WIDTH else text[:_WIDTH] + "..."


def print_times(label, turns, wanted):
    rounds = len(next(iter(turns.times[wanted[0].name].values())))
    _heading("%s: cost per page, %d pages, %d rounds" % (label, len(turns.pages), rounds))
    print("  %-32s %8s %8s %8s  %8s %8s %8s  %9s  %s" % (
        "", "cpu ms", "added", "ratio", "wall ms", "added", "ratio", "MiB peak", "against"))
    for variant in wanted:
        base = variant.base if variant.base in turns.times else variants.BARE
        cells = []
        for column in (0, 1):
            here, there = (timing.per_page(turns, name, column) for name in (variant.name, base))
            cells += [here, here - there, timing.ratio(turns, variant.name, base, column)]
        print("  %-32s %8.2f %8.2f %8.3f  %8.2f %8.2f %8.3f  %9.1f  %s" % (
            variant.title, *cells, turns.peak_kib[variant.name] / 1024, base))
    print("  ms: mean over the pages of the best of the rounds. Ratio: median of the rounds.")
    _print_worst(turns)


def _print_worst(turns):
    """The pages to which being monitored adds most."""
    if "monitored" not in turns.times or variants.BARE not in turns.times:
        return
    rows = []
    for page, _ in turns.pages:
        bare, here = (timing.of_page(turns, name, page, 0) for name in (variants.BARE, "monitored"))
        rows.append((here - bare, page, bare, here))
    print("  Pages to which monitoring adds most (cpu ms, bare and monitored):")
    for added, page, bare, here in sorted(rows, reverse=True)[:5]:
        print("    %-50s %8.2f %8.2f  +%.2f" % (page, bare, here, added))


def as_data(runs, noise, turns):
    """The same for a JSON file."""
    data = {"variants": {}}
    for name, run in runs.items():
        data["variants"][name] = {
            "pages": len(run.visits), "differing": [page for page, _ in run.differing],
            "problems": run.problems, "transactions": run.watch.transactions,
            "missing": run.watch.missing, "undecodable": run.watch.undecoded,
            "spans": run.watch.spans, "payload_bytes": run.watch.bytes,
            "snippets": run.watch.snippets, "peak_kib": run.peak_kib}
    data["noisy_pages"] = sum(bool(each.lines) for each in noise.values())
    if turns:
        data["times"] = {name: {page: rows for page, rows in pages.items()}
                         for name, pages in turns.times.items()}
        data["timed_peak_kib"] = turns.peak_kib
    return data
