"""Fixtures: servers that live as long as the test run, and `watch`, which runs a script bare and
monitored by a scripted collector."""
import pathlib
import signal
import sys

import pytest

HERE = pathlib.Path(__file__).resolve().parent
for directory in (HERE.parent / "wire", HERE):
    sys.path.insert(0, str(directory))

import drivers  # noqa: E402
import engines  # noqa: E402
import expected  # noqa: E402
import loopback  # noqa: E402
import server_interfaces  # noqa: E402
import server_processes  # noqa: E402
from fake_collector import FakeCollector  # noqa: E402
from payloads import HEX16  # noqa: E402

# So that no driver finds a server of the machine by itself.
NOWHERE = {"PGHOST": "127.0.0.1", "PGPORT": "1", "PGUSER": "nobody", "PGDATABASE": "nothing"}
NOWHERE_SETTINGS = {"mysqli.default_socket": "/nonexistent/server.sock",
                    "mysqli.default_port": "1", "mysqli.default_host": ""}

# Members of a span in which something went wrong.
FAILURE = ("if", "ie", "ei", "mst")


def pytest_configure():
    """A run that is told to end stops its servers and removes their directories."""
    signal.signal(signal.SIGTERM, lambda *_: pytest.exit("told to end", 143))


def _session_server(kind):
    @pytest.fixture(scope="session")
    def server():
        try:
            started = kind()
        except loopback.Unavailable as reason:
            pytest.fail(str(reason))
        yield started
        started.close()
    return server


mariadb = _session_server(server_processes.MariaDb)
postgresql = _session_server(server_processes.PostgreSql)
redis = _session_server(server_processes.Redis)
memcached = _session_server(server_processes.Memcached)


@pytest.fixture(scope="session")
def engine():
    return engines.find_engine()


@pytest.fixture(scope="session")
def known_drivers(engine):
    return drivers.Drivers(engine)


@pytest.fixture
def closed_port():
    return loopback.free_port()


@pytest.fixture
def collector():
    listening = FakeCollector()
    listening.reply["transaction.trace.sql.stacktrace.threshold"] = 3600
    yield listening
    listening.close()


class Watch:
    """Runs scripts, given without the opening tag, with some drivers loaded.

    `given` are variables that the script finds set.
    """

    def __init__(self, engine, known_drivers, collector, directory):
        self.engine, self.collector, self.directory = engine, collector, directory
        self._known = known_drivers
        self._drivers, self._given, self._bare = [], {}, []
        self._servers = []

    def load(self, *names, **given):
        try:
            self._drivers = self._known.options(*names)
        except drivers.Missing as reason:
            pytest.skip(str(reason))
        self._given = given
        return self

    def has_method(self, class_name, method):
        told = engines.run([self.engine.php, "-n", *self._drivers, "-r",
                            "var_dump(method_exists('%s', '%s'));" % (class_name, method)])
        return told.stdout.strip() == b"bool(true)"

    def script(self, source, strict=False, name="job.php"):
        path = pathlib.Path(self.directory) / name
        head = "declare(strict_types=1);\n" if strict else ""
        for variable, value in self._given.items():
            text = str(value) if isinstance(value, int) else "'%s'" % value
            head += "$%s = %s;\n" % (variable, text)
        path.write_text("<?php\n" + head + source, encoding="utf-8")
        return path

    def options(self, monitored, settings=None):
        options = ["-n", *self._drivers, *engines.ini_options(NOWHERE_SETTINGS)]
        if monitored:
            options += ["-d", "extension=" + self.engine.so]
            options += engines.ini_options({
                "kaq.status_port": self.collector.status_port,
                "kaq.data_port": self.collector.data_port, **(settings or {})})
        return options

    def run(self, path, monitored, settings=None):
        return engines.run([self.engine.php, *self.options(monitored, settings), str(path)],
                           env=NOWHERE)

    def both(self, source, strict=False, settings=None):
        """Runs it bare and monitored; returns both results, unlike as they may be."""
        path = self.script(source, strict)
        bare = self.run(path, False)
        return bare, self.run(path, True, settings)

    def payload(self, source, strict=False, settings=None, output=None):
        """The payload of a script that nobody can tell from its bare run. `output`, if given, is
        what it must print."""
        bare, monitored = self.both(source, strict, settings)
        assert monitored.outcome == bare.outcome
        if output is not None:
            assert bare.stdout.decode() == output
        return self.collector.payload

    def calls(self, source, *calls, besides=(), **arguments):
        """Checks that the script gives exactly these spans below the root; `besides` names members
        that are left out of account, as is what the drivers complained of."""
        found = self.payload(source, **arguments).spans
        told = [[(key, value) for key, value in span.items() if key not in (*FAILURE, *besides)]
                for span in found[1:]]
        assert told == expected.spans(calls, found)
        for span in found[1:]:
            assert HEX16.match(span["si"])
            assert found[0]["st"] <= span["st"] <= span["et"] <= found[0]["et"]

    def server(self, source, settings=None):
        """The engine's own web server, which answers every request with the script."""
        started = server_interfaces.BuiltinServer(
            self.engine, self.options(True, settings), self.script(source, name="router.php"))
        self._servers.append(started)
        return started

    def close(self):
        while self._servers:
            self._servers.pop().close()


@pytest.fixture
def watch(engine, known_drivers, collector, tmp_path):
    running = Watch(engine, known_drivers, collector, tmp_path)
    yield running
    running.close()
