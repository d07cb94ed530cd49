"""What the collector and its doctor find out about PHP processes, their crashes and themselves."""
import base64
import http.client
import json
import os
import pathlib
import re
import socket
import time
import urllib.parse

import pytest

import conftest
import sockets

SECONDS = 30
ROOT = pathlib.Path(__file__).resolve().parents[3]


def until(condition):
    deadline = time.monotonic() + SECONDS
    while not condition():
        assert time.monotonic() < deadline
        time.sleep(0.1)


class Configured:
    """Starts collectors with a configuration file and crash logs of their own, and ends them."""

    def __init__(self, directory):
        self.file = directory / "collector.toml"
        self.store = directory / "store"
        self.store.mkdir()
        self.crashes = directory / "crashes"
        self.crashes.mkdir()
        self.running = None

    def start(self, text=""):
        self.file.write_text('[crash_logs]\ndirectories = ["%s"]\n%s' % (self.crashes, text))
        self.running = conftest.Collector(os.environ["KAQ_COLLECTOR"], self.store,
                                          ("--config", str(self.file)))
        return self.running

    def crash(self, process, frames):
        lines = re.search(r"KAQ CRASH Signal.*?_start[^\n]*\n",
                          (ROOT / "docs" / "diagnostics.md").read_text(), re.DOTALL).group(0)
        text = "\n".join(line.strip() for line in lines.splitlines()) + "\n"
        path = self.crashes / ("kaqcrash-%d.log" % process)
        path.write_text(text.replace("kaq.so(+0xb23e)", frames))


@pytest.fixture
def configured(tmp_path):
    starter = Configured(tmp_path)
    yield starter
    if starter.running:
        starter.running.stop()
        assert "Sanitizer" not in starter.running.log and "runtime error" not in starter.running.log


def diagnosis(collector, *arguments, root=None):
    """(exit status, the checks as (subject, health, what))"""
    if root:
        arguments += ("--root", str(root))
    done = collector.run("doctor", "--json", *arguments)
    told = json.loads(done.stdout)
    checks = [(each["subject"], each["health"], each["what"]) for each in told["checks"]]
    assert told["problems"] == sum(health == "problem" for _, health, _ in checks)
    assert done.returncode == (1 if told["problems"] else 0)
    return done.returncode, checks


def health(checks, subject):
    return [health for its, health, _ in checks if its == subject]


def asked(collector, request):
    return json.loads(sockets.ask(collector.handshake, request))


def is_monitored(collector, request=sockets.handshake()):
    return asked(collector, request)["instance.status"] == 920


def facts(collector):
    return sockets.status(collector)["collector"]


def stored(collector):
    return sockets.status(collector)["store"]["requests_put"]


def fake_php(root, **settings):
    """A program below that root that says it is a PHP with the extension."""
    values = {"PHP Version": "8.2.1", "Server API": "CLI", "kaq.version": "4.9",
              "kaq.version_info": "4.9.2.0", "kaq.track_zend_execute": "1",
              "kaq.application_name": "Shop"}
    values.update({name.replace("kaq_", "kaq."): value for name, value in settings.items()})
    path = root / "usr" / "bin" / "php"
    path.parent.mkdir(parents=True, exist_ok=True)
    path.write_text("#!/bin/sh\ncat <<'END'\n%s\nEND\n"
                    % "\n".join("%s => %s => x" % pair for pair in values.items()))
    path.chmod(0o755)


def test_a_whole_chain_is_fine(collector, tmp_path):
    fake_php(tmp_path, kaq_status_port=collector.handshake, kaq_data_port=collector.data)
    (tmp_path / "proc").symlink_to("/proc")
    _, checks = diagnosis(collector, root=tmp_path)
    # On a busy machine it is answered late.
    assert set(health(checks, "handshake")) <= {"ok", "warning"}, checks
    for subject in ("collector", "payload", "losses", "PHP", "monitoring"):
        assert set(health(checks, subject)) == {"ok"}, checks
    assert health(checks, "port") == ["ok", "ok"], checks
    assert any("process %d (" % collector.process.pid in what for _, _, what in checks)
    # What proves that payloads arrive is none.
    assert json.loads(collector.run("find", "--json").stdout or '{"requests":[]}')["requests"] == []


def test_a_wrong_port_is_named_with_the_right_one(collector, tmp_path):
    fake_php(tmp_path, kaq_status_port=1, kaq_data_port=collector.data)
    ended, checks = diagnosis(collector, root=tmp_path)
    assert ended == 1
    assert any("kaq.status_port is 1, and the collector's handshake port is %d"
               % collector.handshake in what for _, health, what in checks if health == "problem")


def test_without_a_collector_that_is_what_is_wrong(collector, tmp_path):
    assert collector.stop() == (0, "")
    ended, checks = diagnosis(collector, root=tmp_path)
    assert ended == 1
    assert health(checks, "collector") == ["problem"]
    assert health(checks, "payload") == ["unknown"]
    done = collector.run("doctor", "--root", str(tmp_path))
    assert done.returncode == 1
    assert "kaq collect" in done.stdout and "\x1b" not in done.stdout


def test_who_holds_the_port_instead_is_named(collector, tmp_path):
    assert collector.stop() == (0, "")
    file = tmp_path / "c.toml"
    (tmp_path / "proc").symlink_to("/proc")
    with socket.create_server(("127.0.0.1", 0)) as other:
        file.write_text("[listen]\nhandshake = %d\n" % other.getsockname()[1])
        _, checks = diagnosis(collector, "--config", str(file), root=tmp_path)
    assert any(subject == "port" and health == "problem" and "process %d " % os.getpid() in what
               for subject, health, what in checks), checks


def test_a_real_php_is_asked_and_its_ports_are_compared(collector, tmp_path):
    if not os.environ.get("KAQ_PHP_CGI"):
        pytest.skip("this engine has no php-cgi")
    path = tmp_path / "usr" / "bin" / "php"
    path.parent.mkdir(parents=True)

    def install(*settings):
        path.write_text("#!/bin/sh\nexec %s -n -d extension=%s %s -i\n" % (
            os.environ["KAQ_PHP_CGI"], os.environ["KAQ_SO"],
            " ".join("-d %s=%d" % setting for setting in settings)))
        path.chmod(0o755)
        return [(health, what) for subject, health, what
                in diagnosis(collector, root=tmp_path)[1] if subject == "PHP"]

    right = ("kaq.status_port", collector.handshake), ("kaq.data_port", collector.data)
    checks = install(*right)
    assert [health for health, _ in checks] == ["ok"], checks
    assert re.search(r"PHP \d\.\d+\.\d+\S* \(CGI.*has the extension \d", checks[0][1]), checks
    checks = install(*right[:1])
    assert ["ok", "problem"] == [health for health, _ in checks]
    assert "kaq.data_port is 20022" in checks[1][1]


def test_three_crashes_in_the_extension_end_monitoring_until_it_is_resumed(configured):
    collector = configured.start()
    for process in (4000001, 4000002, 4000003):
        configured.crash(process, "kaq.so(+0xb23e)")
    until(lambda: not is_monitored(collector))
    told = collector.run("doctor")
    assert "everything is not monitored" in told.stdout and "kaq resume" in told.stdout
    assert "3 crashes within ten minutes" in told.stdout

    # A restart does not forget it.
    collector.stop()
    assert "is not monitored any more" in collector.log
    collector = configured.start()
    assert not is_monitored(collector)
    done = collector.run("resume")
    assert done.returncode == 0, done.stderr
    until(lambda: is_monitored(collector))
    assert collector.run("resume").returncode == 1

    # Nor does it count what was counted before it was resumed.
    collector.stop()
    collector = configured.start()
    until(lambda: facts(collector)["crash_directories"])
    assert facts(collector)["crashes"] == {"all": 0, "in_extension": 0}
    assert is_monitored(collector)


def test_only_the_instance_whose_processes_crash_is_stopped(configured):
    collector = configured.start()
    shop = sockets.handshake()
    blog = shop.replace(b"Shop", b"Blog")
    instance = asked(collector, shop)["instance.id"]
    now = int(time.time() * 1000)
    for process in (4000001, 4000002, 4000003):
        document = json.loads(base64.b64decode(
            sockets.payload(thread_id=process, s_time=now - 50, e_time=now)))
        document["apm"]["application_info"]["instance_id"] = instance
        sockets.send(collector.data, base64.b64encode(json.dumps(document).encode()) + b"\n")
    until(lambda: stored(collector) == 3)
    for process in (4000001, 4000002, 4000003):
        configured.crash(process, "kaq.so(+0xb23e)")
    until(lambda: not is_monitored(collector, shop))
    assert is_monitored(collector, blog)
    assert is_monitored(collector, sockets.handshake(b"81"))
    assert [each["application"] for each in facts(collector)["suspended"]] == ["Shop"]
    assert collector.run("top", "--once").stdout.startswith("Shop is not monitored, see kaq doctor")
    assert collector.run("resume", "Blog").returncode == 1
    assert collector.run("resume", "Shop").returncode == 0
    until(lambda: is_monitored(collector, shop))
    assert "not monitored" not in collector.run("top", "--once").stdout


def test_crashes_elsewhere_change_nothing(configured):
    collector = configured.start()
    for process in range(4000001, 4000006):
        configured.crash(process, "libother.so(+0x1)")
    until(lambda: facts(collector)["crashes"] == {"all": 5, "in_extension": 0})
    assert is_monitored(collector)


def asked_over_http(collector, method, **form):
    connection = http.client.HTTPConnection("127.0.0.1", collector.http, timeout=SECONDS)
    connection.request(method, "/api/v1/doctor", urllib.parse.urlencode(form),
                       {"Authorization": "Bearer " + collector.token,
                        "Content-Type": "application/x-www-form-urlencoded"})
    response = connection.getresponse()
    body = response.read()
    connection.close()
    return response, json.loads(body)


def test_the_pages_have_what_the_collector_sees_and_what_root_saw(collector):
    seen = asked_over_http(collector, "GET")[1]
    assert seen["root"] is None
    assert {check["subject"] for check in seen["collector"]["checks"]} >= {"collector", "port", "disk"}
    assert seen["collector"]["superuser"] == (os.geteuid() == 0)
    collector.run("doctor")
    kept = asked_over_http(collector, "GET")[1]["root"]
    if os.geteuid() == 0:
        assert kept["superuser"] and kept["checks"]
    else:
        assert kept is None


def test_nobody_brings_a_report_from_elsewhere(collector):
    response, _ = asked_over_http(collector, "POST", report='{"checks":[]}')
    assert (response.status, response.getheader("Allow")) == (405, "GET")
    assert not (collector.store / "doctor.json").exists()
