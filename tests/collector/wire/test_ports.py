"""The two ports of the extension, spoken to by hand."""
import json
import select
import socket
import subprocess
import time

import pytest

import sockets


def answer(collector, request):
    return json.loads(sockets.ask(collector.handshake, request))


@pytest.fixture
def tail(collector):
    """A verb that listens by the time that the test sends something."""
    process = collector.start("tail", "--json")
    deadline = time.monotonic() + 20
    while True:
        # What was sent before it listened is not told.
        sockets.send(collector.data, sockets.payload("/ready"))
        if _has_line(process, 0.3):
            break
        assert time.monotonic() < deadline and process.poll() is None
    yield process
    process.terminate()
    process.communicate(timeout=20)


def _has_line(process, seconds):
    ready, _, _ = select.select([process.stdout], [], [], seconds)
    return bool(ready) and json.loads(process.stdout.readline())["path"] == "/ready"


def next_named(tail, name):
    """The next line that does not come from getting ready."""
    for _ in range(200):
        line = json.loads(tail.stdout.readline())
        if line["path"] != "/ready":
            assert line["path"] == name
            return line
    raise AssertionError("nothing but what made it ready")


def test_a_handshake_is_answered_with_what_the_extension_reads(collector):
    told = answer(collector, sockets.handshake())
    assert told["instance.status"] == 920
    assert isinstance(told["transaction.trace.sql.stacktrace.threshold"], int)
    assert len(told["instance.id"]) == 16 and ";" not in told["app.id"]
    assert told == answer(collector, sockets.handshake())


def test_the_instance_is_told_by_its_port(collector):
    assert answer(collector, sockets.handshake(b"80")) != answer(collector, sockets.handshake(b"81"))


@pytest.mark.parametrize("request_bytes", [
    b"\n", b"garbage\n", b"{}\n", sockets.handshake(b'1,"a":"'), sockets.handshake(b"\x00\xff"),
    b"GET / HTTP/1.1\r\n", b"x" * 200000 + b"\n", sockets.handshake()[:-1] + b" no more\n"],
    ids=lambda request_bytes: repr(request_bytes[:12]))
def test_whatever_is_asked_is_answered(collector, request_bytes):
    assert answer(collector, request_bytes)["instance.status"] == 920


def test_a_request_in_pieces_is_answered_once_it_is_whole(collector):
    with sockets.connect(collector.handshake) as connection:
        for byte in sockets.handshake()[:60]:
            connection.sendall(bytes([byte]))
        connection.sendall(sockets.handshake()[60:])
        whole = sockets.read_all(connection).decode()
    assert json.loads(whole) == answer(collector, sockets.handshake())


def test_a_request_without_its_line_feed_is_answered_at_the_end_of_input(collector):
    with sockets.connect(collector.handshake) as connection:
        connection.sendall(sockets.handshake()[:-1])
        connection.shutdown(socket.SHUT_WR)
        assert json.loads(sockets.read_all(connection)) == answer(collector, sockets.handshake())


def test_who_asks_nothing_is_sent_away(collector):
    with sockets.connect(collector.handshake) as connection:
        begin = time.monotonic()
        assert sockets.read_all(connection) == b""
        assert time.monotonic() - begin < 8


def test_many_that_ask_nothing_do_not_keep_others_from_an_answer(collector):
    idle = [sockets.connect(collector.handshake) for _ in range(500)]
    try:
        assert answer(collector, sockets.handshake())["instance.status"] == 920
    finally:
        for connection in idle:
            connection.close()


def test_a_payload_is_told_to_who_listens(collector, tail):
    sockets.send(collector.data, sockets.payload("/cart", httpcode=503, cputime=12))
    told = next_named(tail, "/cart")
    assert told["application"] == "Shop"
    assert (told["status"], told["duration_ms"], told["cpu_ms"]) == (503, 500, 12)
    assert told["failed"] is True and told["id"] == "00000000000000aa"


def test_a_payload_in_pieces_is_whole(collector, tail):
    line = sockets.payload("/slow", http_query_str="x" * 300000)
    with sockets.connect(collector.data) as connection:
        for at in range(0, len(line), 40000):
            connection.sendall(line[at:at + 40000])
            time.sleep(0.01)
        connection.shutdown(socket.SHUT_WR)
        sockets.read_all(connection)
    next_named(tail, "/slow")


def test_garbage_does_not_keep_the_next_payload_from_arriving(collector, tail):
    for garbage in (b"garbage\n", b"\n" * 1000, b"e30=\n", sockets.payload("/cut")[:-10],
                    b"\x00\xff" * 50000, b"message:\tNo request URI Found\n"):
        sockets.send(collector.data, garbage)
    sockets.send(collector.data, sockets.payload("/whole"))
    next_named(tail, "/whole")


def test_the_data_port_says_nothing_and_leaves_no_socket_behind(collector):
    for _ in range(20):
        assert sockets.send(collector.data, sockets.payload()) == b""
    waiting = [line for line in open("/proc/net/tcp").read().splitlines()[1:]
               if line.split()[3] == "06" and line.split()[1].endswith(":%04X" % collector.data)]
    assert waiting == []


def test_at_its_end_it_refuses_handshakes_and_takes_what_is_on_its_way(collector, tail):
    begun = sockets.connect(collector.data)
    line = sockets.payload("/last")
    begun.sendall(line[:50])
    # The connection is known to be accepted once a later one has been served.
    sockets.send(collector.data, sockets.payload("/ready"))
    collector.process.terminate()
    deadline = time.monotonic() + 3
    while time.monotonic() < deadline:
        try:
            sockets.connect(collector.handshake).close()
        except ConnectionRefusedError:
            break
        time.sleep(0.02)
    else:
        raise AssertionError("handshakes are still taken")
    assert collector.process.poll() is None
    begun.sendall(line[50:])
    begun.close()
    next_named(tail, "/last")
    assert collector.process.wait(20) == 0


def test_who_never_ends_does_not_keep_it_from_ending(collector):
    with sockets.connect(collector.data) as connection:
        connection.sendall(b"x")
        begin = time.monotonic()
        assert collector.stop() == (0, "")
        assert time.monotonic() - begin < 15


def test_a_port_that_is_taken_is_named(collector, tmp_path):
    done = subprocess.run([collector.program, "collect", "--handshake", str(collector.handshake), "--data", "0",
                           "--http", "0", "--store", str(tmp_path)], capture_output=True, text=True,
                          timeout=30)
    assert done.returncode == 1
    assert "127.0.0.1 port %d" % collector.handshake in done.stderr
    assert "in use" in done.stderr


def test_without_descriptors_it_refuses_and_goes_on(collector):
    limit = subprocess.run(["prlimit", "--pid", str(collector.process.pid), "--nofile=40:40"])
    assert limit.returncode == 0
    held = []
    try:
        deadline = time.monotonic() + 20
        while not _is_refused(collector.data, held):
            assert time.monotonic() < deadline
    finally:
        for connection in held:
            connection.close()
    # It learns of the closed ones one by one.
    while not _is_answered(collector):
        assert time.monotonic() < deadline
        time.sleep(0.05)


def _is_answered(collector):
    try:
        return answer(collector, sockets.handshake())["instance.status"] == 920
    except (ValueError, OSError):
        return False


def _is_refused(port, held):
    """Whether one more connection is ended at once; else it is held."""
    try:
        connection = sockets.connect(port)
    except ConnectionResetError:
        return True
    ready, _, _ = select.select([connection], [], [], 0.2)
    if not ready:
        held.append(connection)
        return False
    connection.close()
    return True
