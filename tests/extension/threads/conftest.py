"""Fixtures: a collector that is quick, and `site`, an Apache whose threads it watches."""
import os
import pathlib
import subprocess
import sys
import tempfile
import time

import pytest

HERE = pathlib.Path(__file__).resolve().parent
for directory in (HERE.parent / "wire", HERE):
    sys.path.insert(0, str(directory))

import apache  # noqa: E402
import engines  # noqa: E402
import page_calls  # noqa: E402
from payloads import Payload  # noqa: E402

# Without stack traces of queries, however slow the machine makes them.
REPLY = ('{"instance.id":"i-1","instance.status":920,'
         '"transaction.trace.sql.stacktrace.threshold":1000}')
SETTLE_DEADLINE = 30.0


@pytest.fixture(scope="session")
def engine():
    found = engines.find_engine()
    assert found.is_zts, "these tests are for thread-safe engines"
    return found


class RacePrograms:
    """What race/CMakeLists.txt builds, in `directory`; `launcher` and `environment` to run it."""

    def __init__(self, engine, directory):
        self.directory = pathlib.Path(directory)
        built = subprocess.run(
            "cmake -S '%s' -B '%s' -DCMAKE_CXX_COMPILER=g++ -DPHP_CONFIG='%s' && cmake --build '%s'"
            " -j %d" % (HERE / "race", directory, engine.php_config, directory, os.cpu_count()),
            shell=True, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.STDOUT,
            timeout=600, text=True)
        assert built.returncode == 0, built.stdout[-5000:]
        self.sanitizer = (self.directory / "sanitizer").read_text(encoding="ascii").strip()
        # A sanitizer may not know where to put its shadow of an address space that is all random.
        fixed = ["setarch", "-R"]
        able = subprocess.run([*fixed, "true"], stdin=subprocess.DEVNULL, capture_output=True)
        self.launcher = fixed if able.returncode == 0 else []
        self.environment = engines.environment({"TSAN_OPTIONS": "exitcode=66"})


@pytest.fixture(scope="session")
def race_programs(engine):
    """Built where KAQ_RACE_BUILD says, and kept there, or for this run."""
    with tempfile.TemporaryDirectory(prefix="kaq-threads-") as directory:
        yield RacePrograms(engine, os.environ.get("KAQ_RACE_BUILD", directory))


class Collector:
    def __init__(self, directory):
        self._records = pathlib.Path(directory) / "records"
        self.process = subprocess.Popen(
            [sys.executable, str(HERE / "quick_collector.py"), REPLY, str(self._records)],
            stdin=subprocess.PIPE, stdout=subprocess.PIPE, env=engines.environment())
        self.status_port, self.data_port = map(int, self.process.stdout.readline().split())

    def close(self):
        self.process.stdin.close()
        try:
            self.process.wait(10)
        except subprocess.TimeoutExpired:
            self.process.kill()
            self.process.wait(10)
        self.process.stdout.close()

    def records(self):
        """The complete lines that have come so far; one may be in the middle of being written."""
        written = self._records.read_bytes()
        return written[:written.rfind(b"\n") + 1].splitlines(keepends=True)

    def payloads(self, numbers):
        """The payloads of the requests of these numbers, as lists by number. Requests end after
        their answers: waits until there is one for each, but not for ever."""
        deadline = time.monotonic() + SETTLE_DEADLINE
        read, found = 0, {}
        while True:
            records = self.records()
            for record in records[read:]:
                if not record.startswith(b"message:\t"):
                    payload = Payload(record)
                    found.setdefault(page_calls.number_of(payload), []).append(payload)
            read = len(records)
            if all(number in found for number in numbers) or time.monotonic() > deadline:
                return found
            time.sleep(0.05)

    def notices(self):
        return [record for record in self.records() if record.startswith(b"message:\t")]


@pytest.fixture(scope="session")
def preload(engine):
    """What Apache needs loaded first, see signals_stay_apaches.cpp; None if nothing."""
    if not engine.has_zend_signals:
        yield None
        return
    with tempfile.TemporaryDirectory(prefix="kaq-threads-") as directory:
        library = os.path.join(directory, "signals_stay_apaches.so")
        subprocess.run(
            ["g++", "-std=gnu++17", "-Wall", "-Wextra", "-Werror", "-O1", "-shared", "-fPIC", "-o",
             library, str(HERE / "signals_stay_apaches.cpp"), "-ldl"],
            check=True, timeout=120, stdin=subprocess.DEVNULL)
        os.chmod(directory, 0o755)
        yield library


@pytest.fixture
def collector():
    with tempfile.TemporaryDirectory(prefix="kaq-threads-") as directory:
        started = Collector(directory)
        yield started
        started.close()


@pytest.fixture
def start_site(engine, collector, preload):
    """start_site(loaded=True): a running Apache, ended with the test."""
    if not engine.apache_module:
        pytest.skip("there is no Apache module of this engine")
    started = []
    with tempfile.TemporaryDirectory(prefix="kaq-threads-") as parent:
        def start(loaded=True):
            directory = os.path.join(parent, str(len(started)))
            os.mkdir(directory)
            os.chmod(parent, 0o755)
            settings = "" if not loaded else (
                'extension="%s"\nkaq.status_port=%d\nkaq.data_port=%d\n' % (
                    engine.so, collector.status_port, collector.data_port))
            server = apache.Apache(engine, directory, {
                "page.php": page_calls.PAGE, "who.php": page_calls.WHO}, settings, preload)
            started.append(server)
            return server.start()

        yield start
        for server in started:
            server.stop()
