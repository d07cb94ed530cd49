"""What comes in slowly, in masses, without end or as nonsense: refused, counted, said, and nobody
else's loss."""
import base64
import json
import os
import pathlib
import re
import resource
import select
import socket
import subprocess
import time

import pytest

import conftest
import sockets

SECONDS = 40
MIB = 1 << 20


def counters(collector):
    """What was refused and dropped, as it was known a second ago."""
    return sockets.status(collector)["collector"]["counters"] or {}


def until(condition):
    deadline = time.monotonic() + SECONDS
    while not condition():
        assert time.monotonic() < deadline
        time.sleep(0.05)


def is_answered(collector):
    return b'"instance.status":920' in sockets.ask(
        collector.handshake, sockets.handshake()).replace(" ", "").encode()


def requests_put(collector):
    return sockets.status(collector)["store"]["requests_put"]


def resident(collector, what="VmRSS"):
    """Bytes."""
    text = pathlib.Path("/proc/%d/status" % collector.process.pid).read_text()
    return int(re.search(what + r":\s+(\d+)", text).group(1)) * 1024


def dribble(connection, byte):
    """Whether it is still open."""
    try:
        connection.sendall(byte)
        has_ended, _, _ = select.select([connection], [], [], 0)
        return not has_ended
    except ConnectionError:
        return False


def test_slow_senders_are_sent_away_and_steady_ones_are_not(collector):
    slow = {sockets.connect(collector.handshake): b"{", sockets.connect(collector.data): b"a",
            sockets.connect(collector.http): b"G"}
    steady = sockets.connect(collector.data)
    line = sockets.payload("/steady", http_query_str="x" * (4 * MIB))
    begin, sent = time.monotonic(), 0
    # It takes longer than the deadline that it need not keep: 640 kB come in a second.
    while slow or sent < len(line):
        assert time.monotonic() - begin < 25
        steady.sendall(line[sent:sent + 32768])
        sent += 32768
        slow = {each: byte for each, byte in slow.items() if dribble(each, byte)}
        time.sleep(0.05)
    assert time.monotonic() - begin > 6
    steady.shutdown(socket.SHUT_WR)
    sockets.read_all(steady)
    until(lambda: requests_put(collector) == 1)
    until(lambda: counters(collector) == {
        "handshakes ended before their request was whole": 1, "payloads did not end in time": 1,
        "HTTP requests did not end in time": 1})


def many(port, count):
    """That many connections that say nothing."""
    held = []
    for _ in range(count):
        connection = socket.socket()
        connection.setblocking(False)
        held.append(connection)
        connection.connect_ex(("127.0.0.1", port))
    return held


@pytest.fixture
def descriptors():
    soft, hard = resource.getrlimit(resource.RLIMIT_NOFILE)
    if hard < 11000:
        pytest.skip("this system allows no more than %d descriptors" % hard)
    resource.setrlimit(resource.RLIMIT_NOFILE, (hard, hard))
    yield
    resource.setrlimit(resource.RLIMIT_NOFILE, (soft, hard))


@pytest.mark.parametrize("name, counted", [
    ("handshake", "handshakes were refused"), ("data", "payloads were refused"),
    ("http", "HTTP connections were closed")])
def test_ten_thousand_connections_keep_nobody_out(collector, descriptors, name, counted):
    port = getattr(collector, name)
    held = many(port, 10000)
    try:
        # How many depends on how many the system itself lets in at a time.
        until(lambda: counters(collector).get(counted + ": too many at a time", 0) > 0)
        if name != "http":
            # Who says nothing makes room for who does.
            more = many(port, 2000)
            time.sleep(0.5)
            held += more
        until(lambda: is_answered(collector))
        begin = requests_put(collector)
        sockets.send(collector.data, sockets.payload("/still"))
        until(lambda: requests_put(collector) > begin)
        assert len(os.listdir("/proc/%d/fd" % collector.process.pid)) < 6000
    finally:
        for connection in held:
            connection.close()


def test_payloads_are_taken_while_the_port_is_full_of_silence(collector, descriptors):
    held = many(collector.data, 5000)
    try:
        until(lambda: counters(collector).get("payloads were refused: too many at a time", 0) > 0)
        time.sleep(0.3)
        begin = time.monotonic()
        sockets.send(collector.data, sockets.payload("/through"))
        until(lambda: requests_put(collector) == 1)
        # Else it would have waited until those that say nothing are late.
        assert time.monotonic() - begin < 3
    finally:
        for connection in held:
            connection.close()


def stream(connection, size):
    """Sends that many bytes, none of which is held; whether all were taken."""
    piece = b"A" * MIB
    try:
        for _ in range(size // MIB):
            connection.sendall(piece)
        return True
    except (ConnectionError, socket.timeout):
        return False


@pytest.mark.parametrize("name", ["handshake", "data", "http"])
def test_a_line_of_a_gigabyte_is_never_held(collector, name):
    before = resident(collector)
    with sockets.connect(getattr(collector, name)) as connection:
        is_taken = stream(connection, 1024 * MIB)
        if is_taken:
            connection.sendall(b"\n")
            connection.shutdown(socket.SHUT_WR)
        sockets.read_all(connection)
    assert resident(collector, "VmHWM") - before < 400 * MIB
    if name == "data":
        # Nobody is kept from writing.
        assert is_taken
        until(lambda: counters(collector) == {"payloads were dropped: they are too long": 1})
    until(lambda: is_answered(collector))


def coded(text):
    return base64.b64encode(text if isinstance(text, bytes) else text.encode()) + b"\n"


def document(members):
    """Of a transaction with these further members."""
    whole = base64.b64decode(sockets.payload("/x")).decode()
    return whole.replace('"t_name"', members + ', "t_name"')


NONSENSE = {
    "not-base64": [b"garbage\n", b"\x00\xff" * 5000 + b"\n", b"=\n", b"a" * 4095 + b"\n"],
    "not-json": [b"\n", coded("{"), coded(b"\x00" * 1000), coded("[" * 1000000),
                 coded(document('"a":' + '{"a":' * 100000)), coded(document('"cputime":1e999')),
                 coded(document('"cputime":123456789012345678901234567890')),
                 coded(document('"a":"\x00"'))],
    "not-a-transaction": [coded("{}"), coded("[]"), coded("null"), coded('{"apm":[]}')],
    "too-many-values": [coded(document('"custom_params":[' + "0," * 6100000 + "0]"))],
    "too-many-spans": [coded(document('"a":1').replace(
        '"span_info": [', '"span_info": [' + "{}," * 200000))],
}


def test_nonsense_is_counted_by_what_is_wrong(collector):
    for lines in NONSENSE.values():
        for line in lines:
            sockets.send(collector.data, line)
    half = sockets.payload("/half")[:-20]
    sockets.send(collector.data, half)
    sockets.send(collector.data, b"")
    sockets.send(collector.data, sockets.payload("/whole"))
    expected = {"payloads could not be read: " + reason: len(lines)
                for reason, lines in NONSENSE.items()}
    expected["payloads ended within a line"] = 1
    until(lambda: counters(collector) == expected)
    until(lambda: requests_put(collector) == 1)
    assert collector.stop() == (0, "")
    for text, count in expected.items():
        assert "warning: %d %s" % (count, text) in collector.log


@pytest.mark.parametrize("deep", [
    '"si": "%x", "psi": "%x"', '"si": "%x", "psi": "00000000000000aa", "x": "%x"'],
    ids=["chain", "fan"])
def test_a_request_of_very_many_spans_can_be_shown(collector, deep):
    spans = ["{%s, \"st\": 1000, \"et\": 1400, \"fn\": \"f%d\"}" % (deep % (i + 2, i + 1), i % 9)
             for i in range(15000)]
    text = document('"a":1')
    end = text.rindex("]")
    sockets.send(collector.data, coded(text[:end] + ", " + ", ".join(spans) + text[end:]))
    until(lambda: requests_put(collector) == 1)
    until(lambda: collector.run("show", "00000000000000aa").returncode == 0)
    for form in ("speedscope", "perfetto", "json"):
        done = collector.run("export", "--format", form, "00000000000000aa")
        assert done.returncode == 0
        json.loads(done.stdout)


def test_memory_for_payloads_is_bounded_and_what_is_dropped_is_counted(collector):
    held = []
    for _ in range(5):
        held.append(sockets.connect(collector.data))
        assert stream(held[-1], 30 * MIB)
    said = "payloads were dropped: no memory is left for them"
    until(lambda: counters(collector).get(said, 0) > 0)
    assert resident(collector) < 700 * MIB
    dropped = counters(collector)[said]
    # The newest is what is dropped, and nobody has to wait for that.
    while counters(collector)[said] == dropped:
        sockets.send(collector.data, sockets.payload("/newest", http_query_str="x" * 900000))
    assert "instance.status" in sockets.ask(collector.handshake, sockets.handshake())
    for connection in held:
        connection.close()
    begin = requests_put(collector)

    def is_taken():
        sockets.send(collector.data, sockets.payload("/next"))
        return requests_put(collector) > begin
    until(is_taken)


def test_a_payload_nearly_as_long_as_the_limit_is_taken(collector):
    sockets.send(collector.data, sockets.payload("/long", http_query_str="x" * (23 * MIB)))
    until(lambda: requests_put(collector) == 1)
    time.sleep(1.5)
    assert counters(collector) == {}


def http(collector, request, size=65536):
    with sockets.connect(collector.http) as connection:
        connection.sendall(request)
        return connection.recv(size)


def test_http_that_is_none_is_refused(collector):
    for nonsense in (b"\x00\xff\r\n\r\n", b"GET\r\n\r\n", b"A" * 3000 + b"\r\n\r\n",
                     b"GET / HTTP/1.1\r\n\x00: a\r\n\r\n"):
        assert http(collector, nonsense).startswith(b"HTTP/1.1 400"), nonsense
    head = b"POST /api/v1/mark HTTP/1.1\r\nHost: localhost\r\nContent-Length: %d\r\n"
    # Without the token nobody waits for a body.
    assert http(collector, head % 1000000 + b"\r\n").startswith(b"HTTP/1.1 401")
    allowed = head % (1 << 40) + b"Authorization: Bearer " + collector.token.encode() + b"\r\n\r\n"
    assert http(collector, allowed).startswith(b"HTTP/1.1 413")
    until(lambda: counters(collector) == {
        "HTTP requests were refused: they cannot be read": 4,
        "HTTP requests were refused: they are too long": 1})


def test_the_verbs_are_answered_while_http_is_full(collector):
    held = [sockets.connect(collector.http) for _ in range(600)]
    try:
        until(lambda: counters(collector).get(
            "HTTP connections were closed: too many at a time", 0) >= 80)
        assert collector.run("mark", "release").returncode == 0
    finally:
        for connection in held:
            connection.close()


def processor(collector):
    """Seconds of processor time used so far."""
    fields = pathlib.Path("/proc/%d/stat" % collector.process.pid).read_text().split()
    return (int(fields[13]) + int(fields[14])) / os.sysconf("SC_CLK_TCK")


def test_without_descriptors_nothing_is_tried_without_end(collector):
    used = len(os.listdir("/proc/%d/fd" % collector.process.pid))
    subprocess.run(["prlimit", "--pid", str(collector.process.pid),
                    "--nofile=%d:%d" % (used, used)], check=True)
    held = [sockets.connect(collector.http) for _ in range(20)]
    try:
        begin = processor(collector)
        time.sleep(2)
        assert processor(collector) - begin < 1
    finally:
        for connection in held:
            connection.close()


def test_few_descriptors_are_shared_out(tmp_path):
    store = tmp_path / "store"
    store.mkdir()
    program = tmp_path / "kaq"
    program.write_text('#!/bin/sh\nulimit -n 256\nexec %s "$@"\n' % os.environ["KAQ_COLLECTOR"])
    program.chmod(0o755)
    collector = conftest.Collector(str(program), store)
    held = many(collector.data, 400)
    try:
        # The store still has what it needs, and so have the other ports.
        assert is_answered(collector)
        assert collector.run("mark", "release").returncode == 0
        time.sleep(0.3)
        sockets.send(collector.data, sockets.payload("/kept"))
        until(lambda: requests_put(collector) == 1)
        until(lambda: collector.run("find", "path:/kept").returncode == 0)
    finally:
        for connection in held:
            connection.close()
        status, said = collector.stop()
    assert status == 0
    assert "the system allows so few descriptors that no more than 93 payloads" in said
