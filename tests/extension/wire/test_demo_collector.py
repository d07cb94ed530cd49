"""The demo collector: what it draws of a payload made by hand, and what it makes of garbage."""

import base64
import contextlib
import copy
import json
import os
import re
import signal
import socket
import subprocess
import sys
import time

import pytest

DEMO = os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "..", "..", "demo")
sys.path.insert(0, DEMO)

import collector as demo_collector  # noqa: E402
import waterfall  # noqa: E402

PROGRAM = demo_collector.__file__
START = 1700000000000
SECONDS = 30


def span(key, start, end, name, parent=None, **more):
    made = {"st": START + start, "et": START + end, "mo": key, "fn": name, "cn": "PHP",
            "si": "%016x" % (key + 1)}
    if parent is not None:
        made["psi"] = "%016x" % (parent + 1)
    made.update(more)
    return made


DOCUMENT = {"apm": {
    "data": True,
    "application_info": {"application_type": "PHP", "application_name": "Shop",
                         "application_group": "", "instance_id": "i1"},
    "transaction_info": {
        "t_name": "/cart", "http_query_str": "item=3", "s_time": START, "e_time": START + 160,
        "http_method_name": "GET", "bytes_in": 0, "bytes_out": 0, "transaction_type": 1,
        "thread_id": 7, "httpcode": 500, "cputime": 61, "memalloc": 2097152,
        "trace_id": "0af7651916cd43dd8448eb211c80319c", "origin": {"async": False}},
    "method_info": {"span_info": [
        span(0, 0, 160, "main"),
        span(1, 0, 80, "Cart::add", 0),
        span(2, 40, 60, "PDO::query", 1, cn="PDO", qs="SELECT *\n  FROM product", hn="db1",
             pn=3306, dn="shop"),
        span(3, 80, 120, "curl_exec", 0, cn="HTTP", ex=1, hn="http://x.example/a?b=c", esc=503),
        span(4, 120, 160, "Cart::pay", 0, **{
            "if": 1, "ie": 1,
            "ei": [{"err_clz": "PayError", "filename": "/srv/shop/app/Cart.php", "linenumber": 42,
                    "time": START, "level": "Warning", "str": "declined"},
                   {"err_clz": "ERROR", "filename": "pay.php", "linenumber": 7,
                    "time": START, "level": "Notice", "str": "Undefined index: card"}],
            "mst": [["Cart", "pay", "/srv/shop/app/Cart.php", 42], ["", "main", "a.php", 3],
                    ["", "b", "b.php", 2], ["", "c", "c.php", 1]]}),
    ]},
    "app_parameters": {},
}}

DRAWN = [
    "━━ /cart?item=3 " + "━" * 64,
    "  web · GET · status 500 · 160 ms · CPU 61 ms · memory 2.0 MiB",
    "  trace     0af7651916cd43dd8448eb211c80319c",
    "  from      Shop",
    "",
    "  main                  " + "█" * 47 + "   160 ms",
    "    Cart::add           " + "█" * 23 + "▌" + " " * 23 + "    80 ms",
    "      PDO::query [PDO]  " + " " * 11 + "█" * 6 + "▋" + " " * 29 + "    20 ms",
    "        query     SELECT * FROM product",
    "        host      db1:3306",
    "        database  shop",
    "    curl_exec [HTTP]    " + " " * 23 + "█" * 12 + "▎" + " " * 11 + "    40 ms",
    "      url       http://x.example/a?b=c",
    "      status    503",
    "    Cart::pay           " + " " * 35 + "█" * 12 + "    40 ms",
    "      failed    exception and error",
    "      error     PayError: declined (…/app/Cart.php:42)",
    "      error     Notice: Undefined index: card (pay.php:7)",
    "      at        Cart::pay …/app/Cart.php:42",
    "      at        main a.php:3",
    "      at        b b.php:2",
    "      at        … 1 more",
]


def document(**info):
    made = copy.deepcopy(DOCUMENT)
    made["apm"]["transaction_info"].update(info)
    return made


def with_spans(spans):
    made = copy.deepcopy(DOCUMENT)
    made["apm"]["method_info"]["span_info"] = spans
    return made


def encode(text):
    raw = text if isinstance(text, bytes) else text.encode()
    return base64.b64encode(raw) + b"\n"


def drawn_spans(made, width=80):
    lines = waterfall.render_transaction(made, width)
    return lines[lines.index("") + 1:]


def test_hand_made_payload_is_drawn_line_by_line():
    line = encode(json.dumps(DOCUMENT, separators=(",", ":")))
    assert waterfall.render_transaction(waterfall.parse_payload(line), 80) == DRAWN


def test_colour_changes_nothing_but_the_escapes():
    painted = waterfall.render_transaction(DOCUMENT, 80, colour=True)
    plain = [re.sub(r"\x1b\[\d*m", "", line).rstrip() for line in painted]
    assert plain == DRAWN
    assert any("\x1b[31m" in line for line in painted)


@pytest.mark.parametrize("width, drawn", [(20, 80), (80, 80), (97, 97), (120, 120), (300, 120)])
def test_lines_keep_to_the_terminal_held_between_80_and_120(width, drawn):
    lines = waterfall.render_transaction(DOCUMENT, width)
    assert max(waterfall.cell_width(line) for line in lines) == drawn


def test_command_line_transaction_shows_its_arguments():
    made = document(transaction_type=0, t_name="job.php", http_query_str="", http_method_name="",
                    bckgrnd_input_params={"$argv[0]": "job.php", "$argv[1]": "--all",
                                          "$argv[2]": "x"})
    del made["apm"]["transaction_info"]["httpcode"]
    lines = waterfall.render_transaction(made, 80)
    assert lines[0] == "━━ job.php " + "━" * 69
    assert lines[1] == "  command line · 160 ms · CPU 61 ms · memory 2.0 MiB"
    assert "  arguments --all x" in lines


def test_what_the_script_added_is_shown():
    made = document(session_id="s9", custom_params={"plan": "gold"}, normalised_tname="/cart/*")
    made["apm"]["app_parameters"] = {"sum": {"items": 3}, "average": {"load": 0.5}, "data": True}
    lines = waterfall.render_transaction(made, 80)
    for row in ("  known as  /cart/*", "  session   s9", '  custom    {"plan": "gold"}',
                '  sum       {"items": 3}', '  average   {"load": 0.5}'):
        assert row in lines


def test_origin_that_begins_with_a_comma_is_read_as_is_meant():
    text = json.dumps(DOCUMENT, separators=(",", ":"))
    text = text.replace('"origin":{"async":false}', '"origin":{,"async":true,"flow":"f1"}')
    lines = waterfall.render_transaction(waterfall.parse_payload(encode(text)), 80)
    assert "  flow      f1" in lines and "  called    asynchronously" in lines


def test_average_alone_with_its_comma_is_read_as_is_meant():
    text = json.dumps(DOCUMENT, separators=(",", ":"))
    text = text.replace('"app_parameters":{}',
                        '"app_parameters":{,"average":{"load":1},"data":true}')
    made = waterfall.parse_payload(encode(text))
    assert made["apm"]["app_parameters"] == {"average": {"load": 1}, "data": True}


def test_text_that_looks_like_the_two_commas_stays_as_it_is():
    tricky = 'say \\ "origin":{,"async" and {,'
    made = document(session_id=tricky)
    text = json.dumps(made, separators=(",", ":"))
    text = text.replace('"origin":{"async":false}', '"origin":{,"async":true}')
    parsed = waterfall.parse_payload(encode(text))
    assert parsed["apm"]["transaction_info"]["session_id"] == tricky


def test_a_comma_anywhere_else_is_garbage():
    text = json.dumps(DOCUMENT, separators=(",", ":")).replace('"apm":{', '"apm":{,')
    with pytest.raises(waterfall.PayloadError):
        waterfall.parse_payload(encode(text))


def test_bytes_that_are_not_utf8_are_replaced():
    raw = json.dumps(document(t_name="/caf?")).encode().replace(b"/caf?", b"/caf\xe9")
    lines = waterfall.render_transaction(waterfall.parse_payload(encode(raw)), 80)
    assert lines[0].startswith("━━ /caf�?item=3 ━")


def test_control_characters_cannot_steer_the_terminal():
    lines = waterfall.render_transaction(document(t_name="/a\x1b[2J\x9b\u202eb"), 80)
    assert lines[0].startswith("━━ /a\\x1b[2J\\x9b�b?item=3 ━")


def test_wide_and_long_names_are_cut_to_their_column():
    lines = drawn_spans(with_spans([span(0, 0, 10, "読" * 60), span(1, 0, 10, "f" * 200, 0)]))
    assert lines[0] == "  " + "読" * 17 + "…   " + "█" * 31 + "    10 ms"
    assert lines[1] == "    " + "f" * 33 + "…  " + "█" * 31 + "    10 ms"


@pytest.mark.parametrize("start, end, bar", [
    (0, 160, "█" * 8), (0, 0, "▏" + " " * 7), (160, 160, " " * 7 + "▏"), (159, 160, " " * 7 + "█"),
    (80, 160, " " * 4 + "█" * 4), (0, 10, "▌" + " " * 7), (0, 9999, "█" * 8),
    (-50, 40, "██" + " " * 6), (30, 90, " " + "███▌" + " " * 3), (45, 90, "  ██▌" + " " * 3),
    (90, 30, " " * 4 + "▏" + " " * 3)])
def test_bar_has_its_width_and_ends_where_its_span_ends(start, end, bar):
    assert waterfall.bar(start, end, 160, 8) == bar


def test_depth_follows_the_parent_ids_not_the_order_of_arrival():
    lines = drawn_spans(with_spans([span(2, 4, 6, "grandchild", 1), span(3, 7, 9, "second", 0),
                                    span(0, 0, 9, "root"), span(1, 3, 7, "first", 0)]))
    assert [line[:13].rstrip() for line in lines] == ["  root", "    first", "      grandch",
                                                      "    second"]


def test_foreign_parent_of_the_root_is_no_depth():
    made = with_spans([span(0, 0, 9, "root", psi="00f067aa0ba902b7"), span(1, 0, 9, "child", 0)])
    assert [line[:9] for line in drawn_spans(made)] == ["  root   ", "    child"]


def test_span_of_the_calling_service_and_headers_are_told():
    made = with_spans([span(0, 0, 9, "root", psi="00f067aa0ba902b7"),
                       span(1, 0, 9, "curl_exec", 0, cn="HTTP", hn="http://x.example/",
                            erqh=["Accept: text/plain", "X-A: 1"],
                            ersh={"Server": "s\r\n", "X-B": "2\r\n"})])
    lines = waterfall.render_transaction(made, 80)
    assert lines[4] == "  caller    span 00f067aa0ba902b7"
    assert lines[-2:] == ["      sent      Accept: text/plain · X-A: 1",
                          "      received  Server: s · X-B: 2"]


def test_parents_in_a_ring_end_and_lose_nothing():
    made = with_spans([span(0, 0, 9, "root"), span(1, 0, 9, "left", 2), span(2, 0, 9, "right", 1),
                       span(3, 0, 9, "self", 3)])
    assert len(drawn_spans(made)) == 4


def test_deep_recursion_stays_within_the_width():
    made = with_spans([span(key, key, 5000 - key, "deep", key - 1 if key else None)
                       for key in range(2000)])
    lines = waterfall.render_transaction(made, 80, max_spans=5000)
    assert len(lines) == 5 + 2000
    assert max(map(waterfall.cell_width, lines)) == 80
    assert "⋯1999 de" in lines[-1]


def test_spans_beyond_the_limit_are_counted():
    made = with_spans([span(key, 0, 9, "f", 0 if key else None) for key in range(30)])
    lines = waterfall.render_transaction(made, 80, max_spans=10)
    assert len(lines) == 5 + 10 + 1
    assert lines[-1] == "  … 20 more spans"


@pytest.mark.parametrize("odd", [
    {"apm": {}},
    {"apm": {"transaction_info": 3, "method_info": [], "application_info": None}},
    {"apm": {"transaction_info": {"t_name": 5, "s_time": "x", "cputime": 1e400, "httpcode": None,
                                  "origin": [], "bckgrnd_input_params": "a"},
             "method_info": {"span_info": [3, {}, {"si": [], "psi": {}, "st": True, "ei": 4,
                                                   "mst": [1, [2]], "hn": 7, "pn": "p"}]},
             "app_parameters": 1}},
])
def test_members_of_wrong_types_are_drawn_as_far_as_they_go(odd):
    assert waterfall.render_transaction(odd, 80)[0].startswith("━━ ")


def flipped(name, value):
    """The document with one member anywhere replaced by a value of another type."""
    def walk(node):
        if isinstance(node, dict):
            return {key: value if key == name else walk(entry) for key, entry in node.items()}
        if isinstance(node, list):
            return [walk(entry) for entry in node]
        return node
    return walk(DOCUMENT)


def members(node):
    if isinstance(node, dict):
        found = set(node)
        return found.union(*map(members, node.values()))
    if isinstance(node, list):
        return set().union(*map(members, node))
    return set()


@pytest.mark.parametrize("value", [None, True, -1, 1.5, 10**30, "text", "long " * 40, [], [[]], {},
                                   {"a": [1]}], ids=lambda value: repr(value)[:12])
def test_any_member_may_have_any_type(value):
    names = sorted(members(DOCUMENT) - {"apm"})
    assert len(names) > 40
    for name in names:
        lines = waterfall.render_transaction(flipped(name, value), 80)
        assert max(map(waterfall.cell_width, lines)) <= 80, name


@pytest.mark.parametrize("line, said", [
    (b"hello there", "not Base64"),
    (b"", "Base64, but not JSON"),
    (b"\xff\xfe\x00", "not Base64"),
    (b"YQ", "not Base64"),
    (encode("not json").strip(), "Base64, but not JSON inside"),
    (encode("[1]").strip(), 'JSON, but not an object with a member "apm"'),
    (encode('{"apm":[]}').strip(), 'JSON, but not an object with a member "apm"'),
    (encode("[" * 100000).strip(), "Base64, but not JSON inside"),
    (encode('{"apm":' + "9" * 5000 + "}").strip(), "Base64, but not JSON inside"),
])
def test_garbage_is_told_as_garbage(line, said):
    kind, text = demo_collector.read_record(line)
    assert kind == "garbage"
    assert said in text
    (shown,) = demo_collector.describe((kind, text), 80, False)
    assert shown.startswith("garbage data port: ")
    assert waterfall.cell_width(shown) <= 80


def test_notice_is_one_line():
    event = demo_collector.read_record(b"message:\tNo request URI Found")
    assert event == ("notice", "No request URI Found")
    assert demo_collector.describe(event, 80, False) == ["notice  No request URI Found"]


@contextlib.contextmanager
def running(**options):
    collector = demo_collector.Collector(0, 0, **options).start()
    try:
        yield collector
    finally:
        collector.stop()


@pytest.fixture
def collector():
    with running() as started:
        yield started


def exchange(port, data, finish=True):
    """What is answered until the other side closes."""
    with socket.create_connection(("127.0.0.1", port), timeout=SECONDS) as connection:
        connection.sendall(data)
        if finish:
            connection.shutdown(socket.SHUT_WR)
        answer = b""
        while True:
            piece = connection.recv(4096)
            if not piece:
                return answer
            answer += piece


HANDSHAKE = (b'{"connect_info":{"agent_info":{"agent.version.info":"4.9.2.0",'
             b'"application.name":"Shop","port":8080}},"misc_info":{"txn.name":"\\/"}}\n')


def test_handshake_is_answered_at_its_line_feed_with_the_connection_still_open(collector):
    reply = json.loads(exchange(collector.status_port, HANDSHAKE, finish=False))
    assert reply["instance.status"] == 920 and reply["app.id"] == "shop"
    assert isinstance(reply["instance.id"], str) and reply["instance.id"]
    kind, told = collector.next_event(SECONDS)
    assert kind == "handshake"
    assert told["connect_info"]["agent_info"]["application.name"] == "Shop"


def test_one_reply_can_be_given_to_all():
    with running(reply={"app.id": "a9"}) as collector:
        assert json.loads(exchange(collector.status_port, HANDSHAKE)) == {"app.id": "a9"}


def test_handshake_with_a_port_that_is_no_number_is_answered_all_the_same(collector):
    answer = exchange(collector.status_port, HANDSHAKE.replace(b"8080", b"http"))
    assert json.loads(answer)["instance.status"] == 920
    assert collector.next_event(SECONDS) == ("handshake", None)


def test_application_is_introduced_once(collector):
    known = set()
    told = json.loads(HANDSHAKE)
    assert demo_collector.introduce(told, known, 80, False) == [
        "hello   Shop asks to be monitored (extension 4.9.2.0, port 8080)"]
    assert demo_collector.introduce(told, known, 80, False) == []


def test_garbage_on_either_port_is_told_and_the_next_request_is_served(collector):
    assert exchange(collector.status_port, b"GET / HTTP/1.1\r\n\r\n") == b""
    kind, text = collector.next_event(SECONDS)
    assert kind == "garbage" and text.startswith("status port: no handshake but 18 bytes: GET /")
    exchange(collector.data_port, b"\x00\x01\n" + encode(json.dumps(DOCUMENT))[:40])
    told = [collector.next_event(SECONDS) for _ in range(2)]
    assert [kind for kind, _ in told] == ["garbage", "garbage"]
    assert "no line feed after 40 bytes" in told[0][1] + told[1][1]
    exchange(collector.data_port, b"message:\tx\n" + encode(json.dumps(DOCUMENT)))
    assert collector.next_event(SECONDS) == ("notice", "x")
    assert collector.next_event(SECONDS) == ("transaction", DOCUMENT)


def test_many_connections_at_once_are_all_served(collector):
    waiting = [socket.create_connection(("127.0.0.1", collector.data_port), timeout=SECONDS)
               for _ in range(60)]
    for number, connection in reversed(list(enumerate(waiting))):
        connection.sendall(b"message:\tn%d\n" % number)
        connection.close()
    came = {collector.next_event(SECONDS) for _ in waiting}
    assert came == {("notice", "n%d" % number) for number in range(60)}


def test_records_sent_one_after_the_other_are_told_in_that_order(collector, monkeypatch):
    monkeypatch.setattr(demo_collector, "ORDER_SECONDS", SECONDS)
    for number in range(300):
        with socket.create_connection(("127.0.0.1", collector.data_port), SECONDS) as sender:
            sender.sendall(b"message:\tn%d\n" % number)
    came = [collector.next_event(SECONDS)[1] for _ in range(300)]
    assert came == ["n%d" % number for number in range(300)]


def test_sender_that_never_ends_holds_nobody_up(collector):
    with socket.create_connection(("127.0.0.1", collector.data_port), timeout=SECONDS) as silent:
        silent.sendall(b"message:\tsilent")
        exchange(collector.data_port, b"message:\tafter\n")
        assert collector.next_event(SECONDS) == ("notice", "after")


def test_taken_port_is_said_and_the_other_one_given_back(collector):
    with socket.socket() as probe:
        probe.bind(("127.0.0.1", 0))
        free = probe.getsockname()[1]
    with pytest.raises(demo_collector.PortTaken):
        demo_collector.Collector(free, collector.data_port)
    demo_collector.Collector(free, 0).stop()


def start_program(tmp_path, *arguments):
    ports = tmp_path / "ports"
    environment = dict(os.environ, NO_COLOR="1", COLUMNS="80", PYTHONIOENCODING="utf-8")
    program = subprocess.Popen(
        [sys.executable, PROGRAM, "--status-port", "0", "--data-port", "0",
         "--port-file", str(ports)] + list(arguments),
        stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.PIPE, env=environment)
    deadline = time.monotonic() + SECONDS
    while not ports.exists() and time.monotonic() < deadline and program.poll() is None:
        time.sleep(0.01)
    status_port, data_port = map(int, ports.read_text().split())
    return program, status_port, data_port


def ended(program):
    """(exit status, output, error output) once it has ended by itself."""
    try:
        output, errors = program.communicate(timeout=SECONDS)
    except subprocess.TimeoutExpired:
        program.kill()
        program.communicate()
        raise
    return program.returncode, output.decode(), errors.decode()


def test_program_draws_and_ends_after_the_wanted_number(tmp_path):
    program, status_port, data_port = start_program(tmp_path, "--once", "1")
    exchange(status_port, HANDSHAKE, finish=False)
    exchange(data_port, b"message:\tfirst\n")
    exchange(data_port, encode(json.dumps(DOCUMENT)))
    status, output, errors = ended(program)
    assert (status, errors) == (0, "")
    lines = output.split("\n")
    assert lines[0] == ("collector: listening on 127.0.0.1, status port %d, data port %d"
                        % (status_port, data_port))
    assert lines[1:3] == ["hello   Shop asks to be monitored (extension 4.9.2.0, port 8080)",
                          "notice  first"]
    assert lines[3:3 + len(DRAWN)] == DRAWN


def test_program_says_what_did_not_come_and_fails(tmp_path):
    program, _, _ = start_program(tmp_path, "--once", "2", "--wait", "0.2")
    status, _, errors = ended(program)
    assert status == 1
    assert errors == "collector: 0 of 2 transactions came in 0.2 seconds\n"


@pytest.mark.parametrize("number", [signal.SIGINT, signal.SIGTERM])
def test_program_ends_cleanly_when_told_to(tmp_path, number):
    program, _, _ = start_program(tmp_path)
    program.send_signal(number)
    status, _, errors = ended(program)
    assert (status, errors) == (0, "")


def test_program_says_that_a_port_is_taken(collector):
    program = subprocess.Popen(
        [sys.executable, PROGRAM, "--status-port", str(collector.status_port),
         "--data-port", "0"], stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
        stderr=subprocess.PIPE)
    status, output, errors = ended(program)
    assert (status, output) == (1, "")
    assert errors == ("collector: cannot listen on 127.0.0.1 port %d: Address already in use\n"
                      % collector.status_port)
