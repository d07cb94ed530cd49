"""What script/lib/jobs.sh tells of jobs that fail, hang, die or say nothing, and what it leaves
running."""
import os
import pathlib
import re
import signal
import subprocess
import sys
import tempfile
import time
import unittest

LIB = pathlib.Path(__file__).resolve().parents[2] / "script" / "lib"
DEADLINE = 60.0

# A job is a name, its bound in seconds, the job before it and a shell command.
DRIVER = r"""
set -euo pipefail
source "$1/log.sh"
source "$1/report.sh"
source "$1/jobs.sh"
at_once=$2
shift 2
while (($# > 0)); do
	kaq_add_job "$1" "$2" "$3" \
		bash -c 'source "$0/log.sh"; source "$0/report.sh"; eval "$1"' "$LIB" "$4"
	shift 4
done
kaq_run_jobs "$at_once"
kaq_report_sum
"""

PASSES = "kaq_report_line ok %s 3 0 1 0"
FAILS = "kaq_report_line FAIL %s 2 1 0 0"
# Asks for nothing better than to go on; a daemon of its own that will not listen besides.
HANGS = """
(setsid bash -c 'trap "" TERM; echo $$ >"$1"; while :; do sleep 1; done' - \
	%(directory)s/daemon.pid >/dev/null 2>&1 &)
tail -f %(directory)s/idle >/dev/null 2>&1 & echo $! >%(directory)s/child.pid
wait
"""


def is_alive(pid):
    try:
        with open("/proc/%d/stat" % pid, encoding="ascii") as stat:
            return stat.read().rpartition(")")[2].split()[0] != "Z"
    except OSError:
        return False


def command_of(pid):
    with open("/proc/%d/cmdline" % pid, encoding="utf-8") as command:
        return command.read()


class Jobs(unittest.TestCase):
    def setUp(self):
        self._scratch = tempfile.TemporaryDirectory(prefix="kaq-jobs-")
        self.addCleanup(self._scratch.cleanup)
        self.directory = pathlib.Path(self._scratch.name)
        (self.directory / "run").mkdir()
        (self.directory / "idle").touch()

    def start(self, *jobs, at_once=2):
        """Starts jobs, each a tuple (name, command[, after[, bound]])."""
        arguments = []
        for name, command, *rest in jobs:
            after, bound = (*rest, *("", DEADLINE)[len(rest):])
            arguments += [name, str(bound), after, command]
        self.process = subprocess.Popen(
            ["bash", "-c", DRIVER, "-", str(LIB), str(at_once), *arguments],
            stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True,
            env=dict(os.environ, LIB=str(LIB), XDG_CACHE_HOME=str(self.directory),
                     KAQ_RUN=str(self.directory / "run"), KAQ_GRACE="0.5"))
        self.addCleanup(self._end)

    def _end(self):
        # A test that failed may have left some, which keep the rest from ending.
        for path in self.directory.glob("*.pid"):
            pid = int(path.read_text(encoding="ascii"))
            if is_alive(pid) and str(self.directory) in command_of(pid):
                os.kill(pid, signal.SIGKILL)
        self.process.kill()
        self.process.communicate()

    def run_jobs(self, *jobs, at_once=2):
        """Returns the lines of standard output without their spaces and times, and the status."""
        self.start(*jobs, at_once=at_once)
        out, self.errors = self.process.communicate(timeout=DEADLINE)
        lines = [re.sub(r"\s+(\d+m)?\d+s\b", "", re.sub(r"  +", " ", line))
                 for line in out.splitlines()]
        return lines, self.process.returncode

    def pid_in(self, name):
        """The process id that a job writes into a file."""
        path, deadline = self.directory / (name + ".pid"), time.monotonic() + DEADLINE
        while not path.exists() or not path.read_text(encoding="ascii").endswith("\n"):
            self.assertLess(time.monotonic(), deadline, name)
            time.sleep(0.02)
        return int(path.read_text(encoding="ascii"))

    def assert_gone(self, *pids):
        deadline = time.monotonic() + DEADLINE
        while any(map(is_alive, pids)):
            self.assertLess(time.monotonic(), deadline, "still running")
            time.sleep(0.02)

    def hanging(self):
        return HANGS % {"directory": self.directory}

    def test_sum_stands_alone_on_the_last_line_and_all_is_well_if_nothing_failed(self):
        self.assertEqual(self.run_jobs(("a", PASSES % "a"), ("b", PASSES % "b"), at_once=1), ([
            "ok a 3 passed 0 failed 1 skipped", "ok b 3 passed 0 failed 1 skipped",
            "6 passed, 0 failed, 2 skipped"], 0))

    def test_failure_makes_the_status_1_and_the_others_run_all_the_same(self):
        self.assertEqual(self.run_jobs(("a", FAILS % "a"), ("b", PASSES % "b"), at_once=1), ([
            "FAIL a 2 passed 1 failed 0 skipped", "ok b 3 passed 0 failed 1 skipped",
            "5 passed, 1 failed, 1 skipped"], 1))

    def test_job_that_takes_too_long_is_ended_with_all_that_it_started_and_fails(self):
        told = self.run_jobs(("a", self.hanging(), "", 1), ("b", PASSES % "b"), at_once=1)
        self.assertEqual(told, ([
            "FAIL a 0 passed 1 failed 0 skipped out of time",
            "ok b 3 passed 0 failed 1 skipped", "3 passed, 1 failed, 1 skipped"], 1))
        self.assertFalse(is_alive(self.pid_in("child")) or is_alive(self.pid_in("daemon")))

    def test_job_that_is_killed_fails(self):
        self.assertEqual(self.run_jobs(("a", "kill -9 $$")), ([
            "FAIL a 0 passed 1 failed 0 skipped ended by signal 9",
            "0 passed, 1 failed, 0 skipped"], 1))

    def test_job_that_is_killed_after_it_told_of_a_failure_fails_twice(self):
        self.assertEqual(self.run_jobs(("a", FAILS % "first" + "; kill -9 $$")), ([
            "FAIL first 2 passed 1 failed 0 skipped",
            "FAIL a 0 passed 1 failed 0 skipped ended by signal 9",
            "2 passed, 2 failed, 0 skipped"], 1))

    def test_job_that_ends_with_a_status_of_its_own_fails_once(self):
        told = self.run_jobs(("a", "exit 7"), ("b", FAILS % "b" + "; exit 1"), at_once=1)
        self.assertEqual(told, ([
            "FAIL a 0 passed 1 failed 0 skipped ended with status 7",
            "FAIL b 2 passed 1 failed 0 skipped", "2 passed, 2 failed, 0 skipped"], 1))

    def test_job_that_reports_nothing_fails(self):
        self.assertEqual(self.run_jobs(("a", "true")), ([
            "FAIL a 0 passed 1 failed 0 skipped reported nothing",
            "0 passed, 1 failed, 0 skipped"], 1))

    def test_log_of_a_job_that_was_ended_is_shown_and_none_of_a_run_before(self):
        for name, text in (("a", "old"), ("b-1", "old")):
            path = self.directory / "kaq" / "logs" / (name + ".log")
            path.parent.mkdir(parents=True, exist_ok=True)
            path.write_text(text, encoding="ascii")
        lines, _ = self.run_jobs(
            ("a", "exit 7"), ("b 1", "echo new >$KAQ_LOGS/b-1.log; exit 7"), at_once=1)
        self.assertEqual([line for line in lines if "|" in line], [" | new"])

    def test_what_follows_a_failed_job_is_not_run_and_what_follows_a_good_one_is(self):
        lines, status = self.run_jobs(
            ("build 1", FAILS % "a" + "; exit 1"), ("suite 1", PASSES % "x", "build 1"),
            ("last 1", PASSES % "x", "suite 1"),
            ("build 2", PASSES % "b2"), ("suite 2", PASSES % "s2", "build 2"), at_once=3)
        self.assertEqual((sorted(lines), status), ([
            "8 passed, 1 failed, 2 skipped", "FAIL a 2 passed 1 failed 0 skipped",
            "ok b2 3 passed 0 failed 1 skipped", "ok s2 3 passed 0 failed 1 skipped"], 1))
        self.assertIn("suite 1: not run, because build 1 failed", self.errors)

    def test_nothing_that_passed_is_no_success(self):
        self.assertEqual(self.run_jobs(), (["0 passed, 0 failed, 0 skipped"], 1))

    def test_jobs_run_side_by_side_but_no_more_than_said(self):
        # Each waits for the other's file.
        meets = "cd %s; touch {0}; until [[ -e {1} ]]; do sleep 0.02; done; %s" % (
            self.directory, PASSES % "{0}")
        lines, _ = self.run_jobs(("a", meets.format("a", "b")), ("b", meets.format("b", "a")))
        self.assertEqual(lines[-1], "6 passed, 0 failed, 2 skipped", self.errors)
        alone = "cd %s; mkdir under-way; sleep 0.2; rmdir under-way; %s" % (self.directory, PASSES)
        (self.directory / "run" / "counts").unlink()
        lines, _ = self.run_jobs(*((name, "set -e; " + alone % name) for name in "cdef"), at_once=1)
        self.assertEqual(lines[-1], "12 passed, 0 failed, 4 skipped")

    def test_output_of_a_job_comes_in_one_piece(self):
        lines, _ = self.run_jobs(
            ("a", "for i in 1 2 3 4 5; do echo a; sleep 0.1; done; " + PASSES % "a"),
            ("b", "for i in 1 2 3 4 5; do echo b; sleep 0.1; done; " + PASSES % "b"))
        self.assertIn("".join(line[0] for line in lines if len(line) == 1),
                      ("aaaaabbbbb", "bbbbbaaaaa"))

    def test_nothing_runs_on_when_the_run_is_told_to_end_and_no_sum_is_told(self):
        for number, status in ((signal.SIGTERM, 143), (signal.SIGINT, 130), (signal.SIGHUP, 143)):
            with self.subTest(signal=number):
                self.start(("a", self.hanging()), ("b", PASSES % "b", "a"))
                pids = [self.pid_in("child"), self.pid_in("daemon")]
                self.process.send_signal(number)
                out, _ = self.process.communicate(timeout=DEADLINE)
                self.assertEqual((out, self.process.returncode), ("", status))
                self.assertFalse(any(map(is_alive, pids)))
                for name in ("child", "daemon"):
                    (self.directory / (name + ".pid")).unlink()

    def test_nothing_runs_on_when_the_run_is_killed(self):
        self.start(("a", self.hanging()))
        pids = [self.pid_in("child"), self.pid_in("daemon")]
        self.process.kill()
        self.assert_gone(*pids)

    def test_what_a_job_leaves_behind_ends_with_it(self):
        leaves = "cd %s; (setsid tail -f %s/idle >/dev/null 2>&1 & echo $! >left.pid); %s" % (
            self.directory, self.directory, PASSES % "a")
        lines, status = self.run_jobs(("a", leaves))
        self.assertEqual((lines[-1], status), ("3 passed, 0 failed, 1 skipped", 0))
        self.assertFalse(is_alive(self.pid_in("left")))

    def test_job_hears_the_signals_that_a_shell_in_the_background_does_not(self):
        program = (
            "import signal; print(signal.getsignal(signal.SIGINT) == signal.default_int_handler,"
            " signal.pthread_sigmask(signal.SIG_BLOCK, []))")
        lines, _ = self.run_jobs(("a", "%s -c '%s'; %s" % (sys.executable, program, PASSES % "a")))
        self.assertEqual(lines[0], "True set()")


if __name__ == "__main__":
    unittest.main()
