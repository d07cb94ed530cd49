"""What the scripted collector may do with a connection instead of a plain answer.

A behaviour is called with (connection, collector, request); on the data port request is None.
"""
import socket
import struct
import time


def behaviour(reads_request=True):
    def mark(function):
        function.reads_request = reads_request
        return function
    return mark


def answers(raw):
    """Sends raw and closes."""
    @behaviour()
    def answer(connection, collector, request):
        connection.sendall(raw)
        connection.close()
    return answer


def answers_after(seconds, raw):
    @behaviour()
    def answer_late(connection, collector, request):
        collector.stopping.wait(seconds)
        request.answered_at = time.time_ns() // 1000000
        connection.sendall(raw)
        connection.close()
    return answer_late


def answers_in_pieces(raw, size=1, pause=0.0):
    """Sends raw in pieces, each in a packet of its own."""
    @behaviour()
    def drip(connection, collector, request):
        connection.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
        try:
            for start in range(0, len(raw), size):
                connection.sendall(raw[start:start + size])
                if pause and collector.stopping.wait(pause):
                    break
        finally:
            connection.close()
    return drip


def answers_then_half_closes(raw, seconds=20.0):
    """Ends the answer but keeps its own receiving side open, and notes what else comes."""
    @behaviour()
    def half_close(connection, collector, request):
        connection.sendall(raw)
        connection.shutdown(socket.SHUT_WR)
        connection.settimeout(seconds)
        rest = b""
        try:
            while chunk := connection.recv(65536):
                rest += chunk
            request.rest = rest
        except TimeoutError:
            request.rest = None
        connection.close()
    return half_close


def answers_then_holds(raw):
    """Sends raw but never ends the answer."""
    @behaviour()
    def keep_open(connection, collector, request):
        connection.sendall(raw)
        collector.hold(connection)
    return keep_open


def answers_then_resets(raw):
    @behaviour()
    def cut_off(connection, collector, request):
        connection.sendall(raw)
        time.sleep(0.05)  # lets the answer be read before the reset discards it
        _reset(connection)
    return cut_off


@behaviour()
def never_answers(connection, collector, request):
    collector.hold(connection)


@behaviour()
def closes_without_answer(connection, collector, request):
    connection.close()


@behaviour(reads_request=False)
def closes_at_once(connection, collector, request):
    connection.close()


@behaviour()
def resets(connection, collector, request):
    _reset(connection)


@behaviour(reads_request=False)
def resets_at_once(connection, collector, request):
    _reset(connection)


def _reset(connection):
    connection.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
    connection.close()
