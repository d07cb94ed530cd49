"""A scripted HTTP server on loopback that keeps every request byte for byte.

A behaviour is a function of an Exchange; `routes` maps paths to behaviours, and every other path
is answered with 200. What a behaviour sends is up to it: nothing here corrects a wrong answer.
"""
import collections
import itertools
import socket
import socketserver
import struct
import threading

CONNECTION_DEADLINE = 20.0
STOP_DEADLINE = 10.0
SETTLE_DEADLINE = 30.0

Request = collections.namedtuple("Request", "connection raw line headers body")


def _parsed(connection, head, body):
    lines = head.decode("latin-1").split("\r\n")
    return Request(connection, head + b"\r\n\r\n" + body, lines[0], lines[1:], body)


def path_of(request):
    return request.line.split(" ")[1].partition("?")[0]


def values_of(request, name):
    """The values of all header lines of that name, in order."""
    split = [line.partition(":") for line in request.headers]
    return [value.strip() for found, _, value in split if found.lower() == name.lower()]


class _ConnectionOver(Exception):
    pass


class Exchange:
    """One request and the way to answer it."""

    def __init__(self, server, connection, request):
        self.server, self._connection, self.request = server, connection, request

    def send(self, data):
        self._connection.sendall(data)

    def wait(self, seconds):
        """Sleeps, but not longer than the server runs."""
        if self.server.stopping.wait(seconds):
            self.close()

    def close(self):
        raise _ConnectionOver

    def reset(self):
        self._connection.setsockopt(
            socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
        self._connection.close()
        raise _ConnectionOver


class _Handler(socketserver.BaseRequestHandler):
    def handle(self):
        scripted = self.server.scripted
        self.request.settimeout(CONNECTION_DEADLINE)
        self.request.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
        self._buffer, self._number = b"", None
        try:
            while not scripted.stopping.is_set() and self._handle_one():
                scripted.expect_request(self.request)
        except (_ConnectionOver, EOFError, OSError):
            pass
        finally:
            scripted.expect_no_request(self.request)

    def _handle_one(self):
        head = self._read_to(b"\r\n\r\n")
        self._number = self._number or next(self.server.scripted.connection_numbers)
        text = head.decode("latin-1").lower()
        if "\r\nexpect: 100-continue" in text:
            self.request.sendall(b"HTTP/1.1 100 Continue\r\n\r\n")
        request = _parsed(self._number, head, self._read_body(text))
        scripted = self.server.scripted
        scripted.note(self.request, request)
        behaviour = scripted.routes.get(path_of(request), scripted.otherwise)
        behaviour(Exchange(scripted, self.request, request))
        return "\r\nconnection: close" not in text

    def _read_body(self, head):
        if "\r\ntransfer-encoding: chunked" in head:
            body = b""
            while size := int(self._read_to(b"\r\n"), 16):
                body += self._read(size)
                self._read(2)
            self._read_to(b"\r\n")
            return body
        length = head.partition("\r\ncontent-length:")[2].partition("\r\n")[0]
        return self._read(int(length or 0))

    def _fill(self):
        chunk = self.request.recv(1 << 16)
        if not chunk:
            raise EOFError
        self._buffer += chunk

    def _read(self, count):
        while len(self._buffer) < count:
            self._fill()
        taken, self._buffer = self._buffer[:count], self._buffer[count:]
        return taken

    def _read_to(self, end):
        while end not in self._buffer:
            self._fill()
        taken, _, self._buffer = self._buffer.partition(end)
        return taken


class _Listener(socketserver.ThreadingTCPServer):
    daemon_threads = True
    allow_reuse_address = True
    request_queue_size = 1024

    def process_request(self, request, client_address):
        if self.scripted.is_marker(client_address):
            self.shutdown_request(request)
            return
        self.scripted.expect_request(request)
        super().process_request(request, client_address)

    def handle_error(self, request, client_address):
        self.scripted.failures.append(client_address)
        super().handle_error(request, client_address)


class HttpServer:
    def __init__(self):
        self.routes, self.otherwise = {}, answers()
        self.failures, self._requests, self._markers = [], [], set()
        self._expecting, self._changed = set(), threading.Condition()
        self.stopping = threading.Event()
        self.connection_numbers = itertools.count(1)
        self._listener = _Listener(("127.0.0.1", 0), _Handler, bind_and_activate=True)
        self._listener.scripted = self
        self.port = self._listener.server_address[1]
        self.url = "http://127.0.0.1:%d" % self.port
        self._thread = threading.Thread(
            target=self._listener.serve_forever, args=(0.05,), daemon=True)
        self._thread.start()

    def expect_request(self, connection):
        with self._changed:
            self._expecting.add(connection)

    def expect_no_request(self, connection):
        with self._changed:
            self._expecting.discard(connection)
            self._changed.notify_all()

    def note(self, connection, request):
        with self._changed:
            self._requests.append(request)
        self.expect_no_request(connection)

    def is_marker(self, peer):
        with self._changed:
            known = peer in self._markers
            self._markers.discard(peer)
            self._changed.notify_all()
            return known

    def settle(self):
        """Returns once all that clients which have ended sent before the call is recorded."""
        with socket.socket() as marker:
            marker.bind(("127.0.0.1", 0))
            peer = marker.getsockname()
            with self._changed:
                self._markers.add(peer)
            marker.connect(("127.0.0.1", self.port))
            with self._changed:
                done = self._changed.wait_for(
                    lambda: peer not in self._markers and not self._expecting, SETTLE_DEADLINE)
        assert done, "a client still has its connection open"

    @property
    def requests(self):
        """All requests of clients that have ended, in the order in which they were read."""
        self.settle()
        with self._changed:
            return list(self._requests)

    def forget(self):
        """The requests so far, which are dropped."""
        self.settle()
        with self._changed:
            taken, self._requests = self._requests, []
            return taken

    def close(self):
        self.stopping.set()
        self._listener.shutdown()
        self._listener.server_close()
        self._thread.join(STOP_DEADLINE)
        assert not self.failures, "a behaviour failed; its trace is above"


# Behaviours --------------------------------------------------------------------------------------

def head(status=200, headers=(), length=None):
    """The bytes of a response head; `headers` are lines without their ends, str or bytes."""
    lines = [("HTTP/1.1 %d X" % status).encode()]
    lines += [line if isinstance(line, bytes) else line.encode("latin-1") for line in headers]
    if length is not None:
        lines.append(b"Content-Length: %d" % length)
    return b"\r\n".join(lines) + b"\r\n\r\n"


def answers(status=200, headers=(), body=b"hello"):
    def behave(exchange):
        exchange.send(head(status, headers, len(body)) + body)
    return behave


def answers_in_chunks(*chunks, headers=(), trailers=()):
    def behave(exchange):
        exchange.send(head(200, [*headers, "Transfer-Encoding: chunked"]))
        for chunk in chunks:
            exchange.send(b"%x\r\n%s\r\n" % (len(chunk), chunk))
        exchange.send(b"0\r\n" + b"".join(b"%s\r\n" % one.encode() for one in trailers) + b"\r\n")
    return behave


def redirects(to, status=302, headers=()):
    return answers(status, [*headers, "Location: " + to], b"elsewhere")


def sends(data):
    """Those bytes and the end of the connection."""
    def behave(exchange):
        exchange.send(data)
        exchange.close()
    return behave


def interim(first, then, pause=0):
    """The bytes of informational responses before the final one."""
    def behave(exchange):
        exchange.send(first)
        exchange.wait(pause)
        then(exchange)
    return behave


def slow(seconds, then):
    def behave(exchange):
        exchange.wait(seconds)
        then(exchange)
    return behave


def resets(after=b""):
    """Sends those bytes and kills the connection; the client may or may not get to read them."""
    def behave(exchange):
        exchange.send(after)
        exchange.wait(0.1)
        exchange.reset()
    return behave


def many_headers(total, line_length=1000):
    def behave(exchange):
        line = b"X-Filler-%%06d: %s\r\n" % (b"x" * (line_length - 19))
        exchange.send(b"HTTP/1.1 200 OK\r\nContent-Length: 5\r\n")
        for number in range(total // line_length):
            exchange.send(line % number)
        exchange.send(b"\r\nhello")
    return behave


def never_answers():
    def behave(exchange):
        exchange.wait(CONNECTION_DEADLINE)
        exchange.close()
    return behave


def in_turn(*behaviours):
    """Each request to the route meets the next one; the last one stays."""
    left, lock = collections.deque(behaviours), threading.Lock()

    def behave(exchange):
        with lock:
            behaviour = left.popleft() if len(left) > 1 else left[0]
        behaviour(exchange)
    return behave
