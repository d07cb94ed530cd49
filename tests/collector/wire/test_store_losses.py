"""Stores that somebody else has, that cannot be written to, that are damaged."""
import os
import shutil
import subprocess
import time

import pytest

import conftest
import requests_of
import sockets

SECONDS = 30
PAGE = 4096


def start(store, *arguments):
    return conftest.Collector(os.environ["KAQ_COLLECTOR"], store, arguments)


@pytest.fixture
def store(tmp_path):
    directory = tmp_path / "store"
    directory.mkdir()
    return directory


def test_a_second_collector_on_a_store_is_refused(collector):
    done = subprocess.run(
        [collector.program, "collect", "--handshake", "0", "--data", "0", "--http", "0", "--store",
         str(collector.store)], capture_output=True, text=True, timeout=SECONDS)
    assert (done.returncode, done.stdout) == (1, "")
    assert done.stderr == (
        "kaq: the collector of process %d has the store %s: end it, or name another store with "
        "--store DIR\n" % (collector.process.pid, collector.store))
    # The first one is as it was.
    assert sockets.status(collector)["collector"]["process"] == collector.process.pid


def test_a_killed_collector_leaves_no_lock(store):
    first = start(store)
    first.process.kill()
    first.process.communicate()
    second = start(store)
    try:
        assert sockets.status(second)["collector"]["process"] == second.process.pid
    finally:
        assert second.stop() == (0, "")


def read_only(store):
    """A command that has the store on a medium that cannot be written to."""
    return ["unshare", "-m", "sh", "-c",
            'mount --bind "$0" "$0" && mount -o remount,bind,ro "$0" && exec "$@"', str(store)]


@pytest.fixture
def filled(store):
    running = start(store)
    requests_of.send_cart(running)
    assert running.stop() == (0, "")
    probe = subprocess.run([*read_only(store), "true"], capture_output=True, timeout=SECONDS)
    if probe.returncode != 0:
        pytest.skip("nothing can be mounted here")
    return store


def test_where_the_store_cannot_be_written_handshakes_are_answered(filled):
    running = subprocess.Popen(
        [*read_only(filled), os.environ["KAQ_COLLECTOR"], "collect", "--handshake", "0", "--data",
         "0", "--http", "0", "--store", str(filled)],
        stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)
    try:
        found = conftest.PORTS.search(running.stdout.readline())
        handshake, data = int(found.group(1)), int(found.group(2))
        assert sockets.ask(handshake, sockets.handshake()).startswith("{")
        assert sockets.send(data, sockets.payload()) == b""
        time.sleep(1)
    finally:
        running.terminate()
        _, said = running.communicate(timeout=SECONDS)
    assert running.returncode == 0
    assert "%s cannot be written to: handshakes are answered, but no request is kept" % filled \
        in said
    assert "1 requests are lost, since they cannot be written" in said


def test_a_store_that_cannot_be_written_can_be_read(filled):
    done = subprocess.run([*read_only(filled), os.environ["KAQ_COLLECTOR"], "find", "--store",
                           str(filled)], capture_output=True, text=True, timeout=SECONDS)
    assert done.returncode == 0 and "/cart" in done.stdout, done.stderr


def damage(store):
    (path,) = store.glob("requests-*.sqlite")
    content = bytearray(path.read_bytes())
    for page in range(len(content) // PAGE // 3, len(content) // PAGE):
        content[page * PAGE:(page + 1) * PAGE] = b"\xff" * PAGE
    path.write_bytes(content)


def test_who_looks_for_requests_is_told_that_some_are_lost(store):
    running = start(store)
    for number in range(40):
        sockets.send(running.data, sockets.payload("/%d" % number, trace_id="%032x" % number))
    running.stop()
    damage(store)
    done = subprocess.run([running.program, "find", "--store", str(store)], capture_output=True,
                          text=True, timeout=SECONDS)
    assert "kaq: requests of that time are missing: requests-" in done.stderr
    running = start(store)
    try:
        deadline = time.monotonic() + SECONDS
        while "could be saved" not in "".join(sockets.status(running)["store"]["damages"]):
            assert time.monotonic() < deadline
            time.sleep(0.1)
        done = running.run("find")
        assert "requests of that time are missing: requests-" in done.stderr
        assert "could be saved" in done.stderr
        assert running.run("find", "--json").stdout.count("could be saved") == 1
    finally:
        running.stop()
    assert " is damaged and was put aside as damaged-" in running.log
    assert "could be saved, lost are " in running.log


def test_what_is_lost_is_logged(store):
    running = start(store)
    try:
        shutil.rmtree(store)
        store.write_text("no directory can be made here")
        sockets.send(running.data, sockets.payload())
    finally:
        # What was received is written, or tried to be, before it ends.
        running.stop()
    assert "1 requests are lost, since they cannot be written to %s" % store in running.log


def test_pipes_in_place_of_files_are_not_waited_for(store):
    for name in ("sessions", "suspended", "alerts"):
        os.mkfifo(store / name)
    collector = start(store)
    assert collector.run("open").returncode == 0
    assert collector.stop()[0] == 0
    (store / "token").unlink()
    os.mkfifo(store / "token")
    done = subprocess.run(
        [os.environ["KAQ_COLLECTOR"], "collect", "--handshake", "0", "--data", "0", "--http", "0",
         "--store", str(store)], capture_output=True, text=True, timeout=SECONDS)
    assert done.returncode == 1 and "cannot write %s/token" % store in done.stderr
