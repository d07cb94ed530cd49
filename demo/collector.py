#!/usr/bin/env python3
"""A small collector to watch what the extension records.

It says yes to every handshake on the status port and draws each transaction that arrives on the
data port. It keeps nothing and sends nothing on. `Collector` is the part without a command line.
"""

import argparse
import json
import os
import queue
import re
import shutil
import signal
import socket
import socketserver
import sys
import threading
import time

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))

import waterfall  # noqa: E402

STATUS_PORT = 20021
DATA_PORT = 20022
IDLE_SECONDS = 10
ORDER_SECONDS = 0.2
LARGEST_HANDSHAKE = 1 << 20
LARGEST_RECORD = 256 << 20
NOTICE = b"message:\t"

REPLY = {
    "instance.id": "demo-instance",
    "instance.status": 920,
    "transaction.trace.sql.stacktrace.threshold": 1,
}
LONGEST_ID = 40


class PortTaken(OSError):
    """A port that should be listened on belongs to somebody else."""


class Identifiers:
    """An identifier for each application: its name, spelled so that it can travel in a header."""

    def __init__(self):
        self._lock = threading.Lock()
        self._known = {}

    def of(self, name):
        with self._lock:
            if name not in self._known:
                self._known[name] = self._new(name)
            return self._known[name]

    def _new(self, name):
        spelled = re.sub("[^a-z0-9]+", "-", name.lower())[:LONGEST_ID].strip("-") or "application"
        made, count = spelled, 1
        while made in self._known.values():
            count += 1
            made = "%s-%d" % (spelled, count)
        return made


def application_of(handshake):
    """The name of the application that asks, "" when it tells none."""
    info = waterfall.record(waterfall.record(handshake).get("connect_info"))
    name = waterfall.record(info.get("agent_info")).get("application.name")
    return name if isinstance(name, str) else ""


class _Server(socketserver.ThreadingTCPServer):
    allow_reuse_address = True
    daemon_threads = True
    block_on_close = False
    request_queue_size = 128

    def __init__(self, address, serve, say):
        self.serve, self.say = serve, say
        self.latest = threading.Event()
        self.latest.set()
        super().__init__(address, None)

    def process_request(self, request, client_address):
        # On the accepting thread, so in the order of arrival: each connection knows the one
        # before it. The base class only hands the second argument on to the two calls below.
        before, self.latest = self.latest, threading.Event()
        super().process_request(request, (before, self.latest))

    def finish_request(self, request, turn):
        before, done = turn
        request.settimeout(IDLE_SECONDS)
        try:
            self.serve(request, before)
        finally:
            done.set()

    def handle_error(self, request, turn):
        problem = sys.exc_info()[1]
        self.say("garbage", "connection given up: %s" % (problem or type(problem).__name__))


class Collector:
    """Listens on both ports; everything that arrives becomes an event in `events`.

    An event is (kind, value): "handshake" (dict, or None when it could not be read),
    "transaction" (document), "notice" (text) and "garbage" (text that says what came).
    Port 0 means any free port; `status_port` and `data_port` then tell which. Each application
    gets an identifier of its own, by which a trace knows it; `reply` answers all alike instead.
    """

    def __init__(self, status_port=STATUS_PORT, data_port=DATA_PORT, bind="127.0.0.1", reply=None):
        self.events = queue.Queue()
        self.reply = reply
        self.ids = Identifiers()
        self._threads = []
        self._status = _listen(bind, status_port, self._serve_status, self._say)
        try:
            self._data = _listen(bind, data_port, self._serve_data, self._say)
        except PortTaken:
            self._status.server_close()
            raise
        self.status_port = self._status.server_address[1]
        self.data_port = self._data.server_address[1]

    def start(self):
        for server in (self._status, self._data):
            thread = threading.Thread(target=server.serve_forever, args=(0.05,), daemon=True)
            thread.start()
            self._threads.append((server, thread))
        return self

    def stop(self):
        # A server that was never started would wait for its end in vain.
        for server, _ in self._threads:
            server.shutdown()
        for server in (self._status, self._data):
            server.server_close()
        for _, thread in self._threads:
            thread.join()
        self._threads = []

    def next_event(self, seconds):
        """The next event, or None when nothing came within that many seconds."""
        try:
            return self.events.get(timeout=max(seconds, 0))
        except queue.Empty:
            return None

    def _say(self, kind, value):
        self.events.put((kind, value))

    def _serve_status(self, connection, _before):
        request = _read_handshake(connection)
        if not request.startswith(b'{"connect_info":'):
            self._say("garbage", "status port: no handshake but %s" % _sample(request))
            return
        # A port setting that is no number makes the request invalid as JSON: answer in any case.
        try:
            described = json.loads(request.decode("utf-8", "replace"), strict=False)
        except (ValueError, RecursionError):
            described = None
        self._say("handshake", described)
        reply = self.reply
        if reply is None:
            reply = dict(REPLY, **{"app.id": self.ids.of(application_of(described))})
        connection.sendall(json.dumps(reply).encode())
        connection.shutdown(socket.SHUT_WR)

    def _serve_data(self, connection, before):
        received = _read_all(connection)
        # One sender's records come one connection after the other and are told in that order;
        # a slow stranger in between holds nobody up for long.
        before.wait(ORDER_SECONDS)
        lines = received.split(b"\n")
        if lines[-1]:
            self._say("garbage", "data port: no line feed after %s" % _sample(lines[-1]))
        for line in lines[:-1]:
            self._say(*read_record(line))


def _listen(bind, port, serve, say):
    try:
        return _Server((bind, port), serve, say)
    except OSError as problem:
        raise PortTaken(problem.errno, "cannot listen on %s port %d: %s"
                        % (bind, port, problem.strerror or problem)) from None


def _read_handshake(connection):
    received = bytearray()
    deadline = time.monotonic() + IDLE_SECONDS
    while not received.endswith(b"\n") and len(received) < LARGEST_HANDSHAKE:
        connection.settimeout(max(deadline - time.monotonic(), 0.001))
        try:
            piece = connection.recv(65536)
        except socket.timeout:
            break
        if not piece:
            break
        received += piece
    return bytes(received)


def _read_all(connection):
    received = bytearray()
    while len(received) < LARGEST_RECORD:
        try:
            piece = connection.recv(1 << 20)
        except socket.timeout:
            break
        if not piece:
            break
        received += piece
    return bytes(received)


def _sample(data):
    shown = waterfall.clean(data[:60].decode("utf-8", "replace"))
    return "%d bytes: %s%s" % (len(data), shown, "…" if len(data) > 60 else "")


def read_record(line):
    """One line of the data port, without its line feed, as an event."""
    if line.startswith(NOTICE):
        return "notice", line[len(NOTICE):].decode("utf-8", "replace")
    try:
        return "transaction", waterfall.parse_payload(line)
    except waterfall.PayloadError as problem:
        return "garbage", "data port: %s: %s" % (problem, _sample(line))


def terminal_look(stream):
    """(width, colour) that suit the stream."""
    width = shutil.get_terminal_size((100, 24)).columns
    colour = (stream.isatty() and not os.environ.get("NO_COLOR")
              and os.environ.get("TERM") != "dumb")
    return width, colour


def describe(event, width, colour, max_spans=200):
    """The lines that tell an event; none for a handshake."""
    kind, value = event
    if kind == "transaction":
        return waterfall.render_transaction(value, width, colour, max_spans) + [""]
    if kind == "notice":
        return [waterfall.render_line("notice ", value, width, colour)]
    if kind == "garbage":
        return [waterfall.render_line("garbage", value, width, colour, "bad")]
    return []


def introduce(handshake, known, width, colour):
    """A line for the first handshake of each application; `known` remembers them."""
    info = waterfall.record(waterfall.record(handshake).get("connect_info"))
    told = waterfall.record(info.get("agent_info"))
    key = (str(told.get("application.name")), str(told.get("port")))
    if key in known:
        return []
    known.add(key)
    text = "%s asks to be monitored (extension %s, port %s)" % (
        told.get("application.name") or "an application", told.get("agent.version.info") or "?",
        told.get("port", "?"))
    return [waterfall.render_line("hello  ", text, width, colour, "good")]


def parse_arguments(arguments):
    parser = argparse.ArgumentParser(
        description="A small collector: answers the extension's handshake and draws every "
                    "transaction as a waterfall. Ctrl-C ends it.")
    parser.add_argument("--status-port", type=int, default=STATUS_PORT, metavar="N",
                        help="port of the handshake (default %(default)s; 0: any free one)")
    parser.add_argument("--data-port", type=int, default=DATA_PORT, metavar="N",
                        help="port of the transactions (default %(default)s; 0: any free one)")
    parser.add_argument("--bind", default="127.0.0.1", metavar="ADDRESS",
                        help="address to listen on (default %(default)s)")
    parser.add_argument("--port-file", metavar="FILE",
                        help="write the two ports, status then data, to this file")
    parser.add_argument("--once", type=int, metavar="N",
                        help="end after N transactions")
    parser.add_argument("--wait", type=float, metavar="SECONDS",
                        help="end after this time; exit status 1 if --once is not yet reached")
    parser.add_argument("--max-spans", type=int, default=200, metavar="N",
                        help="draw at most N spans of a transaction (default %(default)s)")
    return parser.parse_args(arguments)


def watch(collector, options):
    """Prints events until the wanted number or the time is reached; returns the exit status."""
    deadline = None if options.wait is None else time.monotonic() + options.wait
    known, seen = set(), 0
    while options.once is None or seen < options.once:
        event = collector.next_event(1 if deadline is None else min(1, deadline - time.monotonic()))
        if event is None:
            if deadline is not None and time.monotonic() >= deadline:
                break
            continue
        width, colour = terminal_look(sys.stdout)
        if event[0] == "handshake":
            lines = introduce(event[1], known, width, colour)
        else:
            lines = describe(event, width, colour, options.max_spans)
        for line in lines:
            print(line, flush=True)
        seen += event[0] == "transaction"
    if options.once is None or seen >= options.once:
        return 0
    print("collector: %d of %d transactions came in %g seconds"
          % (seen, options.once, options.wait), file=sys.stderr)
    return 1


def write_port_file(path, collector):
    """Appears under its name only when it is complete."""
    partial = "%s.%d" % (path, os.getpid())
    with open(partial, "w") as file:
        file.write("%d %d\n" % (collector.status_port, collector.data_port))
    os.replace(partial, path)


def main(arguments=None):
    options = parse_arguments(arguments)
    sys.stdout.reconfigure(errors="replace")
    signal.signal(signal.SIGTERM, signal.default_int_handler)
    try:
        collector = Collector(options.status_port, options.data_port, options.bind)
    except (PortTaken, OverflowError) as problem:
        print("collector: %s" % (problem.args[-1]), file=sys.stderr)
        return 1
    try:
        collector.start()
        if options.port_file:
            write_port_file(options.port_file, collector)
        print("collector: listening on %s, status port %d, data port %d"
              % (options.bind, collector.status_port, collector.data_port), flush=True)
        return watch(collector, options)
    except KeyboardInterrupt:
        return 0
    except BrokenPipeError:
        # Whoever read our output is gone; there is nobody left to tell anything.
        os.dup2(os.open(os.devnull, os.O_WRONLY), sys.stdout.fileno())
        return 0
    finally:
        collector.stop()


if __name__ == "__main__":
    sys.exit(main())
