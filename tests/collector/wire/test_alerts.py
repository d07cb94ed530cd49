"""Alerts that are posted to a web address."""
import http.server
import json
import os
import threading
import time

import pytest

import conftest
import sockets

SECONDS = 60
RULE = ('[[alert]]\napplication = "Shop"\nmetric = "p95"\nlimit = "100ms"\nminutes = 1\n'
        'webhook = "http://127.0.0.1:%d/hook"\n')


class Receiver:
    """Keeps what is posted; answers with these statuses, the last one from then on."""

    def __init__(self, *statuses):
        receiver = self

        class Handler(http.server.BaseHTTPRequestHandler):
            def do_POST(self):
                body = self.rfile.read(int(self.headers["Content-Length"]))
                status = statuses[min(len(receiver.posted), len(statuses) - 1)]
                receiver.posted.append((self.path, self.headers["Content-Type"], json.loads(body)))
                self.send_response(status)
                if status in (301, 302, 307, 308):
                    self.send_header("Location", "http://127.0.0.1:%d/elsewhere" % receiver.port)
                self.send_header("Content-Length", "0")
                self.end_headers()

            def do_GET(self):
                receiver.posted.append((self.path, None, None))
                self.send_response(200)
                self.end_headers()

            def log_message(self, *_):
                pass

        self.posted = []
        self.server = http.server.ThreadingHTTPServer(("127.0.0.1", 0), Handler)
        self.port = self.server.server_address[1]
        self.thread = threading.Thread(target=self.server.serve_forever)
        self.thread.start()

    def close(self):
        self.server.shutdown()
        self.server.server_close()
        self.thread.join()

    def wait(self, count):
        deadline = time.monotonic() + SECONDS
        while len(self.posted) < count:
            assert time.monotonic() < deadline, self.posted
            time.sleep(0.05)


def put_slow_requests(store, name="/cart"):
    """Into each of the last minutes."""
    collector = conftest.Collector(os.environ["KAQ_COLLECTOR"], store)
    try:
        now = int(time.time() * 1000)
        for minute in range(4):
            for _ in range(3):
                start = now - minute * 60000 - 500
                sockets.send(collector.data, sockets.payload(name, s_time=start,
                                                             e_time=start + 500))
    finally:
        assert collector.stop() == (0, "")


@pytest.mark.parametrize("statuses", [(200,), (500, 503, 204)])
def test_what_is_too_slow_is_posted_once(tmp_path, statuses):
    store = tmp_path / "store"
    store.mkdir()
    put_slow_requests(store)
    file = tmp_path / "collector.toml"
    receiver = Receiver(*statuses)
    try:
        file.write_text(RULE % receiver.port)
        collector = conftest.Collector(os.environ["KAQ_COLLECTOR"], store, ("--config", str(file)))
        try:
            receiver.wait(len(statuses))
        finally:
            collector.stop()
        assert len(receiver.posted) == len(statuses)
        path, kind, told = receiver.posted[-1]
        assert (path, kind) == ("/hook", "application/json")
        assert told["text"].startswith("p95 of Shop /cart is 5") or \
            told["text"].startswith("p95 of Shop /cart is 49"), told
        assert told["text"].endswith(", above the limit of 100 ms")
        assert (told["application"], told["transaction"]) == ("Shop", "/cart")
        assert (told["metric"], told["usual"]) == ("p95", {"limit": 100.0})
        assert abs(told["value"] - 500) <= 5 and told["recovered"] is False
        assert told["link"].startswith("http://127.0.0.1:%d/" % collector.http)
        assert told["text"] in collector.log
        assert all(each == receiver.posted[0] for each in receiver.posted)
    finally:
        receiver.close()


def test_a_restart_posts_nothing_twice_and_nothing_late(tmp_path):
    store = tmp_path / "store"
    store.mkdir()
    put_slow_requests(store)
    put_slow_requests(store, "/pay")
    file = tmp_path / "collector.toml"
    # After the second try there are ten seconds without one.
    receiver = Receiver(503, 503, 200)
    try:
        file.write_text(RULE % receiver.port + 'transaction = "/cart"\n')
        arguments = (store, ("--config", str(file)))
        for count in (2, 3):
            collector = conftest.Collector(os.environ["KAQ_COLLECTOR"], *arguments)
            try:
                receiver.wait(count)
            finally:
                collector.stop()
        assert len(receiver.posted) == 3
        assert all(each == receiver.posted[0] for each in receiver.posted)
        # Both are looked at together, and one of them is known.
        with file.open("a") as more:
            more.write(RULE % receiver.port + 'transaction = "/pay"\n')
        collector = conftest.Collector(os.environ["KAQ_COLLECTOR"], *arguments)
        try:
            receiver.wait(4)
        finally:
            collector.stop()
        assert [told["transaction"] for _, _, told in receiver.posted] == ["/cart"] * 3 + ["/pay"]
        assert (store / "alerts").stat().st_mode & 0o77 == 0
    finally:
        receiver.close()


@pytest.mark.parametrize("status", [404, 302, 307])
def test_a_web_address_that_refuses_is_asked_once(tmp_path, status):
    store = tmp_path / "store"
    store.mkdir()
    put_slow_requests(store)
    file = tmp_path / "collector.toml"
    receiver = Receiver(status)
    try:
        file.write_text(RULE % receiver.port)
        collector = conftest.Collector(os.environ["KAQ_COLLECTOR"], store, ("--config", str(file)))
        receiver.wait(1)
        deadline = time.monotonic() + SECONDS
        while sockets.status(collector)["collector"]["alerts"]["given_up"] == 0:
            assert time.monotonic() < deadline
            time.sleep(0.05)
        # It answers and ends as quickly as ever.
        assert sockets.ask(collector.handshake, sockets.handshake()).startswith("{")
        collector.stop()
        assert len(receiver.posted) == 1
        assert "could not be posted to 127.0.0.1:%d: it answered with status %d" % \
            (receiver.port, status) in collector.log
        assert "/hook" not in collector.log
    finally:
        receiver.close()
