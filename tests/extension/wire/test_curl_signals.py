"""Signals that a script handles: it is told of them when and where it is without the extension."""
import fcntl
import os
import signal
import struct
import subprocess
import termios
import time

import engines
import http_server as http
import pytest
from curl_runs import FINISH, MODES, UNRECORDED, curl, server, without_trace

__all__ = ["curl", "server"]

HANDLERS = {"throws": "throw new Signalled;", "warns": "trigger_error('warned');", "tells": ""}
SCRIPT = """
    class Signalled extends Exception {}
    class Line { function __toString() { return 'A: 1'; } }
    set_error_handler(function ($level, $text) { echo "[$text]"; return true; });
    pcntl_async_signals(true);
    pcntl_signal(SIGUSR1, function () { echo '[signal]'; %s });
    $process = getmypid(); $ch = curl_init("$url/signal?$process"); $multi = curl_multi_init();
    curl_setopt($ch, CURLOPT_RETURNTRANSFER, true);
    curl_setopt($ch, CURLOPT_HTTPHEADER, [new Line]); $page = str_repeat('x', 1 << 20);
    try { %s echo '[after]'; } catch (Signalled $e) { echo '[caught]'; }
    echo '[end]', curl_errno($ch);
"""
DURING = {
    "alone": "echo curl_exec($ch); echo '[second]', curl_exec($ch);",
    "multi": "curl_multi_add_handle($multi, $ch); %s echo curl_multi_getcontent($ch);" % FINISH,
    "write callback": "curl_setopt($ch, CURLOPT_WRITEFUNCTION, function ($ch, $data) {"
                      "echo $data; return strlen($data); }); echo '[first]', curl_exec($ch);",
    "header callback": "curl_setopt($ch, CURLOPT_HEADERFUNCTION, function ($ch, $line) {"
                       "echo $line; return strlen($line); }); echo '[first]', curl_exec($ch);",
}
# The signal comes while the page is on its way out: it still waits when the next call begins.
BEFORE = {
    "alone": "echo $page; echo curl_exec($ch);",
    "multi": "echo $page; curl_multi_add_handle($multi, $ch); echo '[added]';" + FINISH,
}


@pytest.fixture(scope="module", autouse=True)
def engine_has_signals(engine):
    if engines.run([engine.php, "-n", "-r", "pcntl_async_signals();"]).status != 0:
        pytest.skip("this engine has no asynchronous signals")


def _signals(exchange):
    """Answers once the process that the request names has got its signal."""
    os.kill(int(exchange.request.line.split(" ")[1].partition("?")[2]), signal.SIGUSR1)
    http.answers()(exchange)


def run_with_a_signal_in_the_first_transfer(curl, source, mode, loaded):
    curl.server.routes["/signal"] = http.in_turn(_signals, http.answers())
    return curl.run(source, mode, loaded=loaded)


@pytest.mark.parametrize("mode", [*MODES, *UNRECORDED])
@pytest.mark.parametrize("handler", list(HANDLERS))
@pytest.mark.parametrize("run", list(DURING))
def test_signal_during_a_transfer(curl, run, handler, mode):
    source = SCRIPT % (HANDLERS[handler], DURING[run])
    bare, loaded = (run_with_a_signal_in_the_first_transfer(curl, source, mode, on)
                    for on in (False, True))
    assert bare.result.stdout.count(b"[signal]") == 1
    assert loaded.result.outcome == bare.result.outcome
    assert len(loaded.requests) == len(bare.requests)


@pytest.mark.parametrize("mode", ["headers", "both"])
def test_signal_is_handled_at_a_response_header_by_php_8_which_is_meant(curl, engine, mode):
    source = SCRIPT % ("", "curl_setopt($ch, CURLOPT_RETURNTRANSFER, false); curl_exec($ch);")
    bare, loaded = (run_with_a_signal_in_the_first_transfer(curl, source, mode, on).result.stdout
                    for on in (False, True))
    assert bare == b"hello[signal][after][end]0"
    assert loaded == (bare if not engine.handles_are_objects else b"[signal]hello[after][end]0")


def run_with_a_signal_while_it_writes(curl, source, mode, loaded):
    """As curl.run(), for a script that writes more than fits into a pipe."""
    path = curl.wire.script(curl.prelude + source)
    command = [curl.engine.php, *curl.options(mode, {}, loaded), str(path)]
    with subprocess.Popen(command, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                          env=engines.environment()) as process:
        try:
            room = fcntl.fcntl(process.stdout, fcntl.F_GETPIPE_SZ)
            deadline = time.monotonic() + engines.RUN_DEADLINE
            while _waiting(process.stdout) < room:
                assert process.poll() is None and time.monotonic() < deadline
                time.sleep(0.005)
            process.send_signal(signal.SIGUSR1)
            output, _ = process.communicate(timeout=engines.RUN_DEADLINE)
        finally:
            process.kill()
    return output.lstrip(b"x"), process.returncode, list(map(without_trace, curl.server.forget()))


def _waiting(pipe):
    """How many bytes can be read."""
    return struct.unpack("i", fcntl.ioctl(pipe, termios.FIONREAD, b"\0" * 4))[0]


@pytest.mark.parametrize("mode", list(MODES))
@pytest.mark.parametrize("handler", list(HANDLERS))
@pytest.mark.parametrize("run", list(BEFORE))
def test_signal_that_waits_when_a_call_begins_is_not_handled_in_a_call_of_ours(
        curl, run, handler, mode):
    """Header lines that are objects run code of the script when the extension passes them on."""
    source = SCRIPT % (HANDLERS[handler],
                       "curl_setopt($ch, CURLOPT_URL, \"$url/a\"); " + BEFORE[run])
    bare, loaded = (run_with_a_signal_while_it_writes(curl, source, mode, on)
                    for on in (False, True))
    assert bare[0].count(b"[signal]") == 1 and bare[1] == 0
    assert loaded == bare
