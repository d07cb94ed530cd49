"""Callbacks of the script's that throw while transfers are under way, bare and monitored.

PHP 7 calls nothing more while an exception is on its way, and counts a callback that it could not
call as one that refused its data. Our callback for header lines is then one more to be refused.
"""
import threading

import pytest
from curl_runs import FINISH, MODES, UNRECORDED, curl, server
import http_server as http

__all__ = ["curl", "server"]

DEADLINE = 10.0
WITHOUT_OURS = [*UNRECORDED, *[mode for mode in MODES if mode not in ("headers", "both")]]
REFUSED = b"Could not call the CURLOPT_HEADERFUNCTION"


class Together:
    """Answers to /a and /b that are sent when /release is asked for, and before it is answered."""

    def __init__(self, server):
        self.changed = threading.Condition()
        self.arrived = self.sent = 0
        self.is_released = False
        server.routes.update({"/a": self.held(b"body of a"), "/b": self.held(b"body of b"),
                              "/arrived": self.count, "/release": self.release})

    def wait_for(self, condition):
        assert self.changed.wait_for(condition, DEADLINE)

    def held(self, body):
        def behave(exchange):
            with self.changed:
                self.arrived += 1
                self.wait_for(lambda: self.is_released)
            http.answers(200, [], body)(exchange)
            with self.changed:
                self.sent += 1
                self.changed.notify_all()
        return behave

    def count(self, exchange):
        http.answers(200, [], b"%d" % self.arrived)(exchange)

    def release(self, exchange):
        with self.changed:
            self.is_released = True
            self.changed.notify_all()
            self.wait_for(lambda: self.sent == 2)
        http.answers()(exchange)


@pytest.fixture
def outputs(curl):
    """What a script prints without the extension, and with it in that mode."""
    def run(source, mode):
        printed = []
        for loaded in (False, True):
            Together(curl.server)
            printed.append(curl.run(source, mode, loaded=loaded).result.stdout)
        return printed
    return run


# $b is driven by the same call in which the callback of $a throws, and after it.
SCRIPT = """
    $open = function ($path) use ($url) {
        $ch = curl_init($url . $path); curl_setopt($ch, CURLOPT_RETURNTRANSFER, 1); return $ch;
    };
    $a = $open('/a'); $b = $open('/b');
    curl_setopt($a, CURLOPT_WRITEFUNCTION, function ($ch, $data) { throw new Exception('of a'); });
    $multi = curl_multi_init(); curl_multi_add_handle($multi, $a);
    curl_multi_add_handle($multi, $b);
    $deadline = microtime(true) + 10;
    do { curl_multi_exec($multi, $running); }
    while (file_get_contents("$url/arrived") !== '2' && microtime(true) < $deadline);
    file_get_contents("$url/release");
    try { curl_multi_exec($multi, $running); echo 'no exception'; }
    catch (Exception $e) { echo 'thrown ', $e->getMessage(); }
""" + FINISH + """
    echo "\\na: ", curl_errno($a), ' ', curl_getinfo($a, CURLINFO_HTTP_CODE);
    while ($info = curl_multi_info_read($multi)) {
        echo $info['handle'] === $a ? "\\na " : "\\nb ", $info['result'];
    }
    echo "\\nb: ", curl_multi_getcontent($b), '.';
"""
WHOLE = b"thrown of a\na: 0 200\na 0\nb 0\nb: body of b."


# The answer comes after the exception, and nobody catches that before curl is done.
ALONE = """
    $ch = curl_init("$url/c");
    curl_setopt_array($ch, [CURLOPT_RETURNTRANSFER => 1, CURLOPT_UPLOAD => 1,
        CURLOPT_READFUNCTION => function () { throw new Exception('of c'); }]);
    try { curl_exec($ch); echo 'no exception'; }
    catch (Exception $e) { echo 'thrown ', $e->getMessage(); }
    echo "\\nc: ", curl_errno($ch), ' ', curl_multi_getcontent($ch), '.';
"""
ALONE_WHOLE = b"thrown of c\nc: 0 hello."


@pytest.mark.parametrize("mode", WITHOUT_OURS)
def test_transfers_are_whole_without_our_callback(outputs, mode):
    assert outputs(SCRIPT, mode) == [WHOLE] * 2
    assert outputs(ALONE, mode) == [ALONE_WHOLE] * 2


@pytest.mark.parametrize("mode", ["headers", "both"])
def test_bodies_of_other_transfers_are_lost_in_php_7_which_is_known(outputs, engine, mode):
    bare, seen = outputs(SCRIPT, mode)
    assert bare == WHOLE
    if engine.handles_are_objects:
        assert seen == WHOLE
    else:
        assert seen.count(REFUSED) == 1
        assert seen.endswith(b"thrown of a\na: 0 200\na 0\nb 23\nb: .")


@pytest.mark.parametrize("mode", ["headers", "both"])
def test_body_of_the_same_transfer_is_lost_in_php_7_which_is_known(outputs, engine, mode):
    bare, seen = outputs(ALONE, mode)
    assert bare == ALONE_WHOLE
    if engine.handles_are_objects:
        assert seen == ALONE_WHOLE
    else:
        assert seen.count(REFUSED) == 1
        assert seen.endswith(b"thrown of c\nc: 23 .")
