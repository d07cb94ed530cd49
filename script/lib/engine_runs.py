"""Runs the engine's own tests with the engine's own run-tests.php, on a copy of them.

A run is bare or monitored. Both use one directory, one after the other and each from a fresh copy
of the tests, so that no path tells them apart.
"""

import collections
import fcntl
import json
import os
import re
import shutil
import signal
import socket
import stat
import struct
import subprocess
import sys
import threading
import time

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "..", "tests",
                                "extension", "wire"))

import fake_collector  # noqa: E402

PARTS = {
    "zend": "Zend/tests",
    "tests": "tests",
    "standard": "ext/standard/tests",
    "spl": "ext/spl/tests",
    "pdo_sqlite": "ext/pdo_sqlite/tests",
    "curl": "ext/curl/tests",
}
# Directories of other parts that these tests use.
COMPANIONS = ["ext/pdo/tests", "sapi/cli/tests", "sapi/cgi/tests"]
# Extensions that tests need and that may be files of their own, each after those it depends on.
SHARED = ["ctype", "tokenizer", "posix", "iconv", "mbstring", "sockets", "xml", "dom", "simplexml",
          "phar", "fileinfo", "gettext", "sysvmsg", "sysvsem", "sysvshm", "shmop", "pdo",
          "pdo_sqlite", "sqlite3", "curl", "zend_test"]
# How a runner prints a result, and how a newer one writes it into its list of results.
SHOWN = {"PASS": "PASSED", "FAIL": "FAILED", "XFAIL": "XFAILED", "SKIP": "SKIPPED",
         "BORK": "BORKED", "WARN": "WARNED", "LEAK": "LEAKED"}
TEST_SECONDS = 120
PROGRESS_SECONDS = 30
PAUSE_SECONDS = 0.2
IFF_UP = 1

# What the runner starts instead of the engine: it records the exit status of a test's own script.
# Whatever else is started, also by the tests, is the engine itself.
LAUNCHER = """#!/bin/sh
{preface}case " $* " in
*" -f $SCRIPT_FILENAME "*) ;;
*) exec "{binary}" "$@" ;;
esac
export TEST_PHP_EXECUTABLE="{php}"
"{binary}" "$@"
status=$?
echo "$status $SCRIPT_FILENAME" >>"{statuses}"
exit $status
"""

Outcome = collections.namedtuple("Outcome", "result status text")
Run = collections.namedtuple("Run", "outcomes seen garbage")


class RunFailed(Exception):
    """The runner itself failed."""


def raise_loopback():
    """A new network has its loopback switched off."""
    with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as control:
        request = struct.pack("16sH14x", b"lo", 0)
        name, flags = struct.unpack("16sH14x", fcntl.ioctl(control, 0x8913, request))
        if not flags & IFF_UP:
            fcntl.ioctl(control, 0x8914, struct.pack("16sH14x", name, flags | IFF_UP))


class Monitor:
    """The collector of a run: monitors all requests, and records which scripts sent theirs."""

    def __init__(self):
        self.names, self.garbage = set(), []
        self._collector = fake_collector.FakeCollector()
        self._collector.reply["transaction.trace.sql.stacktrace.threshold"] = 1
        self._ended = False
        self._reader = threading.Thread(target=self._read, daemon=True)
        self._reader.start()

    def settings(self):
        return ["kaq.status_port=%d" % self._collector.status_port,
                "kaq.data_port=%d" % self._collector.data_port,
                # Every span is kept, so that each passes through all of the code.
                "kaq.method_threshold=0"]

    def stop(self):
        self._ended = True
        self._reader.join()
        self._collector.close()

    def _read(self):
        while True:
            is_last = self._ended
            while self._collector.data_records:
                self._take(self._collector.data_records.pop(0))
            self._collector.status_requests.clear()
            self._collector.events.clear()
            if is_last:
                return
            time.sleep(PAUSE_SECONDS)

    def _take(self, record):
        if record.is_notice:
            return
        try:
            # Where a request has no headers, a comma comes first.
            document = json.loads(record.payload.text.replace("{,", "{"), strict=False)
            self.names.add(document["apm"]["transaction_info"]["t_name"])
        except (AssertionError, ValueError, KeyError) as problem:
            self.garbage.append("%d bytes: %r: %s" % (len(record.raw), problem, record.raw[:60]))


class Suite:
    """The tests of one part of one engine's source."""

    def __init__(self, options, part, say):
        self.part, self.say = part, say
        self.php, self.cgi, self.so, self.jobs = options.php, options.cgi, options.so, options.jobs
        self.source = options.source
        self.home = os.path.join(options.work, options.key)
        self.tree = os.path.join(self.home, "tree")
        self.log = os.path.join(options.logs, "engine-suite-%s-%s" % (options.key, part))
        self.shared = shared_extensions(options.php, options.extension_dir)
        # Older runners know neither of these.
        runner = read_text(os.path.join(self.source, "run-tests.php"))
        self.parallel, self.lists = "-j<workers>" in runner, "-W <file>" in runner

    def clean(self):
        shutil.rmtree(self.home, ignore_errors=True)

    def run(self, monitored, tests=None, stack=None):
        """All tests of the part, several at a time, or the named ones, one at a time. `stack`: the
        bytes of the C stack, if not this machine's usual."""
        self._fresh_copy()
        monitor = Monitor() if monitored else None
        name = ("monitored" if monitored else "bare") + ("" if tests is None else "-alone")
        settings = ["extension=" + path for path in self.shared]
        if monitored:
            settings += ["extension=" + self.so] + monitor.settings()
        try:
            self._run_tests(name, settings, tests, stack)
        finally:
            if monitor:
                monitor.stop()
        outcomes = self._read_results()
        if not outcomes:
            raise RunFailed("no test has a result (full log: %s)" % self.shown)
        if not monitored:
            return Run(outcomes, set(), [])
        return Run(outcomes, {self._test_of(told) for told in monitor.names}, monitor.garbage)

    def _fresh_copy(self):
        self.clean()
        os.makedirs(os.path.join(self.home, "tmp"))
        for directory in [PARTS[self.part]] + COMPANIONS:
            source = os.path.join(self.source, directory)
            if os.path.isdir(source):
                shutil.copytree(source, os.path.join(self.tree, directory), symlinks=True)
        shutil.copy(os.path.join(self.source, "run-tests.php"), self.tree)
        self.launcher = self._write_launcher("php", self.php)
        # The runner's CGI requests have no URI, and a request without one is not monitored.
        self.cgi_launcher = self.cgi and self._write_launcher(
            "php-cgi", self.cgi, "export REQUEST_URI=${REQUEST_URI:-$SCRIPT_FILENAME}\n")

    def _write_launcher(self, name, binary, preface=""):
        path = os.path.join(self.home, name)
        with open(path, "w", encoding="utf-8") as script:
            script.write(LAUNCHER.format(preface=preface, binary=binary, php=self.php,
                                     statuses=os.path.join(self.home, "statuses")))
        os.chmod(path, os.stat(path).st_mode | stat.S_IXUSR)
        return path

    def _run_tests(self, name, settings, tests, stack):
        command = [self.php, "-n", os.path.join(self.tree, "run-tests.php"), "-q", "-n",
                   "-p", self.launcher, "-w", os.path.join(self.home, "failed"), "-g"]
        if self.lists:
            command += ["FAIL,BORK,WARN,LEAK", "-W", os.path.join(self.home, "results")]
        else:
            command.append(",".join(SHOWN))
        for setting in settings:
            command += ["-d", setting]
        if tests is None:
            if self.parallel and self.jobs > 1:
                command.append("-j%d" % self.jobs)
            count = self._count()
            command.append(os.path.join(self.tree, PARTS[self.part]))
        else:
            count = len(tests)
            chosen = os.path.join(self.home, "chosen")
            with open(chosen, "w", encoding="utf-8") as listing:
                listing.writelines(os.path.join(self.tree, test) + "\n" for test in tests)
            command += ["-r", chosen]
        if stack:
            command = ["prlimit", "--stack=%d:" % stack] + command
        self.shown = "%s-%s.log" % (self.log, name)
        with open(self.shown, "w", encoding="utf-8") as log:
            process = subprocess.Popen(command, cwd=self.tree, env=self._environment(), stdout=log,
                                       stderr=subprocess.STDOUT, stdin=subprocess.DEVNULL,
                                       start_new_session=True)
            try:
                self._await(process, name, count)
            finally:
                end_group(process)

    def _environment(self):
        # Some tests run only if told that the engine's own allocator is in use, as it is.
        kept = {key: os.environ[key] for key in ("PATH", "HOME", "USER", "ASAN_OPTIONS")
                if key in os.environ}
        kept.update(NO_INTERACTION="1", REPORT_EXIT_STATUS="1", SKIP_ONLINE_TESTS="1",
                    TEST_TIMEOUT=str(TEST_SECONDS), TEST_PHP_EXECUTABLE=self.launcher,
                    USE_ZEND_ALLOC=os.environ.get("USE_ZEND_ALLOC", "1"),
                    TMPDIR=os.path.join(self.home, "tmp"))
        if self.cgi_launcher:
            kept["TEST_PHP_CGI_EXECUTABLE"] = self.cgi_launcher
        return kept

    def _await(self, process, name, count):
        begin = told = time.monotonic()
        while process.poll() is None:
            time.sleep(0.2)
            now = time.monotonic()
            if now - begin > 120 + count:
                raise RunFailed("%s, %s: out of time after %d seconds" % (
                    self.part, name, now - begin))
            if now - told >= PROGRESS_SECONDS:
                told = now
                self.say("%s, %s: %d of %d tests" % (
                    self.part, name, len(self._result_lines()), count))

    def _count(self):
        return sum(file.endswith(".phpt") for _, _, files in os.walk(
            os.path.join(self.tree, PARTS[self.part])) for file in files)

    def _result_lines(self):
        """(result, index) of each finished test, as the runner names them."""
        if self.lists:
            lines = read_text(os.path.join(self.home, "results")).splitlines()
            return [line.split("\t", 1) for line in lines if "\t" in line]
        # A title may span several lines.
        shown = "|".join(SHOWN)
        found = re.findall(r"^((?:%s)(?:&(?:%s))*) (?:.|\n(?!%s))*? ?\[(\S+\.phpt)\]" % (
            (shown,) * 3), read_text(self.shown), re.MULTILINE)
        return [("&".join(SHOWN[one] for one in result.split("&")), os.path.join(self.tree, path))
                for result, path in found]

    def _read_results(self):
        """Outcomes by the test's path below the source; "via " before one that was run by another
        file, one that runs a whole directory."""
        outcomes, statuses = {}, self._read_statuses()
        for result, index in self._result_lines():
            path = os.path.relpath(re.sub(r"^# .*?: ", "", index), self.tree)
            written = path
            if index.startswith("# "):
                written = os.path.join(PARTS[self.part], os.path.basename(path))
                path = "via " + path
            text = ""
            if result not in ("PASSED", "SKIPPED"):
                text = read_text(os.path.join(self.tree, written[:-len("phpt")] + "out"))
            outcomes[path] = Outcome(result, statuses.get(written, "none"), text)
        return outcomes

    def _read_statuses(self):
        found = {}
        for line in read_text(os.path.join(self.home, "statuses")).splitlines():
            status, script = line.split(" ", 1)
            found[self._test_of(script)] = status
        return found

    def _test_of(self, name):
        return os.path.relpath(name, self.tree) + "t" if name.startswith(self.tree) else name

    def file_to_rerun(self, test):
        """The file that runs a test: itself, or for one with "via " the file that ran it."""
        if not test.startswith("via "):
            return test
        directory = os.path.join(self.source, PARTS[self.part])
        for file in sorted(os.listdir(directory)):
            if file.endswith(".phpt") and "--REDIRECTTEST--" in read_text(
                    os.path.join(directory, file)):
                return os.path.join(PARTS[self.part], file)
        raise RunFailed("no file runs " + test)


def read_text(path):
    try:
        with open(path, encoding="utf-8", errors="surrogateescape") as file:
            return file.read()
    except FileNotFoundError:
        return ""


def shared_extensions(php, directory):
    """The files of the extensions that the tests need and that are not built in."""
    listed = subprocess.run([php, "-n", "-m"], stdout=subprocess.PIPE, stdin=subprocess.DEVNULL,
                            timeout=60, check=True).stdout.decode().lower().split()
    paths = [os.path.join(directory, name + ".so") for name in SHARED if name not in listed]
    return [path for path in paths if os.path.exists(path)]


def end_group(process):
    """Ends the runner and what its tests left running."""
    for number in (signal.SIGTERM, signal.SIGKILL):
        try:
            os.killpg(process.pid, number)
        except ProcessLookupError:
            break
        try:
            process.wait(timeout=5)
        except subprocess.TimeoutExpired:
            continue
        time.sleep(0.2)
    process.wait()
