"""The collector's life: reloads, load, who is let in, and threads that stand still."""
import ctypes
import errno
import json
import os
import pathlib
import re
import select
import signal
import socket
import subprocess
import time

import pytest

import conftest
import sockets

SECONDS = 30
# Twice that is more than half of the memory for payloads.
HALF_FULL = 28 << 20
SHARE = '[[monitor]]\ntransaction = "/cart"\nshare = "10%"\n'


class Configured:
    """Starts collectors with a configuration file, and ends them."""

    def __init__(self, directory):
        self.file = directory / "collector.toml"
        self.store = directory / "store"
        self.store.mkdir()
        self.running = None

    def start(self, text, environment=None):
        self.file.write_text(text)
        self.running = conftest.Collector(os.environ["KAQ_COLLECTOR"], self.store,
                                          ("--config", str(self.file)), environment)
        return self.running

    def reload(self, text):
        self.file.write_text(text)
        self.running.process.send_signal(signal.SIGHUP)


@pytest.fixture
def configured(tmp_path):
    starter = Configured(tmp_path)
    yield starter
    if starter.running and starter.running.process.poll() is None:
        starter.running.stop()
    if starter.running:
        assert "Sanitizer" not in starter.running.log and "runtime error" not in starter.running.log


def status(collector):
    return json.loads(sockets.ask(collector.handshake, sockets.handshake()))["instance.status"]


def until(condition):
    deadline = time.monotonic() + SECONDS
    while not condition():
        assert time.monotonic() < deadline
        time.sleep(0.02)


def test_a_share_is_exactly_every_tenth(configured):
    collector = configured.start(SHARE)
    asked = [status(collector) for _ in range(200)]
    assert asked == ([910] * 9 + [920]) * 20


def test_rules_say_the_snippet_the_threshold_and_the_name(configured):
    collector = configured.start(
        '[[monitor]]\nsnippet = "<script></script>"\nsql_stack_threshold = "7s"\n'
        '[[names.rule]]\npath = "/cart"\nname = "basket"\n')
    told = json.loads(sockets.ask(collector.handshake, sockets.handshake().replace(
        b'"rum.autoinjection":false', b'"rum.autoinjection":true')))
    assert told["webtransaction.rum.snippet"] == "<script></script>"
    assert told["transaction.trace.sql.stacktrace.threshold"] == 7
    assert told["normalised.txn.name"] == "basket"


def test_a_reload_loses_no_connection(configured):
    collector = configured.start("")
    tail = collector.start("tail", "--json")
    with sockets.connect(collector.handshake) as asking, sockets.connect(collector.data) as sending:
        line = sockets.payload("/before")
        sending.sendall(line[:40])
        asking.sendall(sockets.handshake()[:40])
        assert status(collector) == 920
        configured.reload('[[monitor]]\nmonitored = false\n')
        until(lambda: status(collector) == 910)
        # The one that had begun is answered, by the rules that hold now.
        asking.sendall(sockets.handshake()[40:])
        assert json.loads(sockets.read_all(asking))["instance.status"] == 910
        until(lambda: not _is_silent(collector, tail))
        sending.sendall(line[40:])
        sending.shutdown(socket.SHUT_WR)
        until(lambda: json.loads(tail.stdout.readline())["path"] == "/before")
    tail.terminate()
    tail.communicate(timeout=SECONDS)
    assert collector.stop()[0] == 0
    assert "the configuration was read again" in collector.log


def _is_silent(collector, tail):
    sockets.send(collector.data, sockets.payload("/ready"))
    return not select.select([tail.stdout], [], [], 0.3)[0]


def test_a_reload_takes_over_the_rest_of_the_settings(configured):
    collector = configured.start("")
    tail = collector.start("tail", "--json")
    until(lambda: not _is_silent(collector, tail))
    configured.reload('[[names.rule]]\npath = "/cart"\nname = "basket"\n')

    def has_name():
        sockets.send(collector.data, sockets.payload("/cart"))
        return json.loads(tail.stdout.readline())["name"] == "basket"
    until(has_name)
    tail.terminate()
    tail.communicate(timeout=SECONDS)


def test_a_reload_takes_over_what_the_store_may_take(configured):
    collector = configured.start("")
    configured.reload('[store]\nsize_cap = "600MiB"\nrollup_cap = "20MiB"\n[names]\ncap = 5\n')

    def caps():
        store = sockets.status(collector)["store"]
        return store["most_bytes"], store["most_figure_bytes"]
    until(lambda: caps() == (600 << 20, 20 << 20))
    collector.stop()
    assert "names.cap cannot change while the collector runs: it stays as it was" in collector.log


def test_a_mistake_leaves_the_old_configuration(configured):
    collector = configured.start('[[monitor]]\nmonitored = false\n')
    configured.reload('[[monitor]]\nmonitord = true\n[listen]\nhandshake = "x"\n')
    said = [collector.process.stderr.readline() for _ in range(3)]
    assert "the configuration has mistakes, and the old one stays" in said[0]
    assert '%s:2: monitor.monitord: there is no such setting; did you mean "monitored"?' \
        % configured.file in said[1]
    assert "%s:4: listen.handshake: " % configured.file in said[2]
    assert status(collector) == 910


def test_what_cannot_change_is_said_and_the_rest_changes(configured):
    collector = configured.start("")
    configured.reload('[listen]\naddresses = ["127.0.0.1", "127.0.0.2"]\n[[monitor]]\nshare = 0\n')
    until(lambda: status(collector) == 910)
    assert collector.stop()[0] == 0
    assert "listen.addresses cannot change while the collector runs" in collector.log
    # The option that was given at the start wins over the file, before and after.
    assert "listen.handshake cannot" not in collector.log


def connect_from(address, port, to="127.0.0.1"):
    return socket.create_connection((to, port), timeout=SECONDS, source_address=(address, 0))


def is_let_in(address, port):
    try:
        with connect_from(address, port) as connection:
            connection.sendall(b"message:\tNo request URI Found\n")
            connection.shutdown(socket.SHUT_WR)
            ready, _, _ = select.select([connection], [], [], SECONDS)
            assert ready
            connection.recv(1)
            return True
    except (ConnectionResetError, BrokenPipeError):
        return False


def stays_open(address, port):
    """The data port ends every connection with a reset, but who is let in only after the end of
    input."""
    try:
        with connect_from(address, port) as connection:
            return not select.select([connection], [], [], 0.3)[0]
    except ConnectionResetError:
        return False


def test_other_networks_are_refused_at_once(configured):
    collector = configured.start('[listen]\nhandshake_networks = ["127.0.0.4/31", "10.0.0.0/8"]\n')
    for address, is_allowed in (("127.0.0.1", True), ("127.0.0.2", False), ("127.0.0.3", False),
                                ("127.0.0.4", True), ("127.0.0.5", True), ("127.0.0.6", False)):
        assert is_let_in(address, collector.handshake) == is_allowed, address
    configured.reload('[listen]\nhandshake_networks = ["127.0.0.2"]\n')
    until(lambda: is_let_in("127.0.0.2", collector.handshake))
    assert not is_let_in("127.0.0.5", collector.handshake)
    assert collector.stop()[0] == 0
    said = re.findall(r"warning: (\d+) handshakes were refused: their network is not allowed",
                      collector.log)
    assert sum(int(number) for number in said) >= 4


def test_other_networks_cannot_send_payloads(configured):
    collector = configured.start('[listen]\ndata_networks = ["127.0.0.2"]\n')
    tail = collector.start("tail", "--json")
    until(lambda: not _is_silent(collector, tail))
    for address, name in (("127.0.0.3", "/foreign"), ("127.0.0.2", "/allowed")):
        try:
            with connect_from(address, collector.data) as connection:
                connection.sendall(sockets.payload(name))
                connection.shutdown(socket.SHUT_WR)
                sockets.read_all(connection)
        except (ConnectionResetError, BrokenPipeError, OSError):
            pass
    seen = set()
    while "/allowed" not in seen:
        seen.add(json.loads(tail.stdout.readline())["path"])
    assert "/foreign" not in seen
    configured.reload('[listen]\ndata_networks = ["127.0.0.3"]\n')
    until(lambda: stays_open("127.0.0.3", collector.data))
    tail.terminate()
    tail.communicate(timeout=SECONDS)


def test_it_listens_on_several_addresses(configured):
    collector = configured.start(
        '[listen]\naddresses = ["127.0.0.1", "127.0.0.9"]\nhandshake_networks = ["127.0.0.0/8"]\n')
    for address in ("127.0.0.1", "127.0.0.9"):
        with connect_from("127.0.0.1", collector.handshake, address) as connection:
            connection.sendall(sockets.handshake())
            assert json.loads(sockets.read_all(connection))["instance.status"] == 920
        connect_from("127.0.0.1", collector.data, address).close()
    with pytest.raises(ConnectionRefusedError):
        connect_from("127.0.0.1", collector.handshake, "127.0.0.8")


def configuration_found(collector):
    checks = json.loads(collector.run("doctor", "--json").stdout)["checks"]
    return [each for each in checks if each["subject"] == "configuration"]


def test_the_doctor_tells_of_a_file_that_was_not_taken_over(configured):
    collector = configured.start("[names]\ncap = 10\n")
    (found,) = configuration_found(collector)
    assert found["health"] == "ok" and str(configured.file) in found["what"]
    configured.reload("[names]\ncap = 0\n")
    until(lambda: configuration_found(collector)[0]["health"] == "problem")
    assert "names.cap: has to be" in configuration_found(collector)[0]["what"]
    configured.reload("[names]\ncap = 20\n")
    until(lambda: configuration_found(collector)[0]["health"] == "ok")


def niceness(collector):
    """Of each thread, by its name."""
    found = {}
    for stat in pathlib.Path("/proc/%d/task" % collector.process.pid).glob("*/stat"):
        name, fields = stat.read_text().split("(", 1)[1].rsplit(")", 1)
        found[name] = int(fields.split()[16])
    return found


def test_questions_give_way_to_handshakes_payloads_and_the_site(collector):
    collector.run("top")
    threads = niceness(collector)
    own = os.getpriority(os.PRIO_PROCESS, 0)
    assert {name: threads[name] - own for name in (
        "kaq-handshake", "kaq-data", "kaq-reader", "kaq-store", "kaq-worker")} == {
            "kaq-handshake": 0, "kaq-data": 0, "kaq-reader": 0, "kaq-store": 0, "kaq-worker": 5}


def test_under_load_it_records_less_and_then_again_all(configured):
    collector = configured.start("")
    with sockets.connect(collector.data) as one, sockets.connect(collector.data) as other:
        # They lie in memory as long as their end has not come.
        one.sendall(b"x" * HALF_FULL)
        other.sendall(b"x" * HALF_FULL)
        until(lambda: status(collector) == 910)
    until(lambda: all(status(collector) == 920 for _ in range(300)))
    assert collector.stop()[0] == 0
    assert re.search(r"warning: payloads that arrive or wait .* 50\.0 % of the requests", collector.log)
    assert "100.0 % of the requests are recorded again" in collector.log


def test_where_the_share_may_not_be_lowered_it_stays(configured):
    collector = configured.start("[overload]\nlower_share = false\n")
    with sockets.connect(collector.data) as one, sockets.connect(collector.data) as other:
        one.sendall(b"x" * HALF_FULL)
        other.sendall(b"x" * HALF_FULL)
        begin = time.monotonic()
        while time.monotonic() - begin < 2:
            assert status(collector) == 920


PTRACE_SEIZE, PTRACE_INTERRUPT, WALL = 0x4206, 0x4207, 0x40000000


def thread_named(process, name):
    """A thread names itself soon after its start."""
    deadline = time.monotonic() + SECONDS
    while time.monotonic() < deadline:
        for task in pathlib.Path("/proc/%d/task" % process.pid).iterdir():
            if (task / "comm").read_text().strip() == name:
                return int(task.name)
        time.sleep(0.05)
    raise AssertionError("there is no such thread")


def ptrace(request, thread):
    libc = ctypes.CDLL(None, use_errno=True)
    libc.ptrace.argtypes = [ctypes.c_long, ctypes.c_long, ctypes.c_void_p, ctypes.c_void_p]
    if libc.ptrace(request, thread, None, None) != 0:
        if ctypes.get_errno() == errno.EPERM:
            pytest.skip("this system lets nobody trace a child")
        raise OSError(ctypes.get_errno(), "ptrace")


def test_a_handshake_thread_that_stands_still_ends_the_process(configured):
    collector = configured.start("")
    thread = thread_named(collector.process, "kaq-handshake")
    ptrace(PTRACE_SEIZE, thread)
    ptrace(PTRACE_INTERRUPT, thread)
    _, how = os.waitpid(thread, WALL)
    assert os.WIFSTOPPED(how)
    begin = time.monotonic()
    # What is traced is dead once its tracer has seen it.
    _, how = os.waitpid(thread, WALL)
    assert os.WIFSIGNALED(how)
    assert time.monotonic() - begin < 10
    _, collector.log = collector.process.communicate(timeout=SECONDS)
    assert collector.process.returncode == -signal.SIGABRT
    assert "the handshake thread has stood still for 2 seconds" in collector.log
    with pytest.raises(ConnectionRefusedError):
        sockets.connect(collector.handshake)


def test_a_process_that_was_stopped_for_long_goes_on(configured):
    collector = configured.start("")
    collector.process.send_signal(signal.SIGSTOP)
    time.sleep(3)
    collector.process.send_signal(signal.SIGCONT)
    time.sleep(1)
    assert status(collector) == 920


def received(manager, wanted):
    """All that was told until what is wanted was."""
    told = ""
    deadline = time.monotonic() + SECONDS
    while not re.search(wanted, told):
        assert time.monotonic() < deadline, told
        told += manager.recv(4096).decode() + "\n"
    return told


def test_the_service_manager_is_told(configured, tmp_path):
    path = str(tmp_path / "notify")
    with socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM) as manager:
        manager.bind(path)
        manager.settimeout(SECONDS)
        collector = configured.start("", {"NOTIFY_SOCKET": path, "WATCHDOG_USEC": "4000000"})
        told = received(manager, r"WATCHDOG=1")
        assert re.search(r"^READY=1\nSTATUS=0 requests asked, 0 recorded", told, re.M)
        for _ in range(3):
            status(collector)
        configured.reload("")
        received(manager, r"RELOADING=1\nMONOTONIC_USEC=\d+\n(.*\n)*READY=1")
        received(manager, r"STATUS=3 requests asked, 3 recorded, 0 left out")
        collector.process.terminate()
        received(manager, r"STOPPING=1")
    assert collector.stop()[0] == 0


def test_the_journal_gets_levels_and_no_times(configured, tmp_path):
    configured.file.write_text("")
    path = tmp_path / "log"
    with open(path, "w") as log:
        info = os.fstat(log.fileno())
        process = subprocess.Popen(
            [os.environ["KAQ_COLLECTOR"], "collect", "--handshake", "0", "--data", "0", "--http",
             "0", "--store", str(configured.store), "--config", str(configured.file)], stderr=log,
            stdout=subprocess.PIPE, text=True,
            env={**os.environ, "JOURNAL_STREAM": "%d:%d" % (info.st_dev, info.st_ino)})
    process.stdout.readline()
    configured.file.write_text("x = 1\n")
    process.send_signal(signal.SIGHUP)
    until(lambda: path.read_text().count("\n") == 2)
    process.terminate()
    assert process.wait(SECONDS) == 0
    process.stdout.close()
    assert path.read_text() == \
        "<3>the configuration has mistakes, and the old one stays\n" \
        "<3>%s:1: x: there is no such setting\n" % configured.file
