#!/usr/bin/env python3
"""Compares the engine's own tests, bare and monitored. Called by script/engine-suite."""

import argparse
import difflib
import fcntl
import os
import re
import shutil
import signal
import sys
import time

import engine_runs

EXPECTED = os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "..", "tests",
                        "extension", "engine-suite", "expected-differences.txt")
# At least this share of the tests that run must have sent a transaction.
MONITORED_SHARE = 0.9
ROUNDS_ALONE = 2
# For tests that are listed as using up the C stack.
DEEP_STACK = 1 << 30
CRASH = re.compile(r"Termsig=|AddressSanitizer")
BEGIN = time.monotonic()


def say(text):
    seconds = int(time.monotonic() - BEGIN)
    told = "%dm%02ds" % divmod(seconds, 60) if seconds >= 60 else "%ds" % seconds
    print("[%6s] engine-suite: %s" % (told, text), file=sys.stderr, flush=True)


def version_of(text):
    return tuple(int(number) for number in text.split("."))


def read_expected(path, version):
    """The differences that are listed for an engine: {test: (kind, reason)}."""
    expected = {}
    with open(path, encoding="utf-8") as lines:
        for number, line in enumerate(lines, 1):
            if not line.strip() or line.startswith("#"):
                continue
            match = re.fullmatch(r"(output|stack) ([0-9]+\.[0-9]+) (\S+\.phpt) (.+)\n?", line)
            if not match or match.group(3) in expected:
                sys.exit("%s:%d: not an entry, or a test listed twice: %s" % (path, number, line.rstrip()))
            kind, since, test, reason = match.groups()
            if version_of(version) >= version_of(since):
                expected[test] = (kind, reason)
    return expected


def steady(outcome):
    """An outcome without what differs from one bare run to the next: numbers and addresses."""
    return outcome._replace(text=re.sub(r"\b(0x)?[0-9a-f]*\d[0-9a-f]*", "N", outcome.text))


def same(bare, monitored):
    """Whether each monitored outcome also comes about bare. Numbers count, unless the test's own
    differ from one bare run to the next."""
    if set(monitored) <= set(bare):
        return True
    if len({outcome.text for outcome in bare}) == 1:
        return False
    return {steady(one) for one in monitored} <= {steady(one) for one in bare}


def describe(test, bare, monitored):
    """The lines that show a difference."""
    lines = ["== %s: bare %s, monitored %s" % (
        test, ", ".join("%s with status %s" % one[:2] for one in bare),
        ", ".join("%s with status %s" % one[:2] for one in monitored))]
    lines += difflib.unified_diff(bare[-1].text.splitlines(), monitored[-1].text.splitlines(),
                                  "bare", "monitored", n=2, lineterm="")
    return lines


def compare_alone(suite, suspects, rounds, stack=None):
    """Runs tests alone both ways: {test: (bare outcomes, monitored outcomes)}."""
    again = {test: ([], []) for test in suspects}
    files = sorted({suite.file_to_rerun(test) for test in suspects})
    for _ in range(rounds):
        for side, monitored in enumerate((False, True)):
            outcomes = suite.run(monitored, files, stack).outcomes
            for test in suspects:
                again[test][side].append(
                    outcomes.get(test, engine_runs.Outcome("MISSING", "none", "")))
    return again


def avoidable(suite, expected, differing):
    """Of the tests that differ, those that must not: the ones that are not listed, that crash, or
    that are listed as using up the C stack but differ on a deep one too."""
    listed = {test: expected.get(test, ("none", ""))[0] for test in differing}
    stack = sorted(test for test in differing if listed[test] == "stack")
    deep = compare_alone(suite, stack, 1, DEEP_STACK) if stack else {}
    found = [test for test in stack if not same(*deep[test])]
    for test in differing:
        crashed = any(CRASH.search(outcome.text) for outcome in differing[test][1])
        if listed[test] == "none" or (listed[test] == "output" and crashed):
            found.append(test)
    return found


def check_monitored(suite, run, counts, report):
    """Without recorded requests the comparison means nothing; and no payload may be garbage."""
    ran = {test for test, outcome in run.outcomes.items()
           if outcome.result != "SKIPPED" and not test.startswith("via ")}
    silent = sorted(ran - run.seen)
    say("%s: %d of %d tests that ran sent a transaction" % (
        suite.part, len(ran) - len(silent), len(ran)))
    report.write("".join("-- not monitored: %s\n" % test for test in silent))
    if len(silent) > (1 - MONITORED_SHARE) * len(ran):
        counts["failed"] += 1
        print("%s: FAIL  only %d of %d tests were monitored" % (
            suite.part, len(ran) - len(silent), len(ran)))
    for text in run.garbage:
        counts["failed"] += 1
        print("%s: FAIL  the collector received what is no record: %s" % (suite.part, text))


def run_both(suite, expected, counts, report):
    """Runs a part's tests and compares. Returns all tests with their bare outcome, the flaky ones,
    those that differ, and those of them that must not."""
    say("%s: bare" % suite.part)
    bare = suite.run(False).outcomes
    say("%s: monitored" % suite.part)
    run = suite.run(True)
    check_monitored(suite, run, counts, report)
    suspects = sorted(test for test in set(bare) | set(run.outcomes)
                      if bare.get(test) != run.outcomes.get(test))
    again = {}
    if suspects:
        say("%s: %d differ; again, alone" % (suite.part, len(suspects)))
        again = compare_alone(suite, suspects, ROUNDS_ALONE)
        for test in suspects:
            again[test][0].extend([bare[test]] if test in bare else [])
            report.write("\n".join(describe(test, *again[test])) + "\n")
    flaky = [test for test in suspects if same(*again[test])]
    differing = {test: again[test] for test in suspects if test not in flaky}
    return bare, flaky, differing, avoidable(suite, expected, differing)


def run_part(options, part, expected, counts):
    suite = engine_runs.Suite(options, part, say)
    begin = time.monotonic()
    before = dict(counts)
    with open(suite.log + ".log", "w", encoding="utf-8", errors="surrogateescape") as report:
        bare, flaky, differing, failed = run_both(suite, expected, counts, report)
    for test in sorted(set(bare) | set(differing) | set(flaky)):
        if test in failed:
            print("%s: FAIL  %s" % (part, test))
            counts["failed"] += 1
        elif test in differing:
            print("%s: expected  %s: %s" % (part, test, expected[test][1]))
            counts["skipped"] += 1
        else:
            if test in flaky:
                print("%s: flaky  %s" % (part, test))
            elif test in expected:
                print("%s: listed, but does not differ  %s" % (part, test))
            skipped = test in bare and bare[test].result == "SKIPPED"
            counts["skipped" if skipped else "passed"] += 1
    suite.clean()
    print("%-5s %-22s %5d passed %4d failed %4d skipped %7ds  log: %s" % (
        "FAIL" if counts["failed"] > before["failed"] else "ok", "engine %s" % part,
        *(counts[kind] - before[kind] for kind in ("passed", "failed", "skipped")),
        time.monotonic() - begin, suite.log + ".log"))


def parse_arguments():
    parser = argparse.ArgumentParser(description=__doc__)
    for name in ("key", "engine-version", "php", "cgi", "extension-dir", "source", "so", "work",
                 "logs"):
        parser.add_argument("--" + name, required=True)
    parser.add_argument("--jobs", type=int, required=True)
    parser.add_argument("parts", nargs="+", choices=engine_runs.PARTS)
    return parser.parse_args()


def main():
    options = parse_arguments()
    # The runner has a session of its own, which this exception ends on its way out.
    signal.signal(signal.SIGTERM, lambda number, frame: sys.exit(128 + number))
    sys.stdout.reconfigure(errors="backslashreplace", line_buffering=True)
    expected = read_expected(EXPECTED, options.engine_version)
    os.makedirs(options.work, exist_ok=True)
    os.makedirs(options.logs, exist_ok=True)
    engine_runs.raise_loopback()
    counts = {"passed": 0, "failed": 0, "skipped": 0}
    with open(os.path.join(options.work, options.key + ".lock"), "w", encoding="utf-8") as lock:
        fcntl.flock(lock, fcntl.LOCK_EX)
        # A build at the same time must not change it between two runs.
        options.so = shutil.copy(options.so, os.path.join(options.work, options.key + ".so"))
        for part in options.parts:
            try:
                run_part(options, part, expected, counts)
            except engine_runs.RunFailed as problem:
                counts["failed"] += 1
                print("%s: FAIL  %s" % (part, problem))
    print("%(passed)d passed, %(failed)d failed, %(skipped)d skipped" % counts)
    return 1 if counts["failed"] or not counts["passed"] else 0


if __name__ == "__main__":
    sys.exit(main())
