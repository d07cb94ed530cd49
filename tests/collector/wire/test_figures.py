"""What the verbs and services tell about many requests, recomputed from the payloads that were
sent."""
import base64
import fcntl
import http.client
import json
import math
import os
import pathlib
import pty
import random
import select
import signal
import struct
import subprocess
import termios
import time
import urllib.parse

import pytest
import yaml

import conftest
import sockets

SECONDS = 30
DESCRIPTION = pathlib.Path(__file__).resolve().parents[3] / "docs" / "openapi.yaml"
RECORDED, LEFT_OUT = 920, 910
NAMES = {"/start": "/start", "/cart/7": "/cart/*", "/cart/8": "/cart/*", "/admin/list": "/admin/list"}
HOSTS = ["api.example", "pay.example:8443"]


def now_ms():
    return int(time.time() * 1000)


def spans_of(choose, at):
    """Statements and calls one after the other."""
    spans = []
    for number in range(choose.randrange(6)):
        end = at + int(choose.lognormvariate(2, 1))
        if choose.random() < 0.7:
            span = {"fn": "PDO::query", "cn": "PDO", "ex": 1,
                    "qs": "SELECT a FROM t%d WHERE b = %d" % (choose.randrange(3), number)}
        else:
            span = {"fn": "curl_exec", "cn": "HTTP", "ex": 1, "esc": choose.choice([200, 200, 503]),
                    "hn": "https://%s/v1/x?y=1" % choose.choice(HOSTS)}
        spans.append({**span, "st": at, "et": end})
        at = end
    return spans


def error_of(choose, at):
    return {"fn": "pay", "cn": "PHP", "ie": 1, "st": at, "et": at, "ei": [{
        "err_clz": choose.choice(["DomainException", "LogicException"]),
        "str": "no item %d" % choose.randrange(100), "filename": "/srv/Cart.php", "linenumber": 12,
        "time": at, "level": choose.choice(["Error", "Warning"])}]}


def line_of(choose, number, name, begin):
    spans = spans_of(choose, begin)
    end = max([span["et"] for span in spans], default=begin) + int(choose.lognormvariate(3, 1.5))
    if choose.random() < 0.1:
        spans.append(error_of(choose, begin))
    root = {"st": begin, "et": end, "mo": 0, "fn": "main", "cn": "PHP", "si": "%016x" % number}
    children = [{"mo": i, "si": "%08x%08x" % (number, i), "psi": root["si"], **span}
                for i, span in enumerate(spans, 1)]
    info = {"t_name": name, "s_time": begin, "e_time": end, "transaction_type": 1,
            "httpcode": 500 if choose.random() < 0.05 else 200, "http_method_name": "GET",
            "trace_id": "%032x" % number}
    document = {"apm": {"data": True, "application_info": {"application_name": "Shop"},
                        "transaction_info": info, "app_parameters": {},
                        "method_info": {"span_info": [root, *children]}}}
    return base64.b64encode(json.dumps(document).encode()) + b"\n"


def lines(count, seed=1, names=tuple(NAMES)):
    choose = random.Random(seed)
    begin = now_ms() - 60000
    return [line_of(choose, seed * 100000 + number, choose.choice(names), begin + number)
            for number in range(count)]


def read(line):
    apm = json.loads(base64.b64decode(line))["apm"]
    return apm["transaction_info"], apm["method_info"]["span_info"]


def percentile(values, share):
    return sorted(values)[max(math.ceil(share * len(values)), 1) - 1]


def assert_percentiles(row, durations):
    for share, name in ((0.5, "p50_ms"), (0.95, "p95_ms"), (0.99, "p99_ms")):
        exact = percentile(durations, share)
        assert abs(row[name] - exact) <= exact * 0.01 + 0.5, (name, exact, row)
    assert row["longest_ms"] == max(durations)


def took(span):
    return span["et"] - span["st"]


class Recomputed:
    """What the payloads of one transaction tell."""

    def __init__(self, sent):
        self.durations, self.slowest, self.failed = [], {}, 0
        self.queries, self.query_time, self.external_time = 0, 0, 0
        for info, spans in sent:
            duration = info["e_time"] - info["s_time"]
            self.durations.append(duration)
            self.slowest.setdefault(duration, set()).add(spans[0]["si"])
            levels = [error["level"] for span in spans for error in span.get("ei", ())]
            self.failed += info["httpcode"] >= 500 or "Error" in levels
            statements = [span for span in spans if span["cn"] == "PDO"]
            self.queries += len(statements)
            self.query_time += sum(map(took, statements))
            self.external_time += sum(took(span) for span in spans if span["cn"] == "HTTP")

    def apdex(self, threshold):
        weights = [1 if each <= threshold else 0.5 if each <= 4 * threshold else 0
                   for each in self.durations]
        return sum(weights) / len(weights)


def get(collector, path, **parameters):
    connection = http.client.HTTPConnection("127.0.0.1", collector.http, timeout=SECONDS)
    query = "?" + urllib.parse.urlencode(parameters) if parameters else ""
    connection.request("GET", path + query, headers={"Authorization": "Bearer " + collector.token})
    response = connection.getresponse()
    body = response.read()
    connection.close()
    assert response.status == 200, body
    return json.loads(body)


def until_recorded(collector, count):
    deadline = time.monotonic() + SECONDS
    while get(collector, "/api/v1/top")["total"]["recorded"] != count:
        assert time.monotonic() < deadline, "the requests were not stored"
        time.sleep(0.1)


def send_all(collector, sent):
    sockets.send(collector.data, b"".join(sent))
    until_recorded(collector, len(sent))


def test_top_tells_what_was_sent(collector):
    sent = lines(2000)
    send_all(collector, sent)
    by_name = {}
    for line in sent:
        request = read(line)
        by_name.setdefault(NAMES[request[0]["t_name"]], []).append(request)
    all_time = sum(sum(Recomputed(requests).durations) for requests in by_name.values())
    top = json.loads(collector.run("top", "--json", "--apdex", "100ms").stdout)
    assert {row["transaction"] for row in top["transactions"]} == set(by_name)
    for row in top["transactions"]:
        expected = Recomputed(by_name[row["transaction"]])
        count = len(expected.durations)
        assert (row["application"], row["requests"], row["recorded"]) == ("Shop", count, count)
        assert_percentiles(row, expected.durations)
        assert row["failed"] == expected.failed
        assert row["error_share"] == pytest.approx(expected.failed / count, abs=1e-4)
        assert row["queries_per_request"] == pytest.approx(expected.queries / count, abs=1e-4)
        assert row["database_ms"] == pytest.approx(expected.query_time / count, abs=1e-4)
        assert row["external_ms"] == pytest.approx(expected.external_time / count, abs=1e-4)
        assert row["time_share"] == pytest.approx(sum(expected.durations) / all_time, abs=1e-4)
        assert row["slowest"] in expected.slowest[max(expected.slowest)]
        # The threshold lies within a bucket, whose ends are 2 % apart.
        assert expected.apdex(100) - 1e-4 <= row["apdex"] <= expected.apdex(102) + 1e-4
        assert row["calls_per_minute"] == pytest.approx(count / top["range"]["minutes"], rel=1e-3)
        assert collector.run("find", "id:" + row["slowest"]).returncode == 0
    shares = [row["time_share"] for row in top["transactions"]]
    assert shares == sorted(shares, reverse=True)


def test_queries_calls_and_errors_tell_what_was_sent(collector):
    sent = lines(1500, seed=2)
    send_all(collector, sent)
    statements, hosts, errors = {}, {}, {}
    for line in sent:
        for span in read(line)[1]:
            if span["cn"] == "PDO":
                table = span["qs"].partition(" WHERE")[0]
                statements.setdefault(table + " WHERE b = ?", []).append(span)
            elif span["cn"] == "HTTP":
                hosts.setdefault(span["hn"].split("/")[2], []).append(span)
            for error in span.get("ei", ()):
                errors.setdefault(error["err_clz"], []).append(error)
    told = json.loads(collector.run("queries", "--json").stdout)["statements"]
    assert {row["statement"] for row in told} == set(statements)
    for row in told:
        spans = statements[row["statement"]]
        assert (row["count"], row["total_ms"]) == (len(spans), sum(map(took, spans)))
        assert_percentiles(row, [took(span) for span in spans])
    told = json.loads(collector.run("calls", "--json").stdout)["hosts"]
    assert {row["host"] for row in told} == set(hosts)
    for row in told:
        spans = hosts[row["host"]]
        assert (row["count"], row["total_ms"]) == (len(spans), sum(map(took, spans)))
        assert row["failed"] == sum(span["esc"] >= 500 for span in spans)
        assert_percentiles(row, [took(span) for span in spans])
    told = json.loads(collector.run("errors", "--json").stdout)["errors"]
    assert {row["type"]: row["count"] for row in told} == {
        name: len(each) for name, each in errors.items()}
    assert all(row["level"] == "Error" for row in told)


def test_requests_are_counted_at_their_handshakes(tmp_path):
    (tmp_path / "store").mkdir()
    (tmp_path / "c.toml").write_text('[[monitor]]\ntransaction = "/cart"\nshare = "10%"\n')
    collector = conftest.Collector(os.environ["KAQ_COLLECTOR"], tmp_path / "store",
                                   ("--config", str(tmp_path / "c.toml")))
    try:
        ready = iter(lines(300, seed=3, names=("/cart",)))
        answers = []
        for _ in range(300):
            told = sockets.ask(collector.handshake, sockets.handshake())
            answers.append(json.loads(told)["instance.status"])
            if answers[-1] == RECORDED:
                sockets.send(collector.data, next(ready))
        assert (answers.count(RECORDED), answers.count(LEFT_OUT)) == (30, 270)
        until_recorded(collector, 30)
        deadline = time.monotonic() + SECONDS
        top = get(collector, "/api/v1/top")
        while top["total"]["requests"] < 300 and time.monotonic() < deadline:
            time.sleep(0.1)
            top = get(collector, "/api/v1/top")
        [row] = top["transactions"]
        assert (row["requests"], row["exact"], row["recorded"]) == (300, True, 30)
        assert row["monitored_share"] == 0.1
        assert top["applications"] == [
            {"application": "Shop", "requests": 300, "monitored": 30, "monitored_share": 0.1}]
        shown = collector.run("top").stdout
        assert "300 requests" in shown and "10 %" in shown
    finally:
        collector.stop()


def members_of(schemas, schema):
    """Of an object that the description makes of others."""
    if "$ref" in schema:
        schema = schemas[schema["$ref"].rpartition("/")[2]]
    members = set(schema.get("properties", ()))
    return members.union(*(members_of(schemas, each) for each in schema.get("allOf", ())))


def test_every_member_is_described(collector):
    send_all(collector, lines(200, seed=10))
    schemas = yaml.safe_load(DESCRIPTION.read_text())["components"]["schemas"]
    for path, name, schema in (("top", "transactions", "Top"),
                               ("queries", "statements", "Statement"),
                               ("errors", "errors", "FailureGroup"),
                               ("calls", "hosts", "CalledHost"), ("curve", "points", "Point")):
        told = get(collector, "/api/v1/" + path + "?step=60000")
        assert told[name]
        assert set().union(*told[name]) == members_of(schemas, schemas[schema])
        assert set(told["range"]) <= members_of(schemas, schemas["Range"])


def shown(collector, columns, *arguments):
    done = subprocess.run(
        [collector.program, *arguments, "--store", str(collector.store)], capture_output=True,
        text=True, timeout=SECONDS, env={**os.environ, "COLUMNS": str(columns), "LC_ALL": "C.UTF-8"})
    assert done.returncode == 0, done.stderr
    return done.stdout


def test_top_fits_a_narrow_terminal(collector):
    send_all(collector, lines(300, seed=4))
    for columns in (40, 50, 60, 66):
        text = shown(collector, columns, "top")
        assert max(map(len, text.splitlines())) <= columns
        titles = text.splitlines()[2].split()
        assert titles[0] == "time" and "p95" in titles and titles[-1].startswith("transac")


@pytest.mark.parametrize("columns", [80, 140])
@pytest.mark.parametrize("verb", ["top", "queries", "errors", "calls"])
def test_lists_fit_the_terminal(collector, verb, columns):
    sent = lines(300, seed=4)
    send_all(collector, sent)
    text = shown(collector, columns, verb)
    assert max(map(len, text.splitlines())) <= columns
    assert "Shop" in text and "\033" not in text
    rows = {"top": "/cart/*", "queries": "SELECT a FROM t1", "errors": "DomainException",
            "calls": "api.example"}
    assert rows[verb] in text


@pytest.mark.parametrize("verb", ["top", "queries", "errors", "calls"])
def test_lists_say_when_there_is_nothing_and_what_is_wrong(collector, verb):
    done = collector.run(verb)
    assert (done.returncode, done.stdout) == (1, "")
    assert "--since 24h" in done.stderr
    done = collector.run(verb, "--sort", "cuont")
    assert (done.returncode, done.stdout) == (2, "")
    assert "sort" in done.stderr
    done = collector.run(verb, "--since", "yesterdayish")
    assert (done.returncode, done.stdout) == (2, "")
    assert collector.run(verb, "-n", "0").returncode == 2


def test_a_name_that_hides_pages_is_told_with_the_rule_that_helps(collector):
    pages = ["cart", "list", "user", "order", "about", "help", "start", "news", "terms"]
    choose = random.Random(11)
    sent = []
    for number in range(90):
        line = line_of(choose, number, "/index.php", now_ms() - 1000)
        document = json.loads(base64.b64decode(line))
        document["apm"]["transaction_info"]["http_query_str"] = "module=%s&id=%d" % (
            pages[number % len(pages)], number)
        sent.append(base64.b64encode(json.dumps(document).encode()) + b"\n")
    send_all(collector, sent)
    hidden, = get(collector, "/api/v1/top")["hidden_pages"]
    assert (hidden["transaction"], hidden["parameter"], hidden["pages"]) == ("/index.php", "module", 9)
    assert get(collector, "/api/v1/top", app="none")["hidden_pages"] == []
    said = collector.run("top").stderr
    assert "/index.php is 9 pages and more" in said
    rule = "[[names.rule]]\npath = '/index.php'\nparameters = ['module']\n"
    for part in rule.splitlines():
        assert part in said
    configuration = collector.store.parent / "names.toml"
    configuration.write_text(rule)
    assert collector.stop() == (0, "")
    again = conftest.Collector(collector.program, collector.store, ["--config", str(configuration)])
    try:
        sockets.send(again.data, b"".join(sent))
        until_recorded(again, 2 * len(sent))
        named = {row["transaction"] for row in get(again, "/api/v1/top")["transactions"]}
        assert {"/index.php?module=" + page for page in pages} <= named
        assert get(again, "/api/v1/top")["hidden_pages"] == []
    finally:
        assert again.stop() == (0, "")


def test_a_store_is_read_where_no_collector_runs(collector):
    send_all(collector, lines(50, seed=5))
    told = json.loads(collector.run("top", "--json").stdout)
    assert collector.stop() == (0, "")
    after = json.loads(collector.run("top", "--json").stdout)
    assert [row["p95_ms"] for row in after["transactions"]] == [
        row["p95_ms"] for row in told["transactions"]]
    assert after["total"]["recorded"] == 50


class Terminal:
    """A terminal of its own in which a verb runs."""

    def __init__(self, collector, *arguments):
        self.main, side = pty.openpty()
        fcntl.ioctl(side, termios.TIOCSWINSZ, struct.pack("HHHH", 24, 80, 0, 0))
        self.side, self.before = side, termios.tcgetattr(side)
        self.seen = ""
        environment = {**os.environ, "TERM": "xterm", "LC_ALL": "C.UTF-8"}
        environment.pop("COLUMNS", None)
        self.process = subprocess.Popen(
            [collector.program, *arguments, "--store", str(collector.store)], stdin=side,
            stdout=side, stderr=side, env=environment, start_new_session=True)

    def until(self, text):
        deadline = time.monotonic() + SECONDS
        while text not in self.seen:
            assert time.monotonic() < deadline, repr(self.seen)
            if select.select([self.main], [], [], 0.1)[0]:
                self.seen += os.read(self.main, 65536).decode(errors="replace")

    def end(self):
        if self.process.poll() is None:
            self.process.kill()
        self.process.wait(timeout=SECONDS)
        os.close(self.main)
        os.close(self.side)


@pytest.fixture
def terminal(collector):
    opened = []

    def start(*arguments):
        opened.append(Terminal(collector, *arguments))
        return opened[-1]

    yield start
    for each in opened:
        each.end()


@pytest.mark.parametrize("end", ["interrupt", "key"])
def test_top_is_drawn_anew_and_leaves_the_terminal_as_it_was(collector, terminal, end):
    send_all(collector, lines(20, seed=6, names=("/start",)))
    top = terminal("top")
    top.until("/start")
    assert "\033[?1049h" in top.seen
    sockets.send(collector.data, b"".join(lines(20, seed=7, names=("/admin/list",))))
    top.until("/admin/list")
    assert "\033[?1049l" not in top.seen
    if end == "interrupt":
        top.process.send_signal(signal.SIGINT)
    else:
        os.write(top.main, b"q")
    top.until("\033[?1049l")
    assert top.process.wait(timeout=SECONDS) == 0
    # Lines that are too long were cut, and are wrapped again.
    assert top.seen.index("\033[?7l") < top.seen.index("\033[?7h")
    assert "\033[?25h" in top.seen
    assert termios.tcgetattr(top.side) == top.before


def test_top_is_printed_once_where_that_is_wanted(collector, terminal):
    send_all(collector, lines(20, seed=8))
    top = terminal("top", "--once")
    top.until("/start")
    assert top.process.wait(timeout=SECONDS) == 0
    assert "\033[?1049h" not in top.seen


def test_top_goes_on_while_the_collector_is_away(collector, terminal):
    send_all(collector, lines(20, seed=9, names=("/start",)))
    top = terminal("top")
    top.until("/start")
    collector.stop()
    for _ in range(2):
        top.seen = ""
        top.until("/start")  # from the store
    os.write(top.main, b"q")
    assert top.process.wait(timeout=SECONDS) == 0
