"""Real processes that crash in the extension, and what the collector makes of their logs."""
import os
import signal
import subprocess
import types

import pytest

import crash_runs
import fastcgi
from test_doctor import Configured, diagnosis, facts, health, stored, until

PAGE = "<?php if (isset($_GET['crash'])) kaq_debug_crash(); echo 'page';"


class Server:
    """A server of one process, which sees a directory of the test as /opt."""

    def __init__(self, room, collector, directory):
        self.path = directory / "page.php"
        self.path.write_text(PAGE)
        self.socket = directory / "fastcgi"
        self.socket.unlink(missing_ok=True)
        self.process = subprocess.Popen(
            [room.wire.engine.cgi, "-b", str(self.socket), "-n",
             "-d", "extension=" + os.environ["KAQ_SO"],
             "-d", "kaq.status_port=%d" % collector.handshake,
             "-d", "kaq.data_port=%d" % collector.data],
            stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        until(self.answers)

    def answers(self):
        assert self.process.poll() is None
        return self.socket.exists()

    def page(self, port=80, query=""):
        uri = "/page?" + query
        return fastcgi.request(str(self.socket), {
            "REQUEST_METHOD": "GET", "REQUEST_URI": uri, "QUERY_STRING": query,
            "SCRIPT_FILENAME": str(self.path), "SERVER_PORT": port}).body

    def crash(self):
        with pytest.raises(OSError):
            self.page(query="crash=1")
        return self.process.wait(timeout=crash_runs.DEADLINE)

    def end(self):
        if self.process.poll() is None:
            self.process.terminate()
        self.process.wait(timeout=crash_runs.DEADLINE)


@pytest.fixture
def room(tmp_path):
    if not os.environ.get("KAQ_PHP_CGI"):
        pytest.skip("this engine has no php-cgi")
    if not crash_runs.may_enclose():
        pytest.skip("this user may not give a process its own /opt")
    cgi = os.environ["KAQ_PHP_CGI"]
    engine = types.SimpleNamespace(php=cgi, cgi=cgi, fpm=None)
    return crash_runs.Room(types.SimpleNamespace(engine=engine), tmp_path)


@pytest.fixture
def collector(room, tmp_path):
    configured = Configured(tmp_path)
    configured.crashes = room.logs_directory
    yield configured.start()
    configured.running.stop()
    assert "Sanitizer" not in configured.running.log
    assert "runtime error" not in configured.running.log


@pytest.fixture
def serve(room, collector, tmp_path):
    servers = []

    def start():
        servers.append(Server(room, collector, tmp_path))
        return servers[-1]

    yield start
    for server in servers:
        server.end()


def is_recorded(collector, server, port=80):
    """Whether a request of this port, which is a part of the instance, is."""
    recorded, left_out = stored(collector), facts(collector)["notices"]["not-monitored"]
    assert server.page(port) == b"page"
    until(lambda: (stored(collector), facts(collector)["notices"]["not-monitored"]) !=
          (recorded, left_out))
    return stored(collector) > recorded


def test_three_crashes_of_an_instance_end_its_monitoring_until_it_is_resumed(
        room, collector, serve, tmp_path):
    for crashes in (1, 2, 3):
        server = serve()
        assert is_recorded(collector, server)
        assert server.crash() == -signal.SIGSEGV
        assert room.log_of(server.process.pid).exists()
        until(lambda count=crashes: facts(collector)["crashes"] == {"all": count,
                                                                   "in_extension": count})
    suspended, = facts(collector)["suspended"]
    assert suspended["application"] == "PHP-Application" and suspended["instance"]
    server = serve()
    until(lambda: not is_recorded(collector, server))
    assert is_recorded(collector, server, port=81)

    ended, checks = diagnosis(collector, root=tmp_path)
    assert ended == 1
    assert health(checks, "crash logs") == ["ok", "problem"]
    assert health(checks, "monitoring") == ["problem"]
    told = {subject: what for subject, _, what in checks}
    assert told["crash logs"].startswith("3 crashes in the last 24 hours, 3 of them in the extension")
    assert "kaq.so" in told["crash logs"]
    assert told["monitoring"].startswith("PHP-Application is not monitored since ")

    assert collector.run("resume").returncode == 0
    until(lambda: is_recorded(collector, server))
    assert facts(collector)["suspended"] == []
