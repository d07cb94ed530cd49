"""A scripted collector: two loopback ports that record every byte they are sent.

Each port is served by one thread that takes connections strictly in order, so that a marker
connection (`settle`) proves that everything sent before it has been recorded.
"""
import collections
import contextlib
import functools
import json
import os
import socket
import threading
import time

import behaviours
from payloads import Payload

ENABLED = {"instance.id": "i-1", "instance.status": 920}
DISABLED = {"instance.id": "i-1", "instance.status": 0}

NO_URI_NOTICE = "message:\tNo request URI Found\n"
DISABLED_NOTICE = "message:\tRequest ended. No data collected since instance is disabled\n"

READ_DEADLINE = 30.0


def _go_first():
    """An engine gives up an answer after a second: on a busy machine this thread is served before
    others, where that is allowed."""
    with contextlib.suppress(PermissionError):
        os.setpriority(os.PRIO_PROCESS, threading.get_native_id(), -10)


def now_ms():
    """The wall clock in whole milliseconds."""
    return time.time_ns() // 1000000


class StatusRequest:
    """One request of the status port: the bytes up to and including the first line feed.

    `answered_at` is set by behaviours that wait before they answer, `rest` by one that reads on.
    """

    def __init__(self, raw):
        self.raw = raw
        self.received_at = now_ms()
        self.answered_at = self.rest = None

    @property
    def text(self):
        return self.raw.decode("utf-8", "surrogateescape")

    @property
    def document(self):
        return json.loads(self.text)


class DataRecord:
    """Everything one data connection carried until the sender closed it."""

    def __init__(self, raw):
        self.raw = raw

    @property
    def is_notice(self):
        return self.raw.startswith(b"message:\t")

    @property
    def text(self):
        return self.raw.decode("utf-8", "surrogateescape")

    @functools.cached_property
    def payload(self):
        return Payload(self.raw)


class FakeCollector:
    """`replies` are used up first, one per status request; then `reply` answers each request.

    A reply is a dict (sent as JSON), bytes, or a behaviour (see behaviours.py). `data_behaviour`
    is a behaviour too, or None to read each data connection to its end.
    """

    def __init__(self, address="127.0.0.1", status_port=0, data_port=0):
        self.address = address
        self.reply = dict(ENABLED)
        self.replies = collections.deque()
        self.data_behaviour = None
        self.status_requests = []
        self.data_records = []
        self.events = []
        self.status_connections = 0
        self.data_connections = 0
        self.stopping = threading.Event()
        self._changed = threading.Condition()
        self._markers = set()
        self._held = []
        self._listeners = [self._listen(status_port), self._listen(data_port)]
        self.status_port, self.data_port = (s.getsockname()[1] for s in self._listeners)
        self._threads = [
            threading.Thread(target=self._serve, args=(listener, handler), daemon=True)
            for listener, handler in zip(
                self._listeners, (self._handle_status, self._handle_data))]
        for thread in self._threads:
            thread.start()

    def _listen(self, port):
        listener = socket.socket(socket.AF_INET, socket.SOCK_STREAM)
        listener.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
        listener.bind((self.address, port))
        listener.listen(256)
        return listener

    def close(self):
        self.stopping.set()
        for listener in self._listeners:
            listener.shutdown(socket.SHUT_RDWR)
            listener.close()
        self.release_held()
        for thread in self._threads:
            thread.join(10)

    def hold(self, connection):
        """Keeps a connection open, unanswered, until the collector ends or releases it."""
        self._held.append(connection)

    def release_held(self):
        while self._held:
            self._held.pop().close()

    def _serve(self, listener, handler):
        _go_first()
        while not self.stopping.is_set():
            try:
                connection, peer = listener.accept()
            except OSError:
                return
            if self._is_marker(peer):
                connection.close()
                continue
            connection.settimeout(READ_DEADLINE)
            try:
                handler(connection)
            except OSError:
                connection.close()

    def _note(self, kind, record, records):
        with self._changed:
            records.append(record)
            self.events.append(kind)
            self._changed.notify_all()

    def _is_marker(self, peer):
        with self._changed:
            if peer not in self._markers:
                return False
            self._markers.discard(peer)
            self._changed.notify_all()
            return True

    def _next_behaviour(self):
        reply = self.replies.popleft() if self.replies else self.reply
        if isinstance(reply, dict):
            reply = json.dumps(reply).encode()
        return behaviours.answers(reply) if isinstance(reply, bytes) else reply

    def _handle_status(self, connection):
        self.status_connections += 1
        behaviour = self._next_behaviour()
        request = None
        if behaviour.reads_request:
            request = StatusRequest(self._read_line(connection))
            self._note("status", request, self.status_requests)
        behaviour(connection, self, request)

    @staticmethod
    def _read_line(connection):
        raw = b""
        while not raw.endswith(b"\n"):
            chunk = connection.recv(65536)
            if not chunk:
                break
            raw += chunk
        return raw

    def _handle_data(self, connection):
        self.data_connections += 1
        if self.data_behaviour is not None:
            self.data_behaviour(connection, self, None)
            return
        chunks = []
        try:
            while chunk := connection.recv(1 << 20):
                chunks.append(chunk)
        finally:
            connection.close()
            self._note("data", DataRecord(b"".join(chunks)), self.data_records)

    def wait_until(self, condition, seconds=READ_DEADLINE):
        """Waits for condition(), which is tried again after every record."""
        with self._changed:
            if not self._changed.wait_for(condition, seconds):
                raise AssertionError("the collector waited %g s in vain; it saw %s" % (
                    seconds, self.events))

    def settle(self):
        """Returns once everything that was sent to either port before the call is recorded."""
        for port in (self.status_port, self.data_port):
            with socket.socket(socket.AF_INET, socket.SOCK_STREAM) as connection:
                connection.bind((self.address, 0))
                marker = connection.getsockname()
                with self._changed:
                    self._markers.add(marker)
                connection.connect((self.address, port))
                self.wait_until(lambda: marker not in self._markers, 2 * READ_DEADLINE)

    def forget(self):
        """Drops what has been recorded so far."""
        self.settle()
        self.status_requests.clear()
        self.data_records.clear()
        self.events.clear()
        self.status_connections = self.data_connections = 0

    @property
    def notices(self):
        self.settle()
        return [record.text for record in self.data_records if record.is_notice]

    @property
    def payloads(self):
        self.settle()
        return [record.payload for record in self.data_records if not record.is_notice]

    @property
    def payload(self):
        """The payload of the only transaction, which must be all that came to the data port."""
        self.settle()
        assert len(self.data_records) == 1, [r.raw[:200] for r in self.data_records]
        return self.data_records[0].payload

    @property
    def request(self):
        """The only status request."""
        self.settle()
        assert len(self.status_requests) == 1, [r.raw[:200] for r in self.status_requests]
        return self.status_requests[0]
