#!/usr/bin/env python3
"""Counts what test tools report.

    results.py junit FILE      a JUnit file (ctest, pytest)
    results.py runtests FILE   what the engine's run-tests.php prints
    results.py check FILE      the lines of script/check: ok, FAIL or skip and a name
    results.py sum FILE        what another script here prints, which ends in "N passed, N failed,
                               N skipped" and names failures after "FAIL"

Prints "PASSED FAILED SKIPPED" and below it the name of each failed test.
Ends with status 1 when the file cannot be read: the suite did not run.
"""

import re
import sys
import xml.etree.ElementTree as ElementTree

# Any other word that run-tests.php has for a test (FAIL, WARN, LEAK, BORK) is a failure.
RUNTESTS_OUTCOME = {"PASS": "passed", "SKIP": "skipped", "XFAIL": "skipped"}
RUNTESTS_LINE = re.compile(
    r"\b((?:(?:PASS|FAIL|SKIP|WARN|BORK|LEAK|XFAIL|XLEAK|TIMEOUT)&?)+) [^\r]*?\[(\S+\.phpt)\]"
)
COLOURS = re.compile("\x1b\\[[0-9;]*m")
CHECK_OUTCOME = {"ok": "passed", "FAIL": "failed", "skip": "skipped"}


def junit_outcome(case):
    """The outcome of one testcase element."""
    if case.find("failure") is not None or case.find("error") is not None:
        return "failed"
    if case.find("skipped") is not None or case.get("status") == "disabled":
        return "skipped"
    # These are ctest's words for what failed or could not be started.
    if case.get("status") in ("fail", "notrun"):
        return "failed"
    return "passed"


def read_junit(path):
    for case in ElementTree.parse(path).getroot().iter("testcase"):
        name = case.get("name")
        if case.get("classname") not in (None, "", name):
            name = case.get("classname") + "::" + name
        yield name, junit_outcome(case)


def read_runtests(path):
    """A result shares its line with the progress printed before it, and may
    consist of several words, joined by "&". Older engines cannot write a list
    of all results, so this reads what all engines print."""
    with open(path, encoding="utf-8", errors="replace", newline="\n") as output:
        for line in COLOURS.sub("", output.read()).split("\n"):
            match = RUNTESTS_LINE.search(line)
            if match:
                words = match.group(1).split("&")
                kinds = {RUNTESTS_OUTCOME.get(word, "failed") for word in words}
                yield match.group(2), "failed" if "failed" in kinds else kinds.pop()


def read_check(path):
    with open(path, encoding="utf-8", errors="replace") as lines:
        for line in lines:
            match = re.match(r"(ok|FAIL|skip) +(\S+)", line)
            if match:
                yield match.group(2), CHECK_OUTCOME[match.group(1)]


def read_sum(path):
    with open(path, encoding="utf-8", errors="replace") as lines:
        text = lines.read()
    match = re.search(r"^(\d+) passed, (\d+) failed, (\d+) skipped\s*\Z", text, re.MULTILINE)
    if match:
        passed, failed, skipped = map(int, match.groups())
        names = re.findall(r"\bFAIL +(.+)", text)
        names += ["one of those without a name"] * (failed - len(names))
        yield from (("", "passed") for _ in range(passed))
        yield from ((name, "failed") for name in names[:failed])
        yield from (("", "skipped") for _ in range(skipped))


READERS = {
    "junit": read_junit,
    "runtests": read_runtests,
    "check": read_check,
    "sum": read_sum,
}


def main(arguments):
    if len(arguments) != 2 or arguments[0] not in READERS:
        print(__doc__, file=sys.stderr)
        return 2
    counts = {"passed": 0, "failed": 0, "skipped": 0}
    failed = []
    try:
        for name, outcome in READERS[arguments[0]](arguments[1]):
            counts[outcome] += 1
            if outcome == "failed":
                failed.append(name)
    except (OSError, ElementTree.ParseError) as error:
        print(f"{arguments[1]}: {error}", file=sys.stderr)
        return 1
    print(counts["passed"], counts["failed"], counts["skipped"])
    for name in failed:
        print(name)
    return 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
