"""The trace headers that outgoing calls carry, and the response headers that are told."""
import pytest
from curl_runs import (ACCOUNT, FINISH, KEY, caller_of, calls, curl, server,
                       trace_lines, transfers, without_trace)
from fake_collector import ENABLED
import http_server as http

__all__ = ["curl", "server"]

OPEN = """
    $ch = curl_init("$url/a"); curl_setopt($ch, CURLOPT_RETURNTRANSFER, true);
"""
EXEC = "curl_exec($ch);"
MULTI = "$multi = curl_multi_init(); curl_multi_add_handle($multi, $ch);" + FINISH
AGAIN = "curl_multi_remove_handle($multi, $ch); curl_multi_add_handle($multi, $ch);" + FINISH

TRACE = "0af7651916cd43dd8448eb211c80319c"
CALLER = {"HTTP_TRACEPARENT": "00-%s-b7ad6b7169203331-01" % TRACE}
SAME_ACCOUNT = dict(CALLER, HTTP_X_SKELVOR_ID=ACCOUNT)


def expected_lines(payload, span, origin=None):
    lines = ["X-Skelvor-Id: " + ACCOUNT,
             "traceparent: 00-%s-%s-01" % (payload.transaction["trace_id"], span["si"])]
    return lines + (["X-Skelvor-Origin: " + origin] if origin else [])


# How often, and for whom -------------------------------------------------------------------------

@pytest.mark.parametrize("own", [[], ["A: 1"], ["A: 1", "traceparent: own", "B: 2"]],
                         ids=["no headers", "one header", "headers with a traceparent"])
@pytest.mark.parametrize("mode", ["trace", "both"])
@pytest.mark.parametrize("count", [1, 2, 50])
def test_each_transfer_carries_each_trace_header_once_and_names_its_own_span(
        curl, count, mode, own):
    quoted = ", ".join("'%s'" % line for line in own)
    payload = curl.payload(OPEN + ("curl_setopt($ch, CURLOPT_HTTPHEADER, [%s]);" % quoted
                                   if own else "")
                           + "for ($i = 0; $i < %d; $i++) { curl_exec($ch); }" % count, mode)
    spans = calls(payload, "curl_exec")
    assert len(spans) == len(curl.requests) == count
    kept = [line for line in own if "traceparent" not in line]
    for request, span in zip(curl.requests, spans):
        assert request.headers[-2 - len(kept):] == expected_lines(payload, span) + kept
        assert len(trace_lines(request)) == 2
    assert {request.connection for request in curl.requests} == {1}, "kept alive"


@pytest.mark.parametrize("mode", ["trace", "both"])
@pytest.mark.parametrize("count", [1, 2, 50])
def test_transfers_of_a_multi_handle_name_the_spans_that_tell_of_them(curl, count, mode):
    payload = curl.payload(OPEN + "curl_setopt($ch, CURLOPT_HTTPHEADER, ['A: 1']);" + MULTI +
                           "for ($i = 1; $i < %d; $i++) { %s }" % (count, AGAIN), mode)
    spans = transfers(payload)
    assert len(spans) == len(curl.requests) == count
    for request, span in zip(curl.requests, spans):
        assert request.headers[-3:] == expected_lines(payload, span) + ["A: 1"]
        assert len(trace_lines(request)) == 2


@pytest.mark.parametrize("mode", ["trace", "both"])
def test_handle_that_runs_alone_and_in_a_multi_handle_by_turns(curl, mode):
    payload = curl.payload(OPEN + "curl_setopt($ch, CURLOPT_HTTPHEADER, ['A: 1']);" + EXEC + MULTI
                           + "curl_multi_remove_handle($multi, $ch);" + EXEC +
                           "curl_multi_add_handle($multi, $ch);" + FINISH, mode)
    alone, async_ = calls(payload, "curl_exec"), transfers(payload)
    spans = [alone[0], async_[0], alone[1], async_[1]]
    assert [caller_of(request) for request in curl.requests] == [span["si"] for span in spans]
    for request, span in zip(curl.requests, spans):
        assert request.headers[-3:] == expected_lines(payload, span) + ["A: 1"]


@pytest.mark.parametrize("mode", ["trace", "both"])
def test_trace_headers_do_not_pile_up_once_the_span_limit_is_reached(curl, mode):
    payload = curl.payload(OPEN + "curl_setopt($ch, CURLOPT_HTTPHEADER, ['A: 1']);" + EXEC * 2 +
                           "ini_set('kaq.span_limit', '0');" + EXEC * 2 +
                           "ini_set('kaq.span_limit', '999');" + EXEC, mode)
    spans = calls(payload, "curl_exec")
    assert len(spans) == 3 and len(curl.requests) == 5
    for request, span in zip(curl.requests, [spans[0], spans[1], spans[1], spans[1], spans[2]]):
        assert trace_lines(request) == expected_lines(payload, span)
        assert request.headers[-1] == "A: 1"


@pytest.mark.parametrize("limit", range(3, 9))
def test_span_limit_may_be_reached_at_any_call(curl, limit):
    run = curl.run(OPEN + "curl_setopt($ch, CURLOPT_HTTPHEADER, ['A: 1']);" + EXEC * 4, "trace",
                   {"kaq.span_limit": limit})
    assert len(run.requests) == 4
    for request in run.requests:
        assert len(trace_lines(request)) in (0, 2)
        assert request.headers.count("A: 1") == 1 and request.headers[-1] == "A: 1"


def test_redirected_transfer_carries_the_same_headers_to_each_place(curl):
    curl.server.routes.update({"/a": http.redirects("/b"), "/b": http.redirects("/c", 307)})
    payload = curl.payload(OPEN + "curl_setopt($ch, CURLOPT_FOLLOWLOCATION, 1);" + EXEC)
    assert len(curl.requests) == 3
    for request in curl.requests:
        assert trace_lines(request) == expected_lines(payload, payload.span("curl_exec"))


def test_switch_is_looked_at_in_every_call(curl):
    off, on = ("ini_set('kaq.capture_distributed_trace', '%d');" % value for value in (0, 1))
    run = curl.run(OPEN + "curl_setopt($ch, CURLOPT_HTTPHEADER, ['A: 1']);" + EXEC + on + EXEC +
                   off + "curl_setopt($ch, CURLOPT_HTTPHEADER, ['B: 1']);" + EXEC, "headers")
    assert [len(trace_lines(request)) for request in run.requests] == [0, 2, 0]
    assert [request.headers[-1] for request in run.requests] == ["A: 1", "A: 1", "B: 1"]


ADD = "$multi = curl_multi_init(); curl_multi_add_handle($multi, $ch);"
# What a script does with a handle that waits in a multi handle: the lines it means to send.
WHILE_ATTACHED = {
    "list": ("curl_setopt($ch, CURLOPT_HTTPHEADER, ['B: 2']);", {"B": "2"}),
    "list in an array": ("curl_setopt_array($ch, [CURLOPT_HTTPHEADER => ['B: 2']]);", {"B": "2"}),
    "empty list": ("curl_setopt($ch, CURLOPT_HTTPHEADER, []);", {}),
    "reset": ("curl_reset($ch); curl_setopt($ch, CURLOPT_URL, \"$url/a\");"
              "curl_setopt($ch, CURLOPT_RETURNTRANSFER, true);", {}),
}


@pytest.mark.parametrize("mode", ["trace", "both"])
@pytest.mark.parametrize("before", ["", "curl_setopt($ch, CURLOPT_HTTPHEADER, ['A: 1']);"],
                         ids=["no list before", "list before"])
@pytest.mark.parametrize("what", list(WHILE_ATTACHED))
def test_headers_set_while_attached_are_sent_alone_which_is_meant(curl, what, before, mode):
    change, own = WHILE_ATTACHED[what]
    source = OPEN + before + ADD + change + FINISH
    bare = curl.run(source, loaded=False)
    payload = curl.payload(source, mode)
    assert [request.raw for request in curl.requests] == [request.raw for request in bare.requests]
    request, = curl.requests
    assert trace_lines(request) == [] and "A: 1" not in request.headers
    assert ("B: 2" in request.headers) == (own == {"B": "2"})
    span, = transfers(payload)
    assert (span["hn"], span["esc"]) == (curl.server.url + "/a", 200)
    if mode == "both":
        assert span.get("erqh", {}) == own


@pytest.mark.parametrize("switch", ["kaq.capture_distributed_trace", "kaq.span_limit"])
def test_switched_off_in_mid_request_leaves_the_last_trace_headers_which_is_meant(curl, switch):
    """Until the script sets a list again."""
    payload = curl.payload(OPEN + "curl_setopt($ch, CURLOPT_HTTPHEADER, ['A: 1']);" + EXEC * 2 +
                           "ini_set('%s', '0');" % switch + EXEC + "$copy = $ch;"
                           "$ch = curl_copy_handle($ch);" + EXEC + MULTI +
                           "curl_setopt($copy, CURLOPT_HTTPHEADER, ['B: 2']); curl_exec($copy);",
                           "trace")
    last = expected_lines(payload, calls(payload, "curl_exec")[1])
    assert [trace_lines(one) for one in curl.requests[1:]] == [last, last, last, last, []]
    assert [one.headers[-1] for one in curl.requests[1:]] == ["A: 1"] * 4 + ["B: 2"]
    told = len(calls(payload, "curl_exec")), len(transfers(payload))
    assert told == ((2, 0) if switch == "kaq.span_limit" else (5, 1))


def test_refused_run_of_an_attached_handle_replaces_its_headers_which_is_meant(curl):
    run = curl.web(OPEN + "curl_setopt($ch, CURLOPT_HTTPHEADER, ['A: 1']);" + ADD +
                   "echo (int)curl_exec($ch), curl_errno($ch) ? 'refused' : '';" + FINISH)
    assert run.result.response.body == b"0refused"
    payload = curl.collector.payload
    refused, = calls(payload, "curl_exec")
    request, = run.requests
    assert request.headers[-4:] == expected_lines(payload, refused, ALONE) + ["A: 1"]
    span, = transfers(payload)
    assert span["si"] != refused["si"] and span["esc"] == 200


# The account -------------------------------------------------------------------------------------

@pytest.mark.parametrize("key,sent", [
    ("x" * 11, None), ("012345678901", "012345678901"), ("x012345678901", "012345678901"),
    (KEY, ACCOUNT), ("x" * 1000 + "caf\u00e9 d'or 12", "af\u00e9 d'or 12"),
    ("  0123456789ab\t ", "0123456789ab"), (" " * 20, None), ("  0123456789a  ", None)])
def test_account_is_the_last_twelve_bytes_of_the_key(curl, key, sent):
    run = curl.run(OPEN + EXEC, "trace", key=key)
    request, = run.requests
    lines = [line for line in request.headers if line.startswith("X-Skelvor-Id")]
    if sent is None:
        assert lines == []
    else:
        line, = lines
        assert line.encode("latin-1") == b"X-Skelvor-Id: " + sent.encode()
    assert len(trace_lines(request)) == 1 + len(lines)


# Merging -----------------------------------------------------------------------------------------

MERGES = {
    "own traceparent": (["traceparent: abc"], []),
    "any case": (["TRACEPARENT: x", "x-skelvor-ID: mine", "x-SKELVOR-origin: {}"], []),
    "name inside a value": (["X-Request-Id: traceparent-123", "A: my X-Skelvor-Originals"], []),
    "name inside a name": (["My-Traceparent-2: x"], []),
    "nearly a name": (["trace-parent: x", "X-Skelvor: 1", "traceparen: t", "X Skelvor Id: 1"],
                      None),
    "order": (["Z: 1", "traceparent: x", "A: 2", "M: 3"], ["Z: 1", "A: 2", "M: 3"]),
    "curl's own headers": (["Accept: text/x", "Host: other", "User-Agent: me"], None),
    "empty value": (["A:", "B;"], None),
    "blank lines": (["", " ", "A: 1"], None),
    "repeated": (["A: 1", "A: 1", "a: 1"], None),
    "long": (["A: " + "x" * 9000], None),
}


@pytest.mark.parametrize("how", ["curl_setopt($ch, CURLOPT_HTTPHEADER, %s);",
                                 "curl_setopt_array($ch, [CURLOPT_HTTPHEADER => %s]);",
                                 "curl_setopt($ch, CURLOPT_HTTPHEADER, new ArrayIterator(%s));"],
                         ids=["curl_setopt", "curl_setopt_array", "iterator"])
@pytest.mark.parametrize("kind", list(MERGES))
def test_script_s_headers_follow_the_trace_headers(curl, engine, kind, how):
    if "Iterator" in how and engine.handles_are_objects:
        pytest.skip("curl refuses an iterator here")
    own, kept = MERGES[kind]
    as_php = "[%s]" % ", ".join("'%s'" % line for line in own)
    kept_php = "[%s]" % ", ".join("'%s'" % line for line in (own if kept is None else kept))
    bare = curl.run(OPEN + "curl_setopt($ch, CURLOPT_HTTPHEADER, %s);" % kept_php + EXEC * 2,
                    loaded=False)
    assert len(bare.requests) == 2
    run = curl.run(OPEN + how % as_php + EXEC + EXEC)
    assert [without_trace(one) for one in run.requests] == list(map(without_trace, bare.requests))
    for request, span in zip(run.requests, calls(curl.collector.payload, "curl_exec")):
        assert trace_lines(request) == expected_lines(curl.collector.payload, span)


def test_name_after_a_nul_byte_counts_too(curl):
    run = curl.run(OPEN + """
        curl_setopt($ch, CURLOPT_HTTPHEADER, ["A: 1\\0traceparent", "B: 2\\0x"]);
    """ + EXEC, "trace")
    assert run.requests[0].headers[-1] == "B: 2"
    assert not [line for line in run.requests[0].headers if line.startswith("A:")]


@pytest.mark.parametrize("value", [
    "[1, 'A: 1', 2.5, true]", "[null, 'A: 1']", "['k' => 'A: 1', 'l' => 'B: 2']",
    "[9 => 'A: 1', 3 => 'B: 2']", "[new Line('A: 1')]", "[['A: 1'], 'B: 2']"])
def test_elements_that_are_no_texts_are_passed_on(curl, value):
    curl.same("class Line { function __construct($t) { $this->t = $t; }"
              " function __toString() { return $this->t; } }" + OPEN +
              "@curl_setopt($ch, CURLOPT_HTTPHEADER, %s);" % value + EXEC + EXEC, "trace")


def test_object_that_is_a_trace_header_as_a_text_is_kept_which_is_meant(curl):
    run = curl.run("class Line { function __toString() { return 'traceparent: own'; } }" + OPEN +
                   "curl_setopt($ch, CURLOPT_HTTPHEADER, [new Line]);" + EXEC, "trace")
    assert http.values_of(run.requests[0], "traceparent")[1] == "own"


def test_extension_s_lists_do_not_reach_the_script_s_variables(curl):
    curl.same(OPEN + """
        $list = ['A: 1', 'B: 2']; $copy = $list; $options = [CURLOPT_HTTPHEADER => $list];
        curl_setopt($ch, CURLOPT_HTTPHEADER, $list); curl_exec($ch);
        curl_setopt_array($ch, $options); curl_exec($ch); $list[] = 'C: 3'; curl_exec($ch);
        var_dump($list, $copy, $options);
    """)


# The flow ----------------------------------------------------------------------------------------

ALONE, ASYNC = '{"flow":"A1;"}', '{"flow":"A1;","async":true}'
ARRIVALS = {
    "no caller": ({}, ALONE),
    "no flow": (SAME_ACCOUNT, ALONE),
    "flow": (dict(SAME_ACCOUNT, HTTP_X_SKELVOR_ORIGIN='{"flow":"X;Y;"}'),
             '{"flow":"X;Y;A1;"}'),
    "empty flow": (dict(SAME_ACCOUNT, HTTP_X_SKELVOR_ORIGIN='{"flow":""}'), ALONE),
    "flow and not async": (dict(SAME_ACCOUNT,
                                HTTP_X_SKELVOR_ORIGIN='{"flow":"X;","async":false}'),
                           '{"flow":"X;A1;"}'),
    "flow and async": (dict(SAME_ACCOUNT, HTTP_X_SKELVOR_ORIGIN='{"flow":"X;","async":true}'),
                       ALONE),
    "flow of another account": (dict(CALLER, HTTP_X_SKELVOR_ID="another acct",
                                     HTTP_X_SKELVOR_ORIGIN='{"flow":"X;"}'), ALONE),
}


@pytest.mark.parametrize("arrival", list(ARRIVALS))
def test_origin_of_a_web_request(curl, arrival):
    headers, origin = ARRIVALS[arrival]
    run = curl.web(OPEN + EXEC + MULTI + "curl_multi_remove_handle($multi, $ch);" + EXEC,
                   **headers)
    payload = curl.collector.payload
    payload.text = payload.text.replace('"origin":{,', '"origin":{')
    alone, = transfers(payload)
    first, second = calls(payload, "curl_exec")
    assert payload.transaction["trace_id"] == TRACE or "HTTP_TRACEPARENT" not in headers
    assert [trace_lines(request) for request in run.requests] == [
        expected_lines(payload, first, origin), expected_lines(payload, alone, ASYNC),
        expected_lines(payload, second, origin)]


@pytest.mark.parametrize("answer", [{}, {"app.id": ""}, {"app.id": None}, {"app.id": 7}],
                         ids=str)
def test_without_an_application_there_is_no_origin(curl, answer):
    curl.reply = dict(ENABLED, **answer)
    run = curl.web(OPEN + EXEC + MULTI, "trace", **SAME_ACCOUNT)
    assert [len(trace_lines(request)) for request in run.requests] == [2, 2]


def test_command_line_sends_no_origin(curl):
    run = curl.run(OPEN + EXEC + MULTI)
    for request in run.requests:
        assert [line.partition(":")[0] for line in trace_lines(request)] == [
            "X-Skelvor-Id", "traceparent"]


# What a span tells of the request ----------------------------------------------------------------

def test_account_is_not_told(curl):
    payload = curl.payload(OPEN + "curl_setopt($ch, CURLOPT_HTTPHEADER, ['A: 1']);" + EXEC * 2 +
                           MULTI)
    for span in (*calls(payload, "curl_exec"), *transfers(payload)):
        assert span["erqh"]["A"] == "1"
        assert set(span["erqh"]) <= {"A", "traceparent"}
    assert ACCOUNT not in payload.text


def test_traceparent_that_a_transfer_of_a_multi_handle_tells_is_its_own(curl):
    payload = curl.payload(OPEN + MULTI + AGAIN)
    for span, request in zip(transfers(payload), curl.requests):
        value, = http.values_of(request, "traceparent")
        assert span["erqh"] == {"traceparent": value}
