"""A small FastCGI client: one request per connection over a Unix socket."""
import socket
import struct

_BEGIN, _END, _PARAMS, _STDIN, _STDOUT, _STDERR = 1, 3, 4, 5, 6, 7


class Response:
    def __init__(self, output, errors):
        self.errors = errors
        head, _, self.body = output.partition(b"\r\n\r\n")
        self.head = head
        self.headers = [tuple(line.split(": ", 1)) if ": " in line else (line, "")
                        for line in head.decode("latin-1").split("\r\n") if line]
        status = dict(self.headers).get("Status", "200")
        self.status = int(status.split()[0])


def _record(kind, content):
    return struct.pack(">BBHHBx", 1, kind, 1, len(content), 0) + content


def _stream(kind, content):
    pieces = [content[i:i + 65000] for i in range(0, len(content), 65000)]
    return b"".join(_record(kind, piece) for piece in pieces) + _record(kind, b"")


def _length(size):
    return struct.pack(">B", size) if size < 128 else struct.pack(">I", size | 0x80000000)


def _pair(name, value):
    name = name.encode("utf-8", "surrogateescape")
    value = str(value).encode("utf-8", "surrogateescape")
    return _length(len(name)) + _length(len(value)) + name + value


def _exactly(connection, size):
    parts = b""
    while len(parts) < size:
        chunk = connection.recv(size - len(parts))
        if not chunk:
            raise ConnectionError("the FastCGI server closed the connection in mid record")
        parts += chunk
    return parts


def request(path, variables, body=b"", seconds=30.0):
    """Sends one request and reads its records up to the end of the request."""
    parameters = b"".join(_pair(name, value) for name, value in variables.items())
    streams = {_STDOUT: bytearray(), _STDERR: bytearray()}
    with socket.socket(socket.AF_UNIX, socket.SOCK_STREAM) as connection:
        connection.settimeout(seconds)
        connection.connect(path)
        connection.sendall(_record(_BEGIN, struct.pack(">HB5x", 1, 0))
                           + _stream(_PARAMS, parameters) + _stream(_STDIN, body))
        while True:
            _, kind, _, size, padding = struct.unpack(">BBHHBx", _exactly(connection, 8))
            content = _exactly(connection, size + padding)[:size]
            if kind == _END:
                return Response(bytes(streams[_STDOUT]), bytes(streams[_STDERR]))
            if kind in streams:
                streams[kind] += content
