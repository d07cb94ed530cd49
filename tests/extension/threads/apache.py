"""Apache of the tests' own, with the event model and the thread-safe engine's module: on loopback,
on a free port, in a temporary directory, apart from any service of the machine."""
import http.client
import os
import pathlib
import re
import signal
import subprocess
import time

import engines
import loopback

THREADS = 16
# So many may be there at once: one that ends overlaps with the next ones.
GENERATIONS = 16
START_DEADLINE = 30.0
STOP_DEADLINE = 30.0

CONFIG = """
LogLevel notice
LogFormat "%{{pid}}P %{{tid}}P %>s %q" calls
CustomLog "{directory}/access.log" calls
ServerLimit {generations}
ThreadLimit {threads}
ThreadsPerChild {threads}
MinSpareThreads {threads}
MaxSpareThreads {threads}
MaxRequestWorkers {threads}
MaxConnectionsPerChild 0
CoreDumpDirectory "{directory}"
"""


class Answer:
    def __init__(self, status, body, process):
        self.status, self.body, self.process = status, body, process


class Apache:
    """`pages` maps file names to sources; `ini` is the text of php.ini; `preload` is a library to
    load first, or None."""

    def __init__(self, engine, directory, pages, ini, preload=None):
        self.engine, self.program = engine, loopback.program("apache2")
        self.directory = pathlib.Path(directory)
        self.environment = engines.environment({"PATH": loopback.SEARCH})
        if preload:
            self.environment["LD_PRELOAD"] = str(preload)
        self.process = None
        os.chmod(directory, 0o755)
        (self.directory / "pages").mkdir()
        for name, source in pages.items():
            (self.directory / "pages" / name).write_text(source, encoding="ascii")
        (self.directory / "php.ini").write_text(ini, encoding="ascii")

    def start(self):
        """A free port may be taken by somebody else before Apache has it: tried again."""
        for _ in range(3):
            self.port = loopback.free_port()
            (self.directory / "apache.conf").write_text(
                loopback.apache_configuration(self.engine, "event", self.directory, self.port)
                + CONFIG.format(directory=self.directory, threads=THREADS,
                                generations=GENERATIONS), encoding="ascii")
            with open(self.directory / "output", "ab") as output:
                self.process = subprocess.Popen(
                    [self.program, "-d", str(self.directory),
                     "-f", str(self.directory / "apache.conf"), "-DFOREGROUND"],
                    env=self.environment, cwd=self.directory,
                    stdin=subprocess.DEVNULL, stdout=output, stderr=output,
                    preexec_fn=loopback.ends_with_parent(signal.SIGTERM))
            if self._becomes_ready():
                return self
            self.stop()
        raise AssertionError("Apache did not start: %s" % self._told()[-3000:])

    def _becomes_ready(self):
        """Ready are all threads once the server says so; none has served a request then."""
        deadline = time.monotonic() + START_DEADLINE
        while self.process.poll() is None and time.monotonic() < deadline:
            if self.generations() > 0:
                return True
            time.sleep(0.02)
        return False

    def _told(self):
        parts = [self.directory / "output", self.directory / "server.log"]
        return "".join(part.read_text(encoding="utf-8", errors="replace")
                       for part in parts if part.exists())

    def generations(self):
        """How often the server has started serving: once, and once per restart."""
        return len(re.findall(r"AH00489: .* resuming normal operations", self._told()))

    def get(self, path, seconds=30.0):
        connection = http.client.HTTPConnection("127.0.0.1", self.port, timeout=seconds)
        try:
            connection.request("GET", path)
            response = connection.getresponse()
            body = response.read()
            return Answer(response.status, body, response.getheader("X-Process"))
        finally:
            connection.close()

    def _children(self):
        path = "/proc/%d/task/%d/children" % (self.process.pid, self.process.pid)
        return set(pathlib.Path(path).read_text(encoding="ascii").split())

    def restart_gracefully(self):
        """Returns once a new process has answered a request and those before it have ended.

        They read their orders from one pipe. Once a crash has upset the count of processes, one can
        take what was meant for another, which then goes on serving: that is not waited for.
        """
        before = self._children()
        expected = self.generations() + 1
        self.process.send_signal(signal.SIGUSR1)
        deadline = time.monotonic() + START_DEADLINE
        while time.monotonic() < deadline:
            if (self.generations() >= expected and self.get("/who.php").process not in before and
                    (self.children_that_crashed() or all(map(_has_ended, before)))):
                return
            time.sleep(0.02)
        raise AssertionError("no new generation: %s" % self._told()[-3000:])

    def stop(self):
        """Returns the status of the server."""
        if self.process is None:
            return None
        if self.process.poll() is None:
            self.process.terminate()
            try:
                self.process.wait(STOP_DEADLINE)
            except subprocess.TimeoutExpired:
                self.process.kill()
                self.process.wait(STOP_DEADLINE)
        status, self.process = self.process.returncode, None
        return status

    def children_that_crashed(self):
        """What the server says of children that ended by a signal."""
        return re.findall(r"AH0005[12]: (child pid \d+ exit signal .*)", self._told())

    def complaints(self):
        """What stands in the error log besides the server's notices of its life and its opinion
        that so many clients want more threads."""
        return [line for line in self._told().splitlines()
                if not re.search(r"\[(mpm_event|core):notice\]|MaxRequestWorkers", line)]

    def served(self):
        """(process, thread, status, query) of each request, in the order in which they ended."""
        text = (self.directory / "access.log").read_text(encoding="ascii")
        return [tuple(line.split(" ")) for line in text.splitlines()]


def _has_ended(process):
    """Also when Apache has not asked for its status yet."""
    try:
        stat = pathlib.Path("/proc", process, "stat").read_text(encoding="ascii")
    except (FileNotFoundError, ProcessLookupError):
        return True
    return stat.rpartition(")")[2].split()[0] in "ZX"
