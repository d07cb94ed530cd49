"""Fixtures: the engine under test, a scripted collector, and `wire`, which brings them together."""
import itertools
import os
import pathlib
import sys

import pytest

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))

# So that a failed assertion of theirs tells what was compared.
pytest.register_assert_rewrite("standins", "curl_runs", "crash_runs")

import engines  # noqa: E402
import preloads  # noqa: E402
import server_interfaces  # noqa: E402
import services  # noqa: E402
import standins  # noqa: E402
from fake_collector import ENABLED, FakeCollector  # noqa: E402


@pytest.fixture(scope="session")
def engine():
    return engines.find_engine()


@pytest.fixture
def collector():
    listening = FakeCollector()
    yield listening
    listening.close()


class Wire:
    """Runs scripts against one collector. Sources are given without the opening tag."""

    def __init__(self, engine, collector, directory):
        self.engine, self.collector, self.directory = engine, collector, pathlib.Path(directory)
        self._servers = []
        self._inis = itertools.count(1)

    def script(self, source, name="job.php"):
        path = self.directory / name
        path.parent.mkdir(parents=True, exist_ok=True)
        code = source if isinstance(source, bytes) else source.encode("utf-8", "surrogateescape")
        path.write_bytes(b"<?php\n" + code)
        return path

    def options(self, settings=None, loaded=True, ini=None):
        """Engine options; `loaded` False leaves the extension and its settings out.

        `ini` is the text of a php.ini; without it the engine reads none.
        """
        if ini is None:
            options = ["-n"]
        else:
            path = self.directory / ("php-%d.ini" % next(self._inis))
            path.write_bytes(ini if isinstance(ini, bytes) else ini.encode())
            options = ["-c", str(path)]
        given = {"kaq.status_port": self.collector.status_port,
                 "kaq.data_port": self.collector.data_port, **self.engine.tracking,
                 **(settings or {})}
        if not loaded:
            given = {name: value for name, value in given.items() if not name.startswith("kaq.")}
        else:
            options += ["-d", "extension=" + self.engine.so]
        return options + engines.ini_options(given)

    def cli(self, source="", *arguments, settings=None, loaded=True, ini=None, env=None,
            stdin=None, name="job.php"):
        """Runs a script by its absolute path; source may be the path of an existing one."""
        path = source if isinstance(source, pathlib.Path) else self.script(source, name)
        command = [self.engine.php, *self.options(settings, loaded, ini), str(path), *arguments]
        return engines.run(command, env=env, stdin=stdin)

    def php(self, *arguments, settings=None, loaded=True, env=None, stdin=None, cwd=None):
        """Runs the command line with arguments as they are."""
        command = [self.engine.php, *self.options(settings, loaded), *arguments]
        return engines.run(command, env=env, stdin=stdin, cwd=cwd)

    def cgi(self, source="", settings=None, loaded=True, ini=None, body=None, name="page.php",
            **variables):
        self.need(self.engine.cgi, "php-cgi")
        path = source if isinstance(source, pathlib.Path) else self.script(source, name)
        return server_interfaces.run_cgi(
            self.engine, path, self.options(settings, loaded, ini), variables, body)

    def fpm(self, settings=None, loaded=True):
        self.need(self.engine.fpm, "php-fpm")
        return self._keep(server_interfaces.FpmServer(self.engine, self.options(settings, loaded)))

    def cgi_server(self, settings=None, loaded=True, ini=None):
        self.need(self.engine.cgi, "php-cgi")
        return self._keep(
            server_interfaces.CgiServer(self.engine, self.options(settings, loaded, ini)))

    def builtin_server(self, source="", settings=None, loaded=True):
        router = source if isinstance(source, pathlib.Path) else self.script(source, "router.php")
        return self._keep(
            server_interfaces.BuiltinServer(self.engine, self.options(settings, loaded), router))

    def same_as_bare(self, run, **arguments):
        """Runs it with and without the extension and checks that nobody could tell which is which.

        `run` is one of cli, php and cgi with its arguments bound; the loaded result is returned.
        """
        bare, loaded = run(loaded=False, **arguments), run(loaded=True, **arguments)
        assert loaded.outcome == bare.outcome
        return loaded

    @staticmethod
    def need(binary, name):
        if not binary:
            pytest.skip("this engine has no " + name)

    def _keep(self, server):
        self._servers.append(server)
        return server

    def close(self):
        while self._servers:
            self._servers.pop().close()


@pytest.fixture
def wire(engine, collector, tmp_path):
    running = Wire(engine, collector, tmp_path)
    yield running
    running.close()


@pytest.fixture
def other_collector():
    """A second collector, for settings that point somewhere else."""
    listening = FakeCollector()
    yield listening
    listening.close()


class Worker:
    """One long-lived process that answers every request with the same script."""

    def __init__(self, wire, kind):
        self.wire, self.kind = wire, kind

    def open(self, source, settings=None):
        self.path = self.wire.script(source, "page.php")
        if self.kind == "builtin":
            self.server = self.wire.builtin_server(self.path, settings)
        else:
            start = {"fpm": self.wire.fpm, "cgi": self.wire.cgi_server}[self.kind]
            self.server = start(settings)
        return self

    def get(self, uri="/", headers=None):
        """The body of the answer to GET uri; the process handles nothing else meanwhile."""
        headers = headers or {}
        if self.kind == "builtin":
            return self.server.request(uri, headers=list(headers.items())).body
        variables = {"HTTP_" + name.upper().replace("-", "_"): value
                     for name, value in headers.items()}
        variables["QUERY_STRING"] = uri.partition("?")[2]
        return self.server.request(self.path, REQUEST_URI=uri, **variables).body


@pytest.fixture(params=["builtin", "cgi", "fpm"])
def worker(request, wire):
    return Worker(wire, request.param)


@pytest.fixture(scope="module")
def echo(engine, tmp_path_factory):
    started = services.Echo(engine, tmp_path_factory.mktemp("echo"))
    yield started
    started.close()


@pytest.fixture
def limit_holds(request, engine):
    """Skips a test whose parameter `end` is one by the memory limit where there is no limit."""
    end = request.node.callspec.params.get("end", "") if hasattr(request.node, "callspec") else ""
    if end.startswith("memory") and not engine.keeps_memory_limit:
        pytest.skip("there is no memory limit here")


@pytest.fixture(scope="session")
def still_clock(engine, tmp_path_factory):
    """The environment in which no time passes but in usleep(): see still_clock.cpp."""
    return preloads.built(engine, "still_clock.cpp", tmp_path_factory.mktemp("still_clock"))


@pytest.fixture(scope="session")
def standins_so(engine):
    return standins.path_of(engine)


@pytest.fixture
def drivers(wire, collector, standins_so):
    """The stand-in drivers; only queries of more than 1000 s are slow."""
    collector.reply = dict(ENABLED, **{"transaction.trace.sql.stacktrace.threshold": 1000})
    return standins.Standins(wire, standins_so)
