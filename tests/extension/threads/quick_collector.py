"""A collector in a process of its own that no load keeps from answering in time.

    quick_collector.py REPLY RECORDS

Prints the numbers of its two ports, status first. Answers every status request with REPLY; writes
what each data connection carried to the file RECORDS, one after the other. Ends with its input.
"""
import contextlib
import os
import selectors
import socket
import sys


class QuickCollector:
    def __init__(self, reply, records):
        self.reply, self.records = reply, records
        self.selector = selectors.DefaultSelector()
        self.listeners = [self._listen(self._status), self._listen(self._data)]

    @property
    def ports(self):
        return [listener.getsockname()[1] for listener in self.listeners]

    def _listen(self, handler):
        listener = socket.create_server(("127.0.0.1", 0), backlog=1024)
        listener.setblocking(False)
        self.selector.register(
            listener, selectors.EVENT_READ, lambda: self._accept(listener, handler))
        return listener

    def _accept(self, listener, handler):
        while True:
            try:
                connection, _ = listener.accept()
            except BlockingIOError:
                return
            connection.setblocking(False)
            carried = bytearray()
            self.selector.register(
                connection, selectors.EVENT_READ,
                lambda connection=connection, carried=carried: handler(connection, carried))

    def _status(self, connection, carried):
        chunk = self._receive(connection)
        carried += chunk
        if chunk and b"\n" not in carried:
            return
        try:
            connection.sendall(self.reply)
        except OSError:
            pass
        self._close(connection)

    def _data(self, connection, carried):
        chunk = self._receive(connection)
        carried += chunk
        if chunk:
            return
        self._close(connection)
        self.records.write(carried)
        self.records.flush()

    @staticmethod
    def _receive(connection):
        try:
            return connection.recv(1 << 20)
        except OSError:
            return b""

    def _close(self, connection):
        self.selector.unregister(connection)
        connection.close()

    def serve(self):
        self.selector.register(sys.stdin.buffer, selectors.EVENT_READ, None)
        while True:
            for key, _ in self.selector.select():
                if key.data is None:
                    return
                key.data()


def main(reply, path):
    with open(path, "ab") as records:
        with contextlib.suppress(PermissionError):
            os.setpriority(os.PRIO_PROCESS, 0, -10)
        collector = QuickCollector(reply.encode(), records)
        print(*collector.ports, flush=True)
        collector.serve()


if __name__ == "__main__":
    main(*sys.argv[1:])
