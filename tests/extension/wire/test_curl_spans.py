"""The spans of curl calls: names, addresses, statuses, and the children of a multi handle."""
import json
import threading

import pytest
from curl_runs import (FINISH, HEADERFUNCTION, HTTPHEADER, MODES, UNRECORDED, caller_of, calls,
                       curl, members, server, trace_lines, transfers)
import http_server as http

__all__ = ["curl", "server"]

OPEN = """
    $ch = curl_init("$url/a"); curl_setopt($ch, CURLOPT_RETURNTRANSFER, true);
"""
HTTP = {"cn": "HTTP", "pr": 1}
EVERY_FUNCTION = """
    $ch = curl_init(); curl_setopt($ch, CURLOPT_URL, "$url/a?b=c");
    curl_setopt_array($ch, [CURLOPT_RETURNTRANSFER => true]); curl_exec($ch);
    $multi = curl_multi_init(); curl_multi_add_handle($multi, $ch); %s
    curl_multi_remove_handle($multi, $ch); curl_multi_close($multi);
""" % FINISH


def handles(count, path="$url/%d"):
    """$chs of that many handles on $multi, each on a path of its own."""
    return """
        $multi = curl_multi_init(); $chs = [];
        for ($i = 0; $i < %d; $i++) {
            $chs[$i] = curl_init(sprintf("%s", $i));
            curl_setopt($chs[$i], CURLOPT_RETURNTRANSFER, true);
            curl_multi_add_handle($multi, $chs[$i]);
        }
    """ % (count, path)


# Ends all transfers while nothing is recorded, so that the next call is the first to see them.
FINISH_UNSEEN = ("ini_set('kaq.track_zend_execute_internal', '0');" + FINISH +
                 "ini_set('kaq.track_zend_execute_internal', '1');")


@pytest.mark.parametrize("mode", list(MODES))
def test_every_function_leaves_its_span(curl, mode):
    payload = curl.payload(EVERY_FUNCTION, mode, output=b"")
    address = curl.server.url + "/a?b=c"
    for name in ("curl_init", "curl_setopt (10002)", "curl_setopt_array", "curl_multi_init",
                 "curl_multi_add_handle", "curl_multi_remove_handle", "curl_multi_close"):
        assert members(payload.span(name)) == dict(HTTP, fn=name), name
    for span in calls(payload, "curl_multi_exec"):
        assert members(span) == dict(HTTP, fn="curl_multi_exec")
    done = dict(HTTP, ex=1, esc=200, hn=address)
    assert members(payload.span("curl_exec"), "erqh", "ersh") == dict(done, fn="curl_exec")
    child, = transfers(payload)
    assert members(child, "erqh", "ersh") == dict(done, fn="curl_multi_exec", ar=1)
    keeps_headers = mode in ("headers", "both")
    assert [("ersh" in span) for span in (payload.span("curl_exec"), child)] == [keeps_headers] * 2


def test_members_stand_in_their_order(curl):
    curl.server.routes["/a"] = http.answers(500)
    payload = curl.payload(OPEN + "curl_setopt($ch, CURLOPT_HTTPHEADER, ['A: 1']); curl_exec($ch);"
                           "$multi = curl_multi_init(); curl_multi_add_handle($multi, $ch);"
                           + FINISH)
    times, rest = ["st", "et", "mo", "pr", "fn", "cn", "ex"], ["if", "si", "psi", "esc", "hn",
                                                                "erqh", "ersh"]
    assert list(payload.span("curl_exec")) == times + rest
    assert list(transfers(payload)[0]) == times + ["ar"] + rest


@pytest.mark.parametrize("mode", list(MODES))
def test_extension_s_own_curl_setopt_is_a_span_below_the_call_that_needs_it(curl, mode):
    payload = curl.payload(OPEN + "curl_exec($ch); $multi = curl_multi_init();"
                           "curl_multi_add_handle($multi, $ch);", mode)
    children = {name: [child[0] for child in below] for name, below in payload.tree()[1]}
    callback = ["curl_setopt (%d)" % HEADERFUNCTION] if mode in ("headers", "both") else []
    sent = ["curl_setopt (%d)" % HTTPHEADER] if mode in ("trace", "both") else []
    assert children["curl_init"] == callback
    assert children["curl_exec"] == children["curl_multi_add_handle"] == sent


# curl_setopt -------------------------------------------------------------------------------------

@pytest.mark.parametrize("option,text", [
    ("CURLOPT_URL", "10002"), ("CURLOPT_HTTPHEADER", "10023"), ("42", "42"), ("0", "0"),
    ("-1", "-1"), ("999999999", "999999999"), ("9223372036854775807", "9223372036854775807"),
    ("-9223372036854775807 - 1", "-9223372036854775808"), ("$reference", "19913"),
])
def test_name_of_curl_setopt_has_the_option_s_number_in_at_most_31_characters(
        curl, option, text):
    payload = curl.payload("""
        $reference = 19913; $alias = &$reference; $ch = curl_init();
        try { @curl_setopt($ch, %s, ['A: 1']); } catch (Error $e) {}
    """ % option, "neither")
    assert payload.names[-1] == ("curl_setopt (%s)" % text)[:31]


@pytest.mark.parametrize("arguments", [
    "", "$ch", "$ch, '10002', 'x'", "$ch, 10002.0, 'x'", "$ch, true, 'x'", "$ch, null, 'x'",
    "$ch, [10002], 'x'"])
def test_name_of_curl_setopt_without_an_integer_option_is_plain(curl, arguments):
    payload = curl.payload("""
        $ch = curl_init();
        try { @curl_setopt(%s); } catch (Error $e) {}
    """ % arguments, "neither")
    assert members(payload.spans[-1]) == dict(HTTP, fn="curl_setopt")


ITERATORS = {
    "array": ("['A: 1', 'B: 2']", {"A": "1", "B": "2"}),
    "array with keys": ("['k' => 'A: 1', 7 => 'B: 2']", {"A": "1", "B": "2"}),
    "ArrayIterator": ("new ArrayIterator(['A: 1'])", {"A": "1"}),
    "IteratorAggregate": ("new ArrayObject(['k' => 'A: 1'])", {"A": "1"}),
    "generator": ("(function () { yield 'A: 1'; yield 'B: 2'; })()", {"A": "1", "B": "2"}),
    "keys that come twice": ("(function () { yield 'k' => 'A: 1'; yield 'k' => 'B: 2'; })()",
                             {"B": "2"}),
    "other than texts": ("['A: 1', 5, null]", {"A": "1"}),
    "line without colon": ("['A: 1', 'B']", {"A": "1"}),
    "name that comes twice": ("['A: 1', 'A: 2']", {"A": "2"}),
    "long name and value": ("[str_repeat('n', 200) . ': ' . str_repeat('v', 300)]",
                            {"n" * 127: "v" * 255}),
}


@pytest.mark.parametrize("how", ["curl_setopt($ch, CURLOPT_HTTPHEADER, %s);",
                                 "curl_setopt_array($ch, [CURLOPT_HTTPHEADER => %s]);"],
                         ids=["curl_setopt", "curl_setopt_array"])
@pytest.mark.parametrize("kind", list(ITERATORS))
def test_request_headers_of_the_script_are_told(curl, engine, how, kind):
    value, told = ITERATORS[kind]
    if engine.handles_are_objects and not value.startswith("["):
        told = None  # curl refuses it there
    source = OPEN + "try { %s } catch (TypeError $e) {} curl_exec($ch);" % (how % value)
    bare = curl.run(source, "headers", loaded=False)
    payload = curl.payload(source, "headers", output=bare.result.stdout)
    assert payload.span("curl_exec").get("erqh") == told


@pytest.mark.parametrize("mode", ["headers", "both"])
@pytest.mark.parametrize("how", ["curl_setopt($ch, CURLOPT_HTTPHEADER, %s);",
                                 "curl_setopt_array($ch, [CURLOPT_HTTPHEADER => %s]);"],
                         ids=["curl_setopt", "curl_setopt_array"])
@pytest.mark.parametrize("value", ["'text'", "null", "5", "new stdClass"])
def test_header_list_that_is_none_is_not_told(curl, how, value, mode):
    payload = curl.payload(OPEN + "try { @%s } catch (Error $e) {} curl_exec($ch);" % (
        how % value), mode)
    headers = payload.span("curl_exec").get("erqh")
    assert headers is None or set(headers) <= {"traceparent"}


@pytest.mark.parametrize("how", ["curl_setopt($ch, CURLOPT_HTTPHEADER, ['A: 1']);",
                                 "curl_setopt_array($ch, [CURLOPT_HTTPHEADER => ['A: 1']]);"],
                         ids=["curl_setopt", "curl_setopt_array"])
@pytest.mark.parametrize("first,told", [
    ("neither", None), ("trace", {"A": "1"}), ("headers", {"A": "1"}), ("both", {"A": "1"})])
def test_header_list_is_kept_only_while_one_of_the_two_settings_is_on(curl, how, first, told):
    later = "ini_set('kaq.capture_distributed_trace', '0');" \
            "ini_set('kaq.capture_httpcall_metadata', '1');"
    payload = curl.payload(OPEN + how + later + "curl_exec($ch);", first)
    assert payload.span("curl_exec").get("erqh") == told


@pytest.mark.parametrize("entries,told", [
    ("CURLOPT_HTTPHEADER => ['A: 1'], CURLOPT_TIMEOUT => 5", {"A": "1"}),
    ("CURLOPT_TIMEOUT => 5", None), ("'10023x' => ['A: 1']", None),
    ("'10023' => ['A: 1']", {"A": "1"}), ("-10023 => ['A: 1']", None)])
def test_curl_setopt_array_looks_for_the_number_of_the_header_option(curl, entries, told):
    payload = curl.payload(OPEN + """
        try { @curl_setopt_array($ch, [%s]); } catch (Error $e) {} curl_exec($ch);
    """ % entries, "headers")
    assert payload.span("curl_exec").get("erqh") == told
    assert members(payload.span("curl_setopt_array")) == dict(HTTP, fn="curl_setopt_array")


# curl_exec ---------------------------------------------------------------------------------------

@pytest.mark.parametrize("mode", list(MODES))
@pytest.mark.parametrize("status", [200, 204, 301, 304, 399, 400, 401, 404, 500, 503, 599])
def test_status_above_399_is_a_fault(curl, status, mode):
    curl.server.routes["/a"] = http.answers(status, body=b"")
    source = OPEN + "curl_exec($ch); $multi = curl_multi_init();" \
                    "curl_multi_add_handle($multi, $ch);" + FINISH
    payload = curl.payload(source, mode)
    for span in (payload.span("curl_exec"), *transfers(payload)):
        assert span["esc"] == status
        assert ("if" in span) == (status > 399) and "ie" not in span
    assert len(transfers(payload)) == 1


def test_url_is_the_effective_one(curl):
    curl.server.routes.update({"/a": http.redirects("/b?x=1", 301), "/b": http.redirects("c/d"),
                               "/c/d": http.answers(404)})
    payload = curl.payload(OPEN + """
        curl_exec($ch); curl_setopt($ch, CURLOPT_FOLLOWLOCATION, 1); curl_exec($ch);
        curl_setopt($ch, CURLOPT_URL, ' ' . $server . '/e f'); curl_exec($ch);
        echo curl_getinfo($ch, CURLINFO_EFFECTIVE_URL);
    """)
    base = curl.server.url
    spans = calls(payload, "curl_exec")
    assert [(span["esc"], span.get("if"), span["hn"]) for span in spans[:2]] == [
        (301, None, base + "/a"), (404, 1, base + "/c/d")]


@pytest.mark.parametrize("mode", list(MODES))
def test_failure_of_the_network_is_no_failure_of_the_span(curl, mode):
    payload = curl.payload("""
        $ch = curl_init('http://127.0.0.1:1/a'); curl_exec($ch); echo curl_errno($ch);
    """, mode, output=b"7")
    assert members(payload.span("curl_exec"), "erqh") == dict(
        HTTP, fn="curl_exec", ex=1, hn="http://127.0.0.1:1/a")


def test_handle_without_an_address_has_none(curl):
    payload = curl.payload("$ch = curl_init(); curl_exec($ch);", "headers", output=b"")
    assert members(payload.span("curl_exec")) == dict(HTTP, fn="curl_exec", ex=1)


NO_CURL_HANDLE = {
    "closed": "$ch = curl_init(); curl_close($ch); @curl_exec($ch);",
    "stream": "$ch = fopen('php://memory', 'r'); @curl_exec($ch);",
    "multi": "$ch = curl_multi_init(); @curl_exec($ch);",
}


@pytest.mark.parametrize("mode", list(MODES))
@pytest.mark.parametrize("kind", list(NO_CURL_HANDLE))
def test_resource_that_is_no_open_handle_is_an_error(curl, engine, kind, mode):
    if engine.handles_are_objects:
        pytest.skip("handles are objects here")
    payload = curl.payload(NO_CURL_HANDLE[kind], mode, output=b"")
    assert members(payload.span("curl_exec")) == dict(HTTP, fn="curl_exec", ex=1, ie=1)


@pytest.mark.parametrize("name,arguments", [
    ("curl_exec", ["", "'x'", "$ch, 1", "[]", "null"]),
    ("curl_setopt_array", ["", "$ch", "$ch, [], 1"]),
    ("curl_multi_add_handle", ["", "$multi", "$multi, 'x'", "'x', $ch", "$multi, $ch, 1"]),
    ("curl_multi_exec", ["", "'x', $x", "null, $x"]),
    ("curl_multi_remove_handle", ["", "$multi", "$multi, 'x'", "'x', $ch", "$multi, $ch, 1"]),
    ("curl_multi_close", ["", "'x'", "$multi, 1", "[]"]),
])
def test_call_with_wrong_arguments_keeps_its_names(curl, name, arguments):
    tries = "".join("try { @%s(%s); } catch (Error $e) {}\n" % (name, one) for one in arguments)
    payload = curl.payload("$ch = curl_init(); $multi = curl_multi_init();" + tries, "both",
                           output=b"")
    expected = dict(HTTP, fn=name, **({"ex": 1} if name == "curl_exec" else {}))
    assert [members(span) for span in calls(payload, name)] == [expected] * len(arguments)


def test_options_that_are_no_array(curl, engine):
    payload = curl.payload("""
        $ch = curl_init();
        foreach (['x', null] as $no) { try { @curl_setopt_array($ch, $no); } catch (Error $e) {} }
    """, "both", output=b"")
    # Where types are declared by arginfo alone, the engine refuses them before the call.
    told = 2 if engine.failed_parses_throw else 0
    assert [members(span) for span in calls(payload, "curl_setopt_array")] == [
        dict(HTTP, fn="curl_setopt_array")] * told


# The multi handle --------------------------------------------------------------------------------

@pytest.mark.parametrize("mode", list(MODES))
def test_each_transfer_is_below_the_call_that_first_saw_its_status(curl, mode):
    for number, pause in enumerate((0, 0.3, 0.6)):
        curl.server.routes["/%d" % number] = http.slow(pause, http.answers(200 + number))
    payload = curl.payload(handles(3) + """
        $call = 0; $seen = []; $deadline = microtime(true) + 10;
        do {
            curl_multi_exec($multi, $running); $call++;
            foreach ($chs as $i => $ch) {
                if (!isset($seen[$i]) && curl_getinfo($ch, CURLINFO_HTTP_CODE)) {
                    $seen[$i] = $call;
                }
            }
            curl_multi_select($multi, 0.02);
        } while ($running && microtime(true) < $deadline);
        curl_multi_exec($multi, $running); curl_multi_exec($multi, $running);
        file_put_contents(__DIR__ . '/seen.json', json_encode((object)$seen));
    """, mode, output=b"")
    seen = json.loads((curl.wire.directory / "seen.json").read_text(encoding="utf-8"))
    execs = [span["si"] for span in calls(payload, "curl_multi_exec")]
    found = {span["hn"][-1]: span for span in transfers(payload)}
    assert len(transfers(payload)) == len(found) == 3
    assert {number: execs.index(span["psi"]) + 1 for number, span in found.items()} == seen
    assert [found[number]["esc"] for number in "012"] == [200, 201, 202]
    if mode in ("trace", "both"):
        assert {http.path_of(request)[1:]: caller_of(request) for request in curl.requests} == {
            number: span["si"] for number, span in found.items()}


def test_callback_that_ends_the_script_comes_before_the_transfer_that_it_was_called_for(curl):
    source = """
        function written($ch, $text) { inner(); return strlen($text); }
        function inner() { usleep(20000); trigger_error('dies', E_USER_ERROR); }
        $multi = curl_multi_init(); $ch = curl_init("$url/a");
        curl_setopt($ch, CURLOPT_WRITEFUNCTION, 'written'); curl_multi_add_handle($multi, $ch);
    """ + FINISH
    curl.run(source, "neither", {"kaq.method_threshold": 10, "kaq.prune_intermediate_spans": 0})
    payload = curl.collector.payload
    spans = [(span["fn"], "ar" in span) for span in payload.spans]
    assert spans[-4:] == [("curl_multi_exec", False), ("written", False), ("inner", False),
                          ("curl_multi_exec", True)]
    assert [span["mo"] for span in payload.spans] == list(range(len(spans)))
    exec_id = payload.spans[-4]["si"]
    assert [span["psi"] for span in payload.spans[-3:]] == [
        exec_id, payload.spans[-3]["si"], exec_id]


def test_transfer_starts_its_total_time_before_it_is_seen(curl):
    curl.server.otherwise = http.slow(0.2, http.answers(200, body=b""))
    payload = curl.payload(handles(2) + FINISH_UNSEEN + """
        curl_multi_exec($multi, $running);
        foreach ($chs as $ch) { echo (int)(curl_getinfo($ch, CURLINFO_TOTAL_TIME) * 1000), ' '; }
        file_put_contents(__DIR__ . '/told', ob_get_contents());
    """, "neither", {"output_buffering": 4096})
    told = (curl.wire.directory / "told").read_text(encoding="utf-8").split()
    seen_by, = calls(payload, "curl_multi_exec")
    spans = transfers(payload)
    assert [span["et"] - span["st"] for span in spans] == [int(one) for one in told]
    assert all(span["et"] > span["st"] for span in spans)
    assert all(seen_by["st"] <= span["et"] <= seen_by["et"] for span in spans)


def test_status_counts_even_while_the_body_still_comes_which_is_meant(curl):
    """The rest of the body is sent once another request tells that the status was seen."""
    seen = threading.Event()
    curl.server.routes["/0"] = lambda exchange: (
        exchange.send(http.head(200, length=4) + b"ab"), seen.wait(http.CONNECTION_DEADLINE),
        exchange.send(b"cd"))
    curl.server.routes["/seen"] = lambda exchange: (seen.set(), http.answers(body=b"")(exchange))
    payload = curl.payload(handles(1) + """
        $deadline = microtime(true) + 10;
        do { curl_multi_exec($multi, $running); curl_multi_select($multi, 0.02); }
        while (!curl_getinfo($chs[0], CURLINFO_HTTP_CODE) && microtime(true) < $deadline);
        $told = curl_getinfo($chs[0], CURLINFO_TOTAL_TIME);
        usleep(50000); curl_exec(curl_init("$url/seen"));
    """ + FINISH + """
        echo curl_multi_getcontent($chs[0]);
        file_put_contents(__DIR__ . '/told',
                          $told * 1000 . ' ' . curl_getinfo($chs[0], CURLINFO_TOTAL_TIME) * 1000);
    """, "both", output=b"abcd")
    text = (curl.wire.directory / "told").read_text(encoding="utf-8")
    when_seen, in_all = (float(one) for one in text.split())
    span, = transfers(payload)
    execs = [one["si"] for one in calls(payload, "curl_multi_exec")]
    assert execs.index(span["psi"]) < len(execs) - 1
    assert span["et"] - span["st"] <= when_seen < in_all - 1


def test_transfer_without_a_status_is_never_told(curl):
    curl.server.routes["/1"] = http.resets()
    payload = curl.payload(handles(2) + "$no = curl_init('http://127.0.0.1:1/');"
                           "curl_multi_add_handle($multi, $no);" + FINISH)
    assert [span["hn"] for span in transfers(payload)] == [curl.server.url + "/0"]


def test_transfer_that_no_recorded_call_sees_is_not_told(curl):
    assert transfers(curl.payload(handles(2) + FINISH_UNSEEN)) == []


def test_each_transfer_is_told_once(curl):
    payload = curl.payload(handles(3) + FINISH + FINISH + FINISH)
    assert sorted(span["hn"][-1] for span in transfers(payload)) == ["0", "1", "2"]


def test_handle_that_is_removed_and_added_again_is_told_again(curl):
    again = """curl_multi_remove_handle($multi, $chs[0]);
               curl_multi_add_handle($multi, $chs[0]);"""
    payload = curl.payload(handles(1) + (FINISH + again) * 3 + FINISH)
    spans = transfers(payload)
    assert len(spans) == len({span["si"] for span in spans}) == 4
    assert [caller_of(request) for request in curl.requests] == [span["si"] for span in spans]


def test_multi_handles_do_not_tell_each_other_s_transfers(curl):
    payload = curl.payload(handles(1, "$url/first") + "$first = $multi;" + handles(1, "$url/second")
                           + FINISH + "$told = curl_multi_exec($first, $running);")
    assert [span["hn"] for span in transfers(payload)] == [curl.server.url + "/second"]


GOES_AWAY = {
    "handle removed": "curl_multi_remove_handle($multi, $chs[1]);",
    "multi handle closed": "curl_multi_close($multi);",
    "multi handle closed and a new one made": "curl_multi_close($multi);"
                                              "$multi = curl_multi_init();",
}


@pytest.mark.parametrize("mode", ["neither", "both"])
@pytest.mark.parametrize("kind", list(GOES_AWAY))
def test_transfer_that_nobody_saw_before_its_handle_went_is_not_told(curl, kind, mode):
    payload = curl.payload(handles(2) + FINISH_UNSEEN + GOES_AWAY[kind] + """
        try { @curl_multi_exec($multi, $running); } catch (Error $e) {}
    """, mode)
    assert [span["hn"][-1] for span in transfers(payload)] == (
        ["0"] if kind == "handle removed" else [])


def test_multi_handle_that_is_used_on_after_its_closing_tells_again(curl, engine):
    if not engine.handles_are_objects:
        pytest.skip("closed is closed here")
    payload = curl.payload(handles(1) + FINISH + "curl_multi_close($multi);"
                           "curl_multi_add_handle($multi, $chs[0]);" + FINISH)
    assert [caller_of(request) for request in curl.requests] == [
        span["si"] for span in transfers(payload)]
    assert len(curl.requests) == 2


SEEN_BY_ONE_CALL = handles(3) + FINISH_UNSEEN + "curl_multi_exec($multi, $running);"
STORED_BEFORE = 1 + 3 * 3


@pytest.mark.parametrize("left", [0, 1, 2, 3])
def test_span_limit_ends_the_walk_over_the_transfers(curl, left):
    payload = curl.payload(SEEN_BY_ONE_CALL, "neither", {"kaq.span_limit": STORED_BEFORE + left})
    assert [span["hn"][-1] for span in transfers(payload)] == list("012"[:left])
    assert len(calls(payload, "curl_multi_exec")) == (1 if left else 0)


def test_transfers_that_the_span_limit_cut_off_are_told_once_there_is_room(curl):
    payload = curl.payload(SEEN_BY_ONE_CALL + "ini_set('kaq.span_limit', '999');"
                           "curl_multi_exec($multi, $running);", "neither",
                           {"kaq.span_limit": STORED_BEFORE + 1})
    first, second = (span["si"] for span in calls(payload, "curl_multi_exec"))
    assert [span["psi"] for span in transfers(payload)] == [first, second, second]
    assert [span["hn"][-1] for span in transfers(payload)] == list("012")


def test_transfer_alone_below_its_call_is_pruned_but_two_are_not_which_is_meant(curl):
    settings = {"kaq.prune_intermediate_spans": 1}
    for count, kept in ((1, 0), (2, 2)):
        payload = curl.payload(handles(count) + FINISH_UNSEEN +
                               "curl_multi_exec($multi, $running);", "neither", settings)
        assert len(transfers(payload)) == kept
        curl.collector.forget()


def test_keys_of_transfers_are_unique_and_in_order(curl):
    payload = curl.payload(handles(5) + FINISH + "curl_multi_close($multi);")
    assert [span["mo"] for span in payload.spans] == list(range(len(payload.spans)))
    assert len({span["si"] for span in payload.spans}) == len(payload.spans)


# What is not recorded ----------------------------------------------------------------------------

@pytest.mark.parametrize("how", [one for one in UNRECORDED if one != "unmonitored"])
def test_nothing_is_recorded_nor_sent(curl, how):
    payload = curl.payload(EVERY_FUNCTION, how)
    assert payload.names == []
    assert [trace_lines(request) for request in curl.requests] == [[], []]


@pytest.mark.parametrize("name", ["curl_getinfo", "iterator_to_array", "curl_setopt",
                                  "kaq_store_curl_response_headers"])
@pytest.mark.parametrize("mode", list(MODES))
def test_script_does_not_notice_that_a_function_we_call_is_disabled(curl, name, mode):
    lists = "new ArrayIterator(['A: 1'])" if name == "iterator_to_array" else "['A: 1']"
    run = curl.run("""
        set_error_handler(function ($level, $text) { echo "[$text]"; return true; });
        $ch = curl_init("$url/a");
        curl_setopt_array($ch, [CURLOPT_RETURNTRANSFER => 1, CURLOPT_URL => "$url/b"]);
        try { curl_setopt_array($ch, [CURLOPT_HTTPHEADER => %s]); } catch (TypeError $e) {}
        echo curl_exec($ch); $multi = curl_multi_init(); curl_multi_add_handle($multi, $ch);
    """ % lists + FINISH, mode, {"disable_functions": name})
    assert (run.result.stdout, run.result.status) == (b"hello", 0)
    span = curl.collector.payload.span("curl_exec")
    if name == "curl_getinfo":
        assert span["ie"] == 1 and "esc" not in span and "hn" not in span
        assert transfers(curl.collector.payload) == []
    else:
        assert span["esc"] == 200
    if name == "curl_setopt":
        assert [trace_lines(request) for request in run.requests] == [[], []]
        assert [request.headers[-1] for request in run.requests] == ["A: 1", "A: 1"]
