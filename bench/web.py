"""Cost per web request: one FastCGI process per variant, asked in turn over a kept connection."""
import os
import socket
import struct
import subprocess
import time

import harness
from harness import DROPPED, KEPT, UNMONITORED, VARIANTS, BenchError

PAGES = {"0": "page without a call", "500": "page of 500 calls"}
_BEGIN, _END, _PARAMS, _STDIN, _STDOUT = 1, 3, 4, 5, 6


def _record(kind, content):
    return struct.pack(">BBHHBx", 1, kind, 1, len(content), 0) + content


def _request(script, query):
    variables = {"REQUEST_METHOD": "GET", "SCRIPT_FILENAME": script, "QUERY_STRING": query,
                 "REQUEST_URI": "/shop/page?" + query, "SCRIPT_NAME": "/shop/page",
                 "SERVER_PROTOCOL": "HTTP/1.1", "HTTP_HOST": "shop.example",
                 "HTTP_USER_AGENT": "bench", "HTTP_ACCEPT": "text/html"}
    pairs = b"".join(struct.pack(">BB", len(name), len(value)) + (name + value).encode()
                     for name, value in variables.items())
    keep_connection = struct.pack(">HB5x", 1, 1)
    return (_record(_BEGIN, keep_connection) + _record(_PARAMS, pairs) + _record(_PARAMS, b"")
            + _record(_STDIN, b""))


class Server:
    """A php-cgi process and a connection to it."""

    def __init__(self, setup, variant):
        self._path = os.path.join(setup.scratch, variant + ".sock")
        self._errors = open(os.path.join(setup.scratch, variant + ".log"), "w+b")
        environment = dict(os.environ, PHP_FCGI_MAX_REQUESTS="100000000")
        self._child = subprocess.Popen(
            [setup.php_cgi] + setup.arguments(variant) + ["-b", self._path], env=environment,
            stdin=subprocess.DEVNULL, stdout=self._errors, stderr=self._errors)
        try:
            self._connect(time.monotonic() + 20)
        except BenchError:
            self.stop()
            raise
        self._requests = {query: _request(setup.script("page.php"), query) for query in PAGES}

    def _connect(self, deadline):
        while True:
            self._socket = socket.socket(socket.AF_UNIX)
            self._socket.settimeout(20)
            try:
                self._socket.connect(self._path)
                return
            except OSError:
                self._socket.close()
                if time.monotonic() > deadline or self._child.poll() is not None:
                    raise BenchError("php-cgi did not start")
                time.sleep(0.02)

    def ask(self, query):
        """The page's text."""
        self._socket.sendall(self._requests[query])
        data = b""
        page = b""
        while True:
            while len(data) >= 8:
                _, kind, _, size, padding = struct.unpack(">BBHHBx", data[:8])
                if len(data) < 8 + size + padding:
                    break
                if kind == _END:
                    return page
                if kind == _STDOUT:
                    page += data[8:8 + size]
                data = data[8 + size + padding:]
            more = self._socket.recv(65536)
            if not more:
                raise BenchError("php-cgi closed the connection")
            data += more

    def time(self, query, times):
        """Microseconds per request."""
        begin = time.perf_counter()
        for _ in range(times):
            self.ask(query)
        return (time.perf_counter() - begin) * 1e6 / times

    def stop(self):
        self._socket.close()
        self._child.terminate()
        harness.wait_or_kill(self._child)
        self._errors.close()


def _check(setup, servers):
    """Each variant gives the page, and the collector hears of the monitored ones only."""
    for variant, server in servers.items():
        before = setup.collector.counts()[0]
        page = server.ask("500")
        if not page.endswith(b"<p>500</p>\n"):
            raise BenchError("%s: not the page: %r" % (variant, page[-200:]))
        monitored = variant in (DROPPED, KEPT)
        if monitored and not setup.collector.transactions_reach(before + 1):
            raise BenchError("%s: no transaction arrived" % variant)
        if variant == UNMONITORED and setup.collector.counts()[0] != before:
            raise BenchError("%s: a transaction arrived" % variant)


def time_requests(setup, rounds):
    """{page: {variant: [us per request, one per round]}}."""
    times = {query: {variant: [] for variant in VARIANTS} for query in PAGES}
    servers = {}
    try:
        for variant in VARIANTS:
            servers[variant] = Server(setup, variant)
        _check(setup, servers)
        for turn in range(rounds):
            harness.progress("per request: round %d of %d" % (turn + 1, rounds))
            for query in PAGES:
                for variant in harness.rotated(VARIANTS, turn):
                    times[query][variant].append(servers[variant].time(query, 40))
    finally:
        for server in servers.values():
            server.stop()
    return times
