"""Which requests `kaq tail` shows."""
import json
import threading

import sockets


class Sender:
    """Sends the same payloads again and again, until it is told to stop: what was sent before the
    other side listened is not told."""

    def __init__(self, collector, *lines):
        self.collector, self.lines, self.ended = collector, lines, threading.Event()
        self.thread = threading.Thread(target=self.send)

    def send(self):
        while not self.ended.wait(0.05):
            for line in self.lines:
                sockets.send(self.collector.data, line)

    def __enter__(self):
        self.thread.start()

    def __exit__(self, *_):
        self.ended.set()
        self.thread.join()


def paths(done):
    assert (done.returncode, done.stderr) == (0, "")
    return {json.loads(line)["path"] for line in done.stdout.splitlines()}


def test_a_query_chooses_by_what_only_the_collector_knows(collector):
    statement = {"fn": "PDO::query", "cn": "PDO", "qs": "SELECT a FROM product"}
    with Sender(collector, sockets.payload("/a"), sockets.payload("/b", spans=[statement]),
                sockets.payload("/c", httpcode=500)):
        query = "sql:\"from product\" OR status:5xx"
        assert paths(collector.run("tail", query, "--json", "-n", "10")) == {"/b", "/c"}
        assert paths(collector.run("tail", query, "--errors", "--json", "-n", "5")) == {"/c"}


def test_a_query_chooses_by_calls_and_findings(collector):
    failed = {"fn": "curl_exec", "cn": "HTTP", "ex": 1, "esc": 503,
              "hn": "http://api.example:8080/stock?a=1"}
    good = {**failed, "esc": 200, "hn": "http://api.example/"}
    with Sender(collector, sockets.payload("/a"), sockets.payload("/b", spans=[failed]),
                sockets.payload("/c", spans=[good])):
        for query, found in (("verdict:failed-call", {"/b"}), ("call:api.example*", {"/b", "/c"}),
                             ("call:api.example:8080", {"/b"}), ("call:* -has:verdict", {"/c"})):
            assert paths(collector.run("tail", query, "--json", "-n", "6")) == found
    for query, found in (("call:API.example:8080", {"/b"}), ("call:api.example", {"/c"}),
                         ("verdict:failed-call", {"/b"})):
        done = collector.run("find", query, "--json")
        assert {each["path"] for each in json.loads(done.stdout)["requests"]} == found


def test_a_query_with_a_mistake_is_explained(collector):
    done = collector.run("tail", "app:shop tnx:/a")
    assert (done.returncode, done.stdout) == (2, "")
    assert done.stderr == ("kaq: the query has a mistake\n"
                           "column 10: unknown field 'tnx'; did you mean txn:?\n"
                           "  app:shop tnx:/a\n"
                           "           ^\n")
