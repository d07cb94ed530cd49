"""Plain connections to the collector's ports."""
import base64
import json
import socket

SECONDS = 10


def connect(port):
    return socket.create_connection(("127.0.0.1", port), timeout=SECONDS)


def read_all(connection):
    """To the end of input; a reset counts as one."""
    received = b""
    while True:
        try:
            piece = connection.recv(65536)
        except ConnectionResetError:
            return received
        if not piece:
            return received
        received += piece


def ask(port, request):
    """The answer of the handshake port, as text."""
    with connect(port) as connection:
        connection.sendall(request)
        return read_all(connection).decode()


def send(port, line):
    """Sends to the data port as the extension does, and returns what comes back."""
    with connect(port) as connection:
        connection.sendall(line)
        connection.shutdown(socket.SHUT_WR)
        return read_all(connection)


def status(collector):
    """What the collector says about itself."""
    with socket.socket(socket.AF_UNIX) as connection:
        connection.settimeout(SECONDS)
        connection.connect(str(collector.store / "collector.sock"))
        connection.sendall(b"GET /api/v1/status HTTP/1.0\r\nHost: localhost\r\n\r\n")
        return json.loads(read_all(connection).partition(b"\r\n\r\n")[2])


def payload(name="/a", spans=(), **info):
    """The line of a transaction of a root and these spans below it."""
    root = {"st": 1000, "et": 1500, "mo": 0, "fn": "main", "cn": "PHP", "si": "00000000000000aa"}
    children = [{"st": 1000, "et": 1100, "mo": number, "si": "%016x" % number,
                 "psi": root["si"], **span} for number, span in enumerate(spans, 1)]
    document = {"apm": {
        "data": True, "application_info": {"application_name": "Shop"},
        "transaction_info": {"t_name": name, "s_time": 1000, "e_time": 1500,
                             "transaction_type": 1, "httpcode": 200, **info},
        "method_info": {"span_info": [root, *children]}, "app_parameters": {}}}
    return base64.b64encode(json.dumps(document).encode()) + b"\n"


HANDSHAKE = (b'{"connect_info":{"agent_info":{"agent.version":"4.9","agent.version.info":"4.9.2.0",'
             b'"application.name":"Shop","application.type":"PHP","fqdn":"web1","hostname":"web1",'
             b'"port":%s,"host.type":"","rum.autoinjection":false},"agent_specific_info":'
             b'{"application.group.name":""},"environment":{"MachineName":"web1","OS":"Linux",'
             b'"OSArch":"x86_64","OSVersion":"6"}},"misc_info":{"txn.name":"\\/cart"}}\n')


def handshake(port=b"80"):
    return HANDSHAKE % port
