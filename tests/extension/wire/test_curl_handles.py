"""Numbers of handles come again after a handle is gone; what was known of it must not."""
import pytest
from curl_runs import FINISH, caller_of, calls, curl, server, trace_lines, transfers
import http_server as http

__all__ = ["curl", "server"]

NEW = """
    $number = function ($handle) {
        return is_object($handle) ? spl_object_id($handle) : (int)$handle; };
"""
# Ways to let go of $ch or $multi so that its number is free again.
GONE = {"unset": "unset(%s);", "closed and unset": "%s_close(%s); unset(%s);",
        "overwritten": "%s = null;"}
FRESH = {"curl_init": "curl_init(\"$url/fresh\")",
         "curl_copy_handle": "curl_copy_handle($other)"}


def gone(how, variable):
    if how.startswith("closed"):
        close = "curl_multi" if variable == "$multi" else "curl"
        return GONE[how] % (close, variable, variable)
    return GONE[how] % variable


def same_number(engine):
    """PHP that ends the script loudly unless the number did come again, where it can."""
    if not engine.handles_are_objects:
        return ""
    return "if ($number(%s) !== $old) { echo 'other number'; exit(1); }"


def reuse(engine, before, how, fresh, after, variable="$ch"):
    """before() works with $ch (or $multi), which then makes room for a fresh one."""
    check = same_number(engine)
    return NEW + "$other = curl_init(\"$url/fresh\");" + before + (
        "$old = $number(%s);" % variable) + gone(how, variable) + "%s = %s;" % (
            variable, fresh) + (check % variable if check else "") + after


@pytest.mark.parametrize("mode", ["trace", "headers", "both"])
@pytest.mark.parametrize("fresh", list(FRESH))
@pytest.mark.parametrize("how", list(GONE))
def test_fresh_handle_has_no_header_list(curl, engine, how, fresh, mode):
    run = curl.run(reuse(engine, """
        $ch = curl_init("$url/old"); curl_setopt($ch, CURLOPT_HTTPHEADER, ['Old: 1']);
    """, how, FRESH[fresh], "curl_exec($ch);"), mode)
    assert run.result.status == 0, run.result
    request, = run.requests
    assert http.path_of(request) == "/fresh"
    assert not [line for line in request.headers if line.startswith("Old")]
    assert set(curl.collector.payload.span("curl_exec").get("erqh", {})) <= {"traceparent"}


@pytest.mark.parametrize("mode", ["trace", "both"])
@pytest.mark.parametrize("fresh", list(FRESH))
@pytest.mark.parametrize("how", list(GONE))
def test_fresh_handle_has_no_trace_headers_of_the_one_before(curl, engine, how, fresh, mode):
    run = curl.run(reuse(engine, """
        $ch = curl_init("$url/old"); curl_setopt($ch, CURLOPT_HTTPHEADER, ['Old: 1']);
        curl_exec($ch);
    """, how, FRESH[fresh], """
        ini_set('kaq.capture_distributed_trace', '0'); curl_exec($ch);
        ini_set('kaq.capture_distributed_trace', '1'); curl_exec($ch);
    """), mode)
    old, silent, fresh_one = run.requests
    assert trace_lines(silent) == [] and "Old: 1" not in silent.headers + fresh_one.headers
    spans = calls(curl.collector.payload, "curl_exec")
    assert [caller_of(old), caller_of(fresh_one)] == [spans[0]["si"], spans[2]["si"]]


@pytest.mark.parametrize("fresh", list(FRESH))
@pytest.mark.parametrize("how", list(GONE))
def test_fresh_handle_has_no_response_headers(curl, engine, how, fresh):
    """The one before got its headers in a transfer that no span told of."""
    curl.server.routes["/old"] = http.answers(200, ["Old: 1"])
    payload = curl.payload(reuse(engine, """
        $ch = curl_init("$url/old"); ini_set('kaq.track_zend_execute_internal', '0');
        curl_exec($ch); ini_set('kaq.track_zend_execute_internal', '1');
    """, how, FRESH[fresh], "curl_exec($ch);"), "headers")
    assert payload.span("curl_exec")["ersh"] == {"Content-Length": "5\r\n"}


RUN_UNSEEN = "ini_set('kaq.track_zend_execute_internal', '0');" + FINISH + \
             "ini_set('kaq.track_zend_execute_internal', '1');"


@pytest.mark.parametrize("mode", ["neither", "both"])
@pytest.mark.parametrize("fresh", list(FRESH))
@pytest.mark.parametrize("how", list(GONE))
def test_fresh_handle_is_not_taken_for_one_that_was_told(curl, engine, how, fresh, mode):
    """The one before ends told of, still attached or not."""
    payload = curl.payload(reuse(engine, """
        $multi = curl_multi_init(); $ch = curl_init("$url/old");
        curl_multi_add_handle($multi, $ch);
    """ + FINISH + "curl_multi_remove_handle($multi, $ch);", how, FRESH[fresh],
                                 "curl_multi_add_handle($multi, $ch);" + FINISH), mode)
    assert [span["hn"].rpartition("/")[2] for span in transfers(payload)] == ["old", "fresh"]
    assert len({span["si"] for span in transfers(payload)}) == 2
    if mode == "both":
        assert [caller_of(request) for request in curl.requests] == [
            span["si"] for span in transfers(payload)]


@pytest.mark.parametrize("fresh", list(FRESH))
@pytest.mark.parametrize("how", list(GONE))
def test_fresh_handle_has_a_span_identifier_of_its_own(curl, engine, how, fresh):
    """The one before was attached, never ran, and left its identifier behind."""
    payload = curl.payload(reuse(engine, """
        $multi = curl_multi_init(); $ch = curl_init("$url/old");
        curl_multi_add_handle($multi, $ch); curl_multi_remove_handle($multi, $ch);
    """, how, FRESH[fresh], "curl_multi_add_handle($multi, $ch);" + FINISH), "trace")
    span, = transfers(payload)
    assert caller_of(curl.requests[0]) == span["si"]


@pytest.mark.parametrize("mode", ["neither", "trace", "both"])
@pytest.mark.parametrize("how", list(GONE))
def test_fresh_multi_handle_has_no_transfers_of_the_one_before(curl, engine, how, mode):
    payload = curl.payload(reuse(engine, """
        $ch = curl_init("$url/old"); $multi = curl_multi_init();
        curl_multi_add_handle($multi, $ch);
    """ + RUN_UNSEEN, how, "curl_multi_init()", """
        $new = curl_init("$url/fresh"); curl_multi_add_handle($multi, $new);
    """ + FINISH, "$multi"), mode)
    assert [span["hn"].rpartition("/")[2] for span in transfers(payload)] == ["fresh"]


@pytest.mark.parametrize("mode", ["neither", "trace", "both"])
@pytest.mark.parametrize("removed", [True, False], ids=["removed", "still attached"])
@pytest.mark.parametrize("how", list(GONE))
def test_fresh_multi_handle_knows_of_nothing_told(curl, engine, how, removed, mode):
    payload = curl.payload(reuse(engine, """
        $ch = curl_init("$url/a"); $multi = curl_multi_init();
        curl_multi_add_handle($multi, $ch);
    """ + FINISH + ("curl_multi_remove_handle($multi, $ch);" if removed else ""), how,
                                 "curl_multi_init()", "curl_multi_add_handle($multi, $ch);"
                                 + FINISH, "$multi"), mode)
    assert len(transfers(payload)) == len({span["si"] for span in transfers(payload)}) == 2


def test_many_handles_one_after_another(curl):
    payload = curl.payload("""
        for ($i = 0; $i < 200; $i++) {
            $ch = curl_init("$url/a"); curl_setopt($ch, CURLOPT_RETURNTRANSFER, 1);
            if ($i % 2) { curl_setopt($ch, CURLOPT_HTTPHEADER, ["N: $i"]); }
            curl_exec($ch); if ($i % 3) { @curl_close($ch); } unset($ch);
        }
    """, output=b"")
    spans = calls(payload, "curl_exec")
    for number, (request, span) in enumerate(zip(curl.requests, spans)):
        assert caller_of(request) == span["si"] and len(trace_lines(request)) == 2
        assert (request.headers[-1] == "N: %d" % number) == bool(number % 2)
        assert span.get("erqh", {}).get("N") == (str(number) if number % 2 else None)


@pytest.mark.parametrize("refused", ["add", "remove"])
def test_refusal_of_another_multi_handle_changes_nothing(curl, refused):
    payload = curl.payload("""
        $ch = curl_init("$url/a"); curl_setopt($ch, CURLOPT_RETURNTRANSFER, 1);
        $multi = curl_multi_init(); $other = curl_multi_init(); curl_multi_add_handle($multi, $ch);
        echo (int)(curl_multi_%s_handle($other, $ch) !== 0);
    """ % refused + FINISH + "curl_multi_exec($other, $running);", output=b"1")
    request, = curl.requests
    span, = transfers(payload)
    assert caller_of(request) == span["si"]


def test_removal_that_is_refused_within_a_callback_changes_nothing(curl):
    payload = curl.payload("""
        $ch = curl_init("$url/a"); $multi = curl_multi_init(); $codes = [];
        curl_setopt($ch, CURLOPT_WRITEFUNCTION, function ($ch, $data) use ($multi, &$codes) {
            $codes[] = curl_multi_remove_handle($multi, $ch); return strlen($data);
        });
        curl_multi_add_handle($multi, $ch);
    """ + FINISH + "echo (int)($codes && !in_array(0, $codes, true));", output=b"1")
    request, = curl.requests
    span, = transfers(payload)
    assert caller_of(request) == span["si"]


def test_memory_does_not_grow_with_handles_that_are_gone(curl, engine):
    """Where a handle's number comes again, so does the room for what is known of it."""
    if not engine.handles_are_objects or not engine.keeps_memory_limit:
        pytest.skip("numbers do not come again here, or memory is not the engine's")
    source = """
        function turn($url) {
            $ch = curl_init("$url/a"); curl_setopt($ch, CURLOPT_RETURNTRANSFER, 1);
            curl_setopt($ch, CURLOPT_HTTPHEADER, [str_repeat('A', 1000) . ': 1']);
            $multi = curl_multi_init(); curl_multi_add_handle($multi, $ch);
            curl_multi_remove_handle($multi, $ch);
        }
        ini_set('kaq.span_limit', '0'); for ($i = 0; $i < 5; $i++) { turn($url); }
        ini_set('kaq.span_limit', '100000000'); for ($i = 0; $i < 5; $i++) { turn($url); }
        $before = memory_get_usage(); for ($i = 0; $i < 300; $i++) { turn($url); }
        echo memory_get_usage() - $before;
    """
    run = curl.run(source)
    assert int(run.result.stdout) < 100000, run.result


def test_another_request_of_the_process_knows_nothing(curl, worker, collector):
    worker.wire.options = _like(curl, worker.wire.options)
    collector.reply = curl.reply
    worker.open(curl.prelude + """
        $ch = curl_init("$url/a"); curl_setopt($ch, CURLOPT_RETURNTRANSFER, 1);
        $multi = curl_multi_init();
        if ($_GET['q'] === 'first') {
            curl_setopt($ch, CURLOPT_HTTPHEADER, ['Old: 1']); curl_multi_add_handle($multi, $ch);
            %s
        }
        curl_exec($ch); curl_multi_add_handle($multi, $ch); %s
    """ % (FINISH, FINISH))
    for _ in range(2):
        worker.get("/?q=first")
        curl.server.forget()
        collector.forget()
        worker.get("/?q=second")
        assert len(curl.server.requests) == 2
        for request in curl.server.forget():
            assert "Old: 1" not in request.headers
        assert len(transfers(collector.payload)) == 1
        collector.forget()


def _like(curl, options):
    given = curl.options("both", {}, True)
    return lambda *arguments, **more: given
