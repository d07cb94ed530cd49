"""Disks that are full or read-only, and processes that are killed while they write."""
import base64
import contextlib
import json
import os
import random
import signal
import subprocess
import threading
import time

import pytest

import conftest
import requests_of
import sockets

SECONDS = 40
ROUNDS = 6


def until(condition):
    deadline = time.monotonic() + SECONDS
    while not condition():
        assert time.monotonic() < deadline
        time.sleep(0.05)


def page_of(number):
    """So many have the same as are shown at a time."""
    return "/page/%d" % (number // 5000)


def request(number, noise=0):
    """A line of the request with that number, and its identifier."""
    identifier = "%016x" % (number + 1)
    now = int(time.time() * 1000)
    root = {"st": now, "et": now + 20, "fn": "main", "cn": "PHP", "si": identifier}
    document = requests_of.document(
        [root], page_of(number), trace=2 * identifier,
        http_query_str=base64.b64encode(os.urandom(noise)).decode())
    return identifier, base64.b64encode(json.dumps(document).encode()) + b"\n"


def store_status(collector):
    return sockets.status(collector)["store"]


def found(collector, pages=None):
    """Identifiers of everything that can be found."""
    identifiers = set()
    for page in pages or ["/page/*"]:
        done = collector.run("find", "--json", "-n", "10000", "path:" + page)
        assert done.returncode in (0, 1), done.stderr
        answer = json.loads(done.stdout)
        assert not answer["more"]
        identifiers |= {each["id"] for each in answer["requests"]}
    return identifiers


def counted(collector):
    """How many requests the figures have."""
    done = collector.run("top", "--json")
    assert done.returncode in (0, 1), done.stderr
    return json.loads(done.stdout)["total"]["recorded"]


def is_answered(collector):
    return "920" in sockets.ask(collector.handshake, sockets.handshake())


class Disk:
    """A small file system of its own."""

    def __init__(self, path, size):
        self.path = path
        path.mkdir()
        done = subprocess.run(["mount", "-t", "tmpfs", "-o", "size=" + size, "tmpfs", str(path)],
                              capture_output=True, text=True)
        if done.returncode != 0:
            pytest.skip("nothing can be mounted here: " + done.stderr.strip())

    def remount(self, how):
        subprocess.run(["mount", "-o", "remount," + how, str(self.path)], check=True)

    def unmount(self):
        subprocess.run(["umount", "-l", str(self.path)], check=True)


@pytest.fixture
def disk(tmp_path):
    mounted = Disk(tmp_path / "disk", "24m")
    yield mounted
    mounted.unmount()


@pytest.fixture
def on_disk(disk):
    store = disk.path / "store"
    store.mkdir()
    running = conftest.Collector(os.environ["KAQ_COLLECTOR"], store)
    yield running
    status, _ = running.stop()
    assert status == 0
    assert "Sanitizer" not in running.log and "runtime error" not in running.log


def test_a_full_disk_costs_what_is_sent_meanwhile_and_nothing_else(on_disk, disk):
    first, line = request(0)
    sockets.send(on_disk.data, line)
    until(lambda: first in found(on_disk))
    hog = disk.path / "hog"
    with open(hog, "wb", buffering=0) as file, contextlib.suppress(OSError):
        while file.write(b"x" * 4096):
            pass
    for number in range(1, 200):
        sockets.send(on_disk.data, request(number, 20000)[1])
    until(lambda: store_status(on_disk)["requests_lost"] > 0)
    until(lambda: store_status(on_disk)["requests_put"] == 200)
    assert store_status(on_disk)["writing"] is False
    assert is_answered(on_disk)
    assert first in found(on_disk)
    hog.unlink()
    last, line = request(500)
    sockets.send(on_disk.data, line)
    until(lambda: last in found(on_disk))
    status = store_status(on_disk)
    assert status["writing"] is True
    # What was lost is known to the last request, and the figures have all of them.
    assert len(found(on_disk)) == 201 - status["requests_lost"]
    until(lambda: counted(on_disk) == 201)
    on_disk.stop()
    assert "requests are lost, since they cannot be written" in on_disk.log


def test_where_the_disk_is_smaller_than_the_cap_the_oldest_make_room(disk):
    store = disk.path / "store"
    store.mkdir()
    file = disk.path / "collector.toml"
    file.write_text('[store]\npartition_size = "1MiB"\nkeep_all = true\n')
    collector = conftest.Collector(os.environ["KAQ_COLLECTOR"], store, ("--config", str(file)))
    try:
        number = 0
        for _ in range(50):
            for _ in range(20):
                sockets.send(collector.data, request(number, 30000)[1])
                number += 1
            time.sleep(0.05)

        def is_kept():
            nonlocal number
            number += 1
            identifier, line = request(number)
            sockets.send(collector.data, line)
            time.sleep(0.5)
            return identifier in found(collector, [page_of(number)])
        until(is_kept)
    finally:
        assert collector.stop()[0] == 0
    assert "the disk is full: the oldest requests were removed" in collector.log


def protect(store, sign):
    """Whether nobody may change what is there from now on, or may again."""
    names = [str(path) for path in store.iterdir() if path.is_file()]
    return subprocess.run(["chattr", sign + "i", *names, str(store)],
                          capture_output=True).returncode == 0


def test_a_disk_that_turns_read_only_is_survived(tmp_path):
    store = tmp_path / "store"
    store.mkdir()
    collector = start(store)
    first, line = request(0)
    sockets.send(collector.data, line)
    until(lambda: first in found(collector))
    until(lambda: counted(collector) == 1)
    if not protect(store, "+"):
        protect(store, "-")
        collector.stop()
        pytest.skip("files cannot be protected here")
    try:
        for number in range(1, 20):
            sockets.send(collector.data, request(number)[1])
        until(lambda: store_status(collector)["requests_lost"] == 19)
        assert is_answered(collector)
        assert found(collector) == {first}
        assert counted(collector) == 1
    finally:
        protect(store, "-")
    last, line = request(500)
    sockets.send(collector.data, line)
    until(lambda: found(collector) == {first, last})
    until(lambda: counted(collector) == 21)
    assert collector.stop()[0] == 0
    assert "requests are lost, since they cannot be written" in collector.log


@pytest.mark.parametrize("how", [signal.SIGTERM, signal.SIGKILL])
def test_verbs_read_a_store_that_nobody_may_write(on_disk, disk, how):
    first, line = request(0)
    sockets.send(on_disk.data, line)
    until(lambda: first in found(on_disk))
    until(lambda: counted(on_disk) == 1)
    on_disk.process.send_signal(how)
    on_disk.process.wait(SECONDS)
    disk.remount("ro")
    try:
        assert found(on_disk) == {first}
        assert counted(on_disk) == 1
        assert on_disk.run("show", first).returncode == 0
    finally:
        disk.remount("rw")
    on_disk.process.returncode = 0


class Sender:
    """Sends requests one after the other, and knows when the collector had taken each."""

    def __init__(self, port, first):
        self.port, self.first = port, first
        self.taken = {}  # when, by identifier
        self.begun = set()
        self.pages = set()
        self.thread = threading.Thread(target=self.run)
        self.thread.start()

    def run(self):
        number = self.first
        while True:
            identifier, line = request(number)
            self.begun.add(identifier)
            self.pages.add(page_of(number))
            try:
                sockets.send(self.port, line)
            except OSError:
                return
            self.taken[identifier] = time.monotonic()
            number += 1
            time.sleep(0.005)


def start(store):
    return conftest.Collector(os.environ["KAQ_COLLECTOR"], store)


def test_a_kill_costs_at_most_the_last_second(tmp_path):
    store = tmp_path / "store"
    store.mkdir()
    kept, sent, pages, pick = set(), set(), set(), random.Random(5)
    for round_number in range(ROUNDS):
        collector = start(store)
        sender = Sender(collector.data, round_number * 1000000)
        time.sleep(1.5 + pick.random())
        killed = time.monotonic()
        collector.process.kill()
        collector.process.communicate()
        sender.thread.join(SECONDS)
        # A sender may have been told that its payload was taken by the death of the taker.
        kept |= {each for each, when in sender.taken.items() if when < killed - 1}
        sent |= sender.begun
        pages |= sender.pages
        assert len(sender.taken) > 20
    collector = start(store)
    there = found(collector, pages)
    assert (kept - there, there - sent) == (set(), set())
    assert len(kept) <= counted(collector) <= len(sent)
    assert store_status(collector)["damages"] == []
    for identifier in pick.sample(sorted(there), 20):
        assert collector.run("show", identifier).returncode == 0
    assert collector.stop() == (0, "")


def test_what_was_taken_before_the_end_is_kept(tmp_path):
    store = tmp_path / "store"
    store.mkdir()
    collector = start(store)
    senders = [Sender(collector.data, number * 1000000) for number in range(3)]
    time.sleep(1.5)
    begin = time.monotonic()
    collector.process.terminate()
    assert collector.process.wait(20) == 0
    assert time.monotonic() - begin < 15
    for sender in senders:
        sender.thread.join(SECONDS)
    taken = set().union(*(sender.taken for sender in senders))
    assert len(taken) > 50
    there = found(collector, set().union(*(sender.pages for sender in senders)))
    # Who had only just connected when the port was closed cannot tell.
    assert len(taken - there) <= len(senders)
    assert counted(collector) == len(there)
    collector.stop()
