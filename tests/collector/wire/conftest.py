"""Fixtures: the collector, the engine with the extension, and what brings them together."""
import os
import pathlib
import re
import signal
import subprocess
import sys

import pytest

sys.path.append(str(pathlib.Path(__file__).resolve().parents[2] / "extension" / "wire"))

START_SECONDS = 20
STOP_SECONDS = 20
RUN_SECONDS = 60
# What the collector says in its log about what others do wrong.
COMPLAINT = re.compile(r"[-\d]+ [:\d]+ kaq: (warning: \d+ (handshakes|payloads|HTTP) .*|"
                       r"warning: payloads that arrive or wait .*|[.\d]+ % of the requests are recorded .*)\n")
PORTS = re.compile(r"handshakes (\d+), payloads (\d+), http (\d+); store (.*)\n")


class Collector:
    """A running collector with a store of its own, on free ports."""

    def __init__(self, program, store, arguments=(), environment=None):
        self.program, self.store = program, store
        self.log = ""
        self.process = subprocess.Popen(
            [program, "collect", "--handshake", "0", "--data", "0", "--http", "0", "--store",
             str(store), *arguments],
            stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True,
            env={**os.environ, **(environment or {})})
        line = self.process.stdout.readline()
        found = PORTS.search(line)
        if not found:
            self.process.kill()
            raise AssertionError("%r %s" % (line, self.process.communicate()[1]))
        self.handshake, self.data, self.http = (int(port) for port in found.groups()[:3])
        self.token = (store / "token").read_text().strip()

    def run(self, *arguments, seconds=RUN_SECONDS):
        """A verb of the program, to its end."""
        return subprocess.run([self.program, *arguments, "--store", str(self.store)],
                              capture_output=True, text=True, timeout=seconds)

    def start(self, *arguments):
        """A verb that goes on, to be ended by the test."""
        return subprocess.Popen([self.program, *arguments, "--store", str(self.store)],
                                stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)

    def stop(self, number=signal.SIGTERM):
        """(exit status, what it said on stderr but for complaints); `log` has all of it."""
        if self.process.poll() is None:
            self.process.send_signal(number)
        try:
            _, self.log = self.process.communicate(timeout=STOP_SECONDS)
        except subprocess.TimeoutExpired:
            self.process.kill()
            self.process.communicate()
            raise
        return self.process.returncode, COMPLAINT.sub("", self.log)


@pytest.fixture
def collector(tmp_path):
    store = tmp_path / "store"
    store.mkdir()
    running = Collector(os.environ["KAQ_COLLECTOR"], store)
    yield running
    status, said = running.stop()
    assert (status, said) == (0, "")


class Php:
    """The engine with the extension, which talks to a collector."""

    def __init__(self, directory, collector):
        self.directory, self.collector = directory, collector

    def page(self, source, uri="/shop/cart?item=1", settings=(), environment=None):
        """One web request that runs this source; what the page printed."""
        path = self.directory / "page.php"
        path.write_text(source)
        command = [os.environ["KAQ_PHP_CGI"], "-n", "-d", "extension=" + os.environ["KAQ_SO"],
                   "-d", "kaq.status_port=%d" % self.collector.handshake,
                   "-d", "kaq.data_port=%d" % self.collector.data]
        for setting in settings:
            command += ["-d", setting]
        given = {"REQUEST_URI": uri, "REQUEST_METHOD": "GET", "REDIRECT_STATUS": "1",
                 "SCRIPT_FILENAME": str(path), "QUERY_STRING": uri.partition("?")[2],
                 "PATH": os.environ["PATH"], **(environment or {})}
        done = subprocess.run(command, capture_output=True, timeout=RUN_SECONDS, env=given)
        assert done.returncode == 0, done.stderr
        return done.stdout.partition(b"\r\n\r\n")[2].decode()


@pytest.fixture
def php(tmp_path, collector):
    if not os.environ.get("KAQ_PHP_CGI"):
        pytest.skip("this engine has no php-cgi")
    return Php(tmp_path, collector)
