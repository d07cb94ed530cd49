"""Transfers that go wrong, and callbacks that do not return: nothing is lost, nothing crashes."""
import pytest
from curl_runs import (FINISH, MODES, UNRECORDED, caller_of, calls, curl, members, server,
                       trace_lines, transfers)
import http_server as http

__all__ = ["curl", "server"]
pytestmark = pytest.mark.usefixtures("limit_holds")

OPEN = """
    $ch = curl_init("$url/a");
    curl_setopt_array($ch, [CURLOPT_RETURNTRANSFER => true, CURLOPT_TIMEOUT_MS => 5000]);
"""
TELL = "var_dump(curl_errno($ch), curl_getinfo($ch, CURLINFO_HTTP_CODE));"

# A name that no resolver looks for: a label holds 63 characters at most.
NO_HOST = "a" * 70 + ".invalid"

# What goes wrong: the script's settings, the server's behaviour, curl's number, the status told.
FAULTS = {
    "refused": ("curl_setopt($ch, CURLOPT_URL, 'http://127.0.0.1:1/a');", None, 7, None),
    "no such host": ("curl_setopt($ch, CURLOPT_URL, 'http://%s/a');" % NO_HOST, None, 6, None),
    "no such protocol": ("curl_setopt($ch, CURLOPT_URL, 'nonsense://127.0.0.1/a');", None, 1,
                         None),
    "time-out before the head": ("curl_setopt($ch, CURLOPT_TIMEOUT_MS, 600);",
                                 http.never_answers(), 28, None),
    "time-out in the body": ("curl_setopt($ch, CURLOPT_TIMEOUT_MS, 600);",
                             lambda exchange: (exchange.send(http.head(500, length=9) + b"ab"),
                                               exchange.wait(10)), 28, 500),
    "time-out in the head": ("curl_setopt($ch, CURLOPT_TIMEOUT_MS, 600);",
                             lambda exchange: (exchange.send(b"HTTP/1.1 404 X\r\nA: 1\r\nB"),
                                               exchange.wait(10)), 28, 404),
    "reset at once": ("", http.resets(), 56, None),
    "reset in the head": ("", http.resets(b"HTTP/1.1 200 OK\r\nA: 1\r\nB: "), 56, 200),
    "reset in the body": ("", http.resets(http.head(503, ["A: 1"], 1000) + b"begins"), 56, 503),
    "closed at once": ("", http.sends(b""), 52, None),
    "closed in the body": ("", http.sends(http.head(200, ["A: 1"], 9) + b"beg"), 18, 200),
    "closed in a chunk": ("", http.sends(http.head(
        200, ["Transfer-Encoding: chunked"]) + b"9\r\nabc"), 18, 200),
    "broken chunk": ("", http.sends(http.head(
        200, ["Transfer-Encoding: chunked"]) + b"zz\r\nabc"), 56, 200),
    "no HTTP": ("", http.sends(b"nonsense\r\n\r\n"), 1, None),
    "too many redirects": ("curl_setopt_array($ch, [CURLOPT_FOLLOWLOCATION => 1,"
                           "CURLOPT_MAXREDIRS => 3]);", http.redirects("/a"), 47, 302),
    "error wanted": ("curl_setopt($ch, CURLOPT_FAILONERROR, 1);", http.answers(418), 22, 418),
}


def faulty(curl, kind):
    settings, behaviour, number, status = FAULTS[kind]
    if behaviour:
        curl.server.routes["/a"] = behaviour
    return settings, number, status


@pytest.mark.parametrize("kind", list(FAULTS))
def test_transfer_that_fails(curl, kind):
    settings, number, status = faulty(curl, kind)
    source = OPEN + settings + "var_dump(curl_exec($ch));" + TELL
    for mode in MODES:
        run = curl.same(source, mode)
        assert b"int(%d)" % number in run.result.stdout
        span = curl.collector.payload.span("curl_exec")
        failed = {"if": 1} if status and status > 399 else {}
        told = {"esc": status, **failed} if status else {}
        assert {key: span[key] for key in ("esc", "if", "ie") if key in span} == told
        curl.collector.forget()


@pytest.mark.parametrize("kind", list(FAULTS))
def test_transfer_that_fails_in_a_multi_handle(curl, kind):
    settings, number, status = faulty(curl, kind)
    source = OPEN + settings + "$multi = curl_multi_init(); curl_multi_add_handle($multi, $ch);" \
        + FINISH + "var_dump(curl_multi_info_read($multi)['result']);"
    for mode in MODES:
        run = curl.same(source, mode)
        assert run.result.stdout == b"int(%d)\n" % number
        found = transfers(curl.collector.payload)
        assert [span["esc"] for span in found] == ([status] if status else [])
        curl.collector.forget()


@pytest.mark.parametrize("mode", ["trace", "both"])
def test_failed_transfers_leave_the_next_ones_right(curl, mode):
    curl.server.routes["/a"] = http.in_turn(http.resets(), http.never_answers(), http.answers())
    payload = curl.payload(OPEN + """
        curl_setopt($ch, CURLOPT_HTTPHEADER, ['A: 1']);
        foreach ([5000, 600, 5000] as $limit) {
            curl_setopt($ch, CURLOPT_TIMEOUT_MS, $limit); curl_exec($ch); echo curl_errno($ch), ' ';
        }
    """, mode, output=b"56 28 0 ")
    spans = calls(payload, "curl_exec")
    assert [caller_of(request) for request in curl.requests] == [span["si"] for span in spans]
    assert [request.headers[-1] for request in curl.requests] == ["A: 1"] * 3
    assert [span.get("esc") for span in spans] == [None, None, 200]


@pytest.mark.parametrize("mode", list(MODES))
def test_thousand_handles_on_one_multi_handle(curl, mode):
    payload = curl.payload("""
        $multi = curl_multi_init(); curl_multi_setopt($multi, 13, 50);
        for ($i = 0; $i < 1000; $i++) {
            $ch = curl_init("$url/$i"); curl_setopt($ch, CURLOPT_RETURNTRANSFER, 1);
            curl_multi_add_handle($multi, $ch); $all[] = $ch;
        }
    """ + FINISH.replace("+ 10", "+ 40") + """
        foreach ($all as $ch) { curl_multi_remove_handle($multi, $ch); curl_close($ch); }
        curl_multi_close($multi); echo $running;
    """, mode, {"kaq.span_limit": 100000}, output=b"0")
    spans = transfers(payload)
    assert sorted(int(span["hn"].rpartition("/")[2]) for span in spans) == list(range(1000))
    assert all(span["esc"] == 200 for span in spans)
    if mode in ("trace", "both"):
        assert {http.path_of(request)[1:]: caller_of(request) for request in curl.requests} == {
            span["hn"].rpartition("/")[2]: span["si"] for span in spans}
    if mode in ("headers", "both"):
        assert all(span["ersh"] == {"Content-Length": "5\r\n"} for span in spans)


CLOSED_WHILE_ATTACHED = {
    "closed": "curl_close($a);", "unset": "unset($a);", "closed and unset": "curl_close($a);"
    "unset($a);", "closed after a step": "curl_multi_exec($multi, $r); curl_close($a); unset($a);",
    "both closed": "curl_close($a); curl_close($b); unset($a, $b);",
    "closed, then removed": "curl_close($a); @curl_multi_remove_handle($multi, $a);",
    "multi closed and used again": "curl_multi_close($multi); curl_close($a); unset($multi);"
                                   "$multi = curl_multi_init();",
    "multi gone first": "unset($multi); curl_close($a); $multi = curl_multi_init();",
}


@pytest.mark.parametrize("kind", list(CLOSED_WHILE_ATTACHED))
def test_handles_closed_while_they_are_attached(curl, kind):
    curl.same("""
        $a = curl_init("$url/a"); $b = curl_init("$url/b"); $multi = curl_multi_init();
        foreach ([$a, $b] as $ch) {
            curl_setopt($ch, CURLOPT_RETURNTRANSFER, 1);
            curl_setopt($ch, CURLOPT_HTTPHEADER, ['A: 1']); curl_multi_add_handle($multi, $ch);
        }
        unset($ch);
    """ + CLOSED_WHILE_ATTACHED[kind] + FINISH + """
        var_dump($status); $ch = curl_init("$url/c"); curl_setopt($ch, CURLOPT_RETURNTRANSFER, 1);
        var_dump(curl_exec($ch));
    """, *MODES, *UNRECORDED)


# Callbacks that do not return --------------------------------------------------------------------

WHERE = {
    "write": "CURLOPT_WRITEFUNCTION => function ($ch, $data) { %s }",
    "header": "CURLOPT_HEADERFUNCTION => function ($ch, $line) { %s }",
    "progress": "CURLOPT_NOPROGRESS => 0, CURLOPT_PROGRESSFUNCTION => function () { %s }",
    "read": "CURLOPT_UPLOAD => 1, CURLOPT_READFUNCTION => function () { %s }",
}
ENDS = {"exit": "exit(3);", "exit with text": "exit('bye');",
        "fatal error": "trigger_error('dies', E_USER_ERROR);",
        "memory limit": "str_repeat('x', 200 << 20);"}
LIMIT = {"memory_limit": "32M"}
RUNS = {"alone": "curl_exec($ch);",
        "in a multi handle": "$multi = curl_multi_init(); curl_multi_add_handle($multi, $ch);"
                             + FINISH}


UNTIL_CALLED = """
    $called = false; $deadline = microtime(true) + 10;
    do { curl_multi_exec($multi, $r); if (!$called) { curl_multi_select($multi, 0.02); } }
    while (!$called && microtime(true) < $deadline);
"""


def with_callback(where, end):
    return OPEN + "curl_setopt_array($ch, [%s]);" % (WHERE[where] % end)


def modes_for(engine, where):
    """Without those in which a header callback of ours could not be called under the exception:
    curl warns of that in engines where an exception by itself does not end the transfer.
    """
    if where in ("progress", "read") and not engine.handles_are_objects:
        return ["neither", "trace"]
    return list(MODES)


def quiet(where):
    """How often curl warns of a progress callback that cannot be called is left to chance."""
    return {"error_reporting": 1} if where == "progress" else {}


@pytest.mark.parametrize("run", list(RUNS))
@pytest.mark.parametrize("where", list(WHERE))
def test_exception_of_a_callback_reaches_the_script(curl, engine, where, run):
    """The call still tells where it went, and what came back before."""
    curl.server.routes["/a"] = http.answers(404, ["A: 1"])
    source = with_callback(where, "throw new LogicException('from inside', 3);") + """
        function after() { usleep(20000); }
        try { %s echo 'never'; } catch (Exception $e) {
            echo get_class($e), $e->getMessage(), $e->getCode(); var_dump($e->getPrevious()); }
        unset($e); curl_setopt($ch, CURLOPT_NOPROGRESS, 1); after();
        echo ' status ', curl_getinfo($ch, CURLINFO_HTTP_CODE);
    """ % RUNS[run]
    for mode in modes_for(engine, where):
        result = curl.same(source, mode, settings=dict(
            quiet(where), **{"kaq.method_threshold": 10})).result
        assert b"LogicException" in result.stdout and b"never" not in result.stdout
        payload = curl.collector.payload
        if b" status " in result.stdout:
            assert payload.parent_of(payload.span("after"))["fn"] == "main", "all was closed"
        if run == "alone":
            span, status = payload.span("curl_exec"), int(result.stdout.split()[-1])
            assert span["hn"] == curl.server.url + "/a" and "ie" not in span
            assert (span.get("esc", 0), "if" in span) == (status, status == 404)
            assert status == 404 or where in ("progress", "read")
        curl.collector.forget()


@pytest.mark.parametrize("run", list(RUNS))
@pytest.mark.parametrize("where", list(WHERE))
def test_exception_that_nobody_catches(curl, engine, where, run):
    curl.same(with_callback(where, "throw new Exception('uncaught');") + RUNS[run]
              + "echo 'never';", *modes_for(engine, where), *UNRECORDED, settings=quiet(where))


@pytest.mark.parametrize("run", list(RUNS))
@pytest.mark.parametrize("where", list(WHERE))
@pytest.mark.parametrize("end", list(ENDS))
def test_request_that_ends_in_a_callback(curl, where, end, run):
    curl.server.routes["/a"] = http.answers(404, ["A: 1"])
    source = "register_shutdown_function(function () { echo 'shutdown'; });" + with_callback(
        where, ENDS[end]) + "function outer($ch) { %s echo 'never'; } outer($ch);" % RUNS[run]
    for mode in MODES:
        curl.same(source, mode, settings=LIMIT)
        payload = curl.collector.payload
        name = "curl_exec" if run == "alone" else "curl_multi_exec"
        assert payload.parent_of(calls(payload, name)[-1])["fn"] == "outer"
        if run == "alone" and where in ("write", "header"):
            assert payload.span(name)["hn"] == curl.server.url + "/a"
            assert payload.span(name)["esc"] == 404
        curl.collector.forget()


@pytest.mark.parametrize("run", list(RUNS))
@pytest.mark.parametrize("where", ["write", "header", "progress"])
@pytest.mark.parametrize("end", list(ENDS))
def test_unrecorded_call_whose_callback_ends_the_request(curl, engine, where, end, run):
    """Such an end stops at the call, as it does in every unrecorded call, which is meant."""
    unwinds = engine.exit_is_a_bailout if end.startswith("exit") else (
        engine.memory_limit_is_a_bailout or not end.startswith("memory"))
    source = with_callback(where, "$GLOBALS['called'] = true; " + ENDS[end]) \
        + RUNS[run].replace(FINISH, UNTIL_CALLED) + """
            echo ' goes on'; unset($ch);
            $ch = curl_init("$url/b"); curl_setopt($ch, CURLOPT_RETURNTRANSFER, 1);
            echo curl_exec($ch);
        """
    bare = curl.run(source, settings=LIMIT, loaded=False)
    assert b" goes on" not in bare.result.stdout
    for how in ("unmonitored", "limit 0", "internal calls not tracked"):
        loaded = curl.run(source, how, LIMIT)
        if unwinds:
            assert loaded.result.stdout.endswith(b" goes onhello"), loaded.result
        else:
            assert loaded.result.outcome == bare.result.outcome
        assert all(trace_lines(request) == [] for request in loaded.requests)


def test_handle_closed_by_its_own_callback(curl):
    curl.same(OPEN + """
        set_error_handler(function ($level, $text) { echo "[$text]"; return true; });
        curl_setopt($ch, CURLOPT_WRITEFUNCTION, function ($ch, $data) {
            try { curl_close($ch); } catch (Error $e) { echo get_class($e); }
            return strlen($data);
        });
        curl_exec($ch); unset($ch); echo 'done';
    """, *MODES, *UNRECORDED)


def test_handle_run_again_by_its_own_callback(curl):
    run = curl.same(OPEN + """
        curl_setopt($ch, CURLOPT_WRITEFUNCTION, function ($ch, $data) {
            static $depth = 0;
            if (!$depth++) { var_dump(@curl_exec($ch), curl_errno($ch)); }
            return strlen($data);
        });
        var_dump(curl_exec($ch), curl_errno($ch));
    """, *MODES, *UNRECORDED)
    assert run.result.status == 0


@pytest.mark.parametrize("mode", list(MODES))
def test_handle_that_its_callback_attaches_and_finishes_elsewhere(curl, mode):
    payload = curl.payload(OPEN + """
        $other = curl_init("$url/b"); curl_setopt($other, CURLOPT_RETURNTRANSFER, 1);
        curl_setopt($ch, CURLOPT_WRITEFUNCTION, function ($ch, $data) use ($other) {
            $multi = curl_multi_init(); curl_multi_add_handle($multi, $other); %s
            curl_multi_remove_handle($multi, $other); curl_multi_close($multi);
            return strlen($data);
        });
        curl_exec($ch);
    """ % FINISH, mode)
    inside, = transfers(payload)
    outside, = calls(payload, "curl_exec")
    assert (inside["hn"][-1], outside["hn"][-1]) == ("b", "a")
    assert payload.parent_of(payload.parent_of(inside))["psi"] == outside["si"]
    assert members(outside)["esc"] == 200
    if mode in ("trace", "both"):
        assert [caller_of(request) for request in curl.requests] == [outside["si"], inside["si"]]
