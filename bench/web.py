"""Cost per web request: one FastCGI process per variant, asked in turn over a kept connection.

Two variants are no PHP but a bare C program, which answers at once: one as it is, and one that has
the two conversations with the collector before. Their difference is the floor of what the extension
adds to a page without a call. In one more variant the bare engine has the same conversations around
each page: what they cost there, where they and the engine drive each other out of the processor's
caches."""
import os
import shutil
import socket
import struct
import subprocess
import time

import harness
from harness import BARE, DROPPED, KEPT, TALK, UNMONITORED, VARIANTS, BenchError

CALM, BUSY = "0", "500"
PAGES = {CALM: "page without a call", BUSY: "page of 500 calls"}
SILENT, TALKING = "silent", "talking"
FLOOR = (SILENT, TALKING)
ENGINE_TALKING = "engine-talking"
COUNTED = (BARE, UNMONITORED, DROPPED) + FLOOR
_BEGIN, _END, _PARAMS, _STDIN, _STDOUT = 1, 3, 4, 5, 6


def _record(kind, content):
    return struct.pack(">BBHHBx", 1, kind, 1, len(content), 0) + content


def _variables(script, query):
    return {"REQUEST_METHOD": "GET", "SCRIPT_FILENAME": script, "QUERY_STRING": query,
            "REQUEST_URI": "/shop/page?" + query, "SCRIPT_NAME": "/shop/page",
            "SERVER_PROTOCOL": "HTTP/1.1", "HTTP_HOST": "shop.example",
            "HTTP_USER_AGENT": "bench", "HTTP_ACCEPT": "text/html"}


def _request(script, query):
    pairs = b"".join(struct.pack(">BB", len(name), len(value)) + (name + value).encode()
                     for name, value in _variables(script, query).items())
    keep_connection = struct.pack(">HB5x", 1, 1)
    return (_record(_BEGIN, keep_connection) + _record(_PARAMS, pairs) + _record(_PARAMS, b"")
            + _record(_STDIN, b""))


class Server:
    """A FastCGI process and a connection to it."""

    def __init__(self, setup, name, command):
        self.path = os.path.join(setup.scratch, name + ".sock")
        self._errors = open(os.path.join(setup.scratch, name + ".log"), "w+b")
        environment = dict(os.environ, PHP_FCGI_MAX_REQUESTS="100000000")
        self._child = subprocess.Popen(
            command(self.path), env=environment, stdin=subprocess.DEVNULL, stdout=self._errors,
            stderr=self._errors)
        try:
            self._connect(time.monotonic() + 20)
        except BenchError:
            self.stop()
            raise
        self._requests = {query: _request(setup.script("page.php"), query) for query in PAGES}

    @property
    def pid(self):
        return self._child.pid

    def _connect(self, deadline):
        while True:
            self._socket = socket.socket(socket.AF_UNIX)
            self._socket.settimeout(20)
            try:
                self._socket.connect(self.path)
                return
            except OSError:
                self._socket.close()
                if time.monotonic() > deadline or self._child.poll() is not None:
                    raise BenchError("a FastCGI process did not start")
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
                raise BenchError("a FastCGI process closed the connection")
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


def _php(setup, variant):
    return Server(setup, variant,
                  lambda path: [setup.php_cgi] + setup.arguments(variant) + ["-b", path])


def _talking(setup, variant, sizes):
    """A process of the bare program, or of the engine that has the bare conversations."""
    values = (setup.collector.monitored, setup.collector.data) + sizes
    if variant == ENGINE_TALKING:
        names = ("status_port", "data_port", "status_bytes", "data_bytes")
        words = [word for name, value in zip(names, values)
                 for word in ("-d", "probe.%s=%d" % (name, value))]
        return Server(setup, variant, lambda path: [setup.php_cgi] + setup.arguments(TALK)
                      + words + ["-b", path])
    words = [str(value) for value in values] if variant == TALKING else []
    return Server(setup, variant, lambda path: [setup.conversations, path] + words)


def _sizes(setup, server):
    """Bytes of the question and of the payload of the page without a call."""
    transactions, _, before, asked_before = setup.collector.counts()
    server.ask(CALM)
    if not setup.collector.transactions_reach(transactions + 1):
        raise BenchError("no transaction arrived")
    _, _, after, asked_after = setup.collector.counts()
    return asked_after - asked_before, after - before


def _check(setup, servers):
    """Each variant gives the page, and the collector hears of the monitored ones only."""
    for variant, server in servers.items():
        before = setup.collector.counts()[0]
        page = server.ask(BUSY)
        if variant not in FLOOR and not page.endswith(b"<p>500</p>\n"):
            raise BenchError("%s: not the page: %r" % (variant, page[-200:]))
        monitored = variant in (DROPPED, KEPT, TALKING, ENGINE_TALKING)
        if monitored and not setup.collector.transactions_reach(before + 1):
            raise BenchError("%s: no transaction arrived" % variant)
        if not monitored and setup.collector.counts()[0] != before:
            raise BenchError("%s: a transaction arrived" % variant)


def _start(setup, variants, servers):
    """Starts the processes of these variants, and the talking ones, into a dictionary."""
    for variant in variants:
        servers[variant] = _php(setup, variant)
    sizes = _sizes(setup, servers[DROPPED])
    for variant in FLOOR + (ENGINE_TALKING,):
        servers[variant] = _talking(setup, variant, sizes)
    _check(setup, servers)


def time_requests(setup, rounds):
    """{page: {variant: [us per request, one per round]}}."""
    times = {query: {variant: [] for variant in VARIANTS} for query in PAGES}
    times[CALM].update({variant: [] for variant in FLOOR + (ENGINE_TALKING,)})
    servers = {}
    try:
        _start(setup, VARIANTS, servers)
        for turn in range(rounds):
            harness.progress("per request: round %d of %d" % (turn + 1, rounds))
            for query in PAGES:
                for variant in harness.rotated(tuple(times[query]), turn):
                    times[query][variant].append(servers[variant].time(query, 40))
    finally:
        for server in servers.values():
            server.stop()
    return times


def count_instructions(setup):
    """{variant: instructions per page without a call}, from two runs of so many pages each."""
    page = setup.script("page.php")
    environment = dict(_variables(page, CALM), REDIRECT_STATUS="1")
    lengths = (100, 300)
    counts = {}
    for variant in (BARE, UNMONITORED, DROPPED):
        harness.progress("instructions: page without a call, %s" % harness.TITLES[variant])
        cost = []
        for pages in lengths:
            command = [setup.php_cgi] + setup.arguments(variant) + ["-T", str(pages), page]
            # What runs takes long in there; none shall be kept for that.
            if variant == DROPPED:
                command[1:1] = ["-d", "kaq.method_threshold=3600000"]
            cost.append(harness.instructions(command, setup.scratch, environment))
        counts[variant] = (cost[1] - cost[0]) / (lengths[1] - lengths[0])
    return counts


def _system_calls(setup, server, requests=20):
    """{system call: how often it is made per page without a call}; what strace says if it fails."""
    summary = os.path.join(setup.scratch, "system_calls")
    tracer = subprocess.Popen(["strace", "-f", "-c", "-o", summary, "-p", str(server.pid)],
                              stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL,
                              stderr=subprocess.PIPE, text=True)
    try:
        first = tracer.stderr.readline()
        if "attached" not in first:
            return first.strip()
        for _ in range(requests):
            server.ask(CALM)
    finally:
        tracer.terminate()
        harness.wait_or_kill(tracer)
        tracer.stderr.close()
    counts = {}
    with open(summary, encoding="utf-8") as file:
        for line in file:
            words = line.split()
            if len(words) >= 5 and words[3].isdigit() and words[-1] != "total":
                counts[words[-1]] = int(words[3]) / requests
    return counts


def count_system_calls(setup):
    """{variant: {system call: how often per page without a call}}; a text says why there is none."""
    if not shutil.which("strace"):
        return "there is no strace"
    counts = {}
    servers = {}
    try:
        _start(setup, [variant for variant in COUNTED if variant not in FLOOR], servers)
        for variant in COUNTED:
            counts[variant] = _system_calls(setup, servers[variant])
            if isinstance(counts[variant], str):
                return counts[variant]
    finally:
        for server in servers.values():
            server.stop()
    return counts
