"""The trace context that a web request brings along, at every interface that passes headers on."""
import json

import pytest
import services
from payloads import HEX32
from services import KEY

TRACE, PARENT = "0af7651916cd43dd8448eb211c80319c", "b7ad6b7169203331"
TRACEPARENT = "00-%s-%s-01" % (TRACE, PARENT)
SAME_ACCOUNT = ("X-Skelvor-Id", KEY[-12:])
OWN_APPLICATION = "shop-1"

# Tells what the script finds, and what a call of its own carries.
PAGE = services.CALLS + """
$error = json_last_error();
$sent = isset($_GET['call']) ? json_decode(curl_exec(open_call($_GET['call'])), true) : null;
echo json_encode([
    'error' => $error, 'heard' => function_exists('getallheaders') ? getallheaders() : [],
    'sent' => $sent]);
"""


def entered(engine, directory, kind):
    return services.Service(engine, directory, kind, PAGE, app_id=OWN_APPLICATION, key=KEY)


def pytest_generate_tests(metafunc):
    if "entry" in metafunc.fixturenames:
        metafunc.parametrize("entry", services.interfaces_with_request_headers(), indirect=True,
                             scope="module")


@pytest.fixture(scope="module")
def entry(request, engine, tmp_path_factory):
    """One process for all tests, so that what a request leaves behind shows in the next one."""
    started = entered(engine, tmp_path_factory.mktemp("entry"), request.param)
    yield started
    started.close()


def flow_of(payload):
    """(flow, async) as the payload tells them; a flow that is left out is None."""
    return payload.origin.get("flow"), payload.origin["async"]


def is_new(payload, *values):
    """A trace of its own, with no caller, that none of the values has in it."""
    seen = payload.trace_id
    return (HEX32.match(seen) and payload.parent is None and
            not any(seen in value for value in values))


# traceparent -------------------------------------------------------------------------------------

@pytest.mark.parametrize("value", [
    TRACEPARENT, TRACEPARENT[:-2] + "00", "ff" + TRACEPARENT[2:], TRACEPARENT.upper(),
    TRACEPARENT.replace("-", "_"), "00-%s-%s-01" % ("0" * 32, "0" * 16),
    "zz+" + "no hexadecimal digits, 32 of them"[:32] + "+" + "sixteen chars ok" + "+++"])
def test_value_of_55_characters_is_taken_apart_by_position_which_is_meant(entry, value):
    assert len(value) == 55
    payload, _ = entry.ask(headers=[("Traceparent", value)])
    assert (payload.trace_id, payload.parent) == (value[3:35], value[36:52])


@pytest.mark.parametrize("value", [
    TRACEPARENT[:-1], TRACEPARENT + "1", TRACEPARENT + "-extra", TRACEPARENT * 2, TRACE, "", "0",
    "0" * 4000], ids=lambda value: value[:60])
def test_value_of_any_other_length_starts_a_new_trace(entry, value):
    entry.ask(headers=[("Traceparent", TRACEPARENT)])
    payload, _ = entry.ask(headers=[("Traceparent", value)])
    assert is_new(payload, TRACEPARENT, value)


def test_request_without_the_header_starts_a_new_trace_each_time(entry):
    entry.ask(headers=[("Traceparent", TRACEPARENT)])
    found = [entry.ask()[0] for _ in range(3)]
    assert all(is_new(payload, TRACEPARENT) for payload in found)
    assert len({payload.trace_id for payload in found}) == 3


def both_spellings(entry, lower, capital):
    """The payload of a request that brings both. Over FastCGI a variable may have any name."""
    headers = [("Traceparent", capital)]
    if entry.speaks_http:
        payload, body = entry.ask(headers=headers + [("traceparent", lower)])
    else:
        payload, body = entry.ask(headers=headers, HTTP_traceparent=lower)
    # The web server of some engines merges the two, and what it hands over may be freed by then.
    heard = json.loads(body)["heard"] if body.startswith(b"{") else {}
    if (heard.get("traceparent"), heard.get("Traceparent")) != (lower, capital):
        assert entry.speaks_http, heard
        pytest.skip("this engine's server does not keep both spellings apart")
    return payload


def test_lower_case_header_wins_over_the_capitalised_one(entry):
    payload = both_spellings(entry, TRACEPARENT, "00-%s-%s-01" % ("c" * 32, "d" * 16))
    assert (payload.trace_id, payload.parent) == (TRACE, PARENT)


@pytest.mark.parametrize("lower", [TRACEPARENT[:-1], "x"])
def test_lower_case_header_of_a_wrong_length_is_not_made_up_for_by_the_other(entry, lower):
    assert is_new(both_spellings(entry, lower, TRACEPARENT), TRACEPARENT)


@pytest.mark.parametrize("name,taken", [
    ("traceparent", True), ("Traceparent", True), ("TRACEPARENT", False), ("TraceParent", False),
    ("traceParent", False), ("X-Traceparent", False), ("trace-parent", False)])
def test_header_is_known_by_two_exact_names_only(engine, tmp_path, name, taken):
    service = entered(engine, tmp_path, "builtin")
    try:
        payload, body = service.ask(headers=[(name, TRACEPARENT)])
    finally:
        service.close()
    assert json.loads(body)["heard"][name] == TRACEPARENT
    assert (payload.trace_id == TRACE, payload.parent == PARENT) == (taken, taken)
    assert taken or is_new(payload, TRACEPARENT)


def test_value_is_measured_in_bytes(entry):
    if entry.speaks_http:
        pytest.skip("the client sends no such bytes")
    value = "00-" + "\u00e9" * 16 + "-" + "\u00e9" * 8 + "-01"
    payload, _ = entry.ask(HTTP_TRACEPARENT=value)
    assert (payload.trace_id, payload.parent) == ("\u00e9" * 16, "\u00e9" * 8)


# X-Skelvor-Id ------------------------------------------------------------------------------------

FLOW = ("X-Skelvor-Origin", '{"flow":"a1;","async":true}')


def test_flow_of_the_same_account_is_taken_over(entry):
    payload, _ = entry.ask(headers=[SAME_ACCOUNT, FLOW])
    assert '"origin":{,"async":true,"flow":"a1;"}' in payload.text


@pytest.mark.parametrize("identifier", [
    None, "", KEY, KEY[-11:], KEY[-13:], KEY[:12], KEY[-12:].lower(), KEY[-12:].upper(),
    KEY[-12:] + "x", KEY[-12:-1] + "n", "another-acct", "1", "true"])
def test_flow_of_another_account_is_ignored(entry, identifier):
    entry.ask(headers=[SAME_ACCOUNT, FLOW])
    account = [] if identifier is None else [("X-Skelvor-Id", identifier)]
    payload, _ = entry.ask(headers=[*account, FLOW, ("Traceparent", TRACEPARENT)])
    assert '"origin":{"async":false}' in payload.text
    assert (payload.trace_id, payload.parent) == (TRACE, PARENT)


@pytest.mark.parametrize("account,origin", [
    ("x-skelvor-id", "X-Skelvor-Origin"), ("X-SKELVOR-ID", "X-Skelvor-Origin"),
    ("X-Skelvor-ID", "X-Skelvor-Origin"), ("X-Skelvor-Id", "x-skelvor-origin"),
    ("X-Skelvor-Id", "X-SKELVOR-ORIGIN")])
def test_account_and_origin_are_known_by_one_exact_name_each(engine, tmp_path, account, origin):
    service = entered(engine, tmp_path, "builtin")
    try:
        payload, body = service.ask(headers=[(account, KEY[-12:]), (origin, FLOW[1])])
        known, _ = service.ask(headers=[SAME_ACCOUNT, FLOW])
    finally:
        service.close()
    assert json.loads(body)["heard"] == {account: KEY[-12:], origin: FLOW[1]}
    assert flow_of(payload) == (None, False)
    assert flow_of(known) == ("a1;", True)


# X-Skelvor-Origin --------------------------------------------------------------------------------

@pytest.mark.parametrize("value,flow,asynchronous", [
    ('{"flow":"a1;"}', "a1;", False),
    ('{"flow":"a1;b2;c3;"}', "a1;b2;c3;", False),
    ('{"flow":"a1;","async":true}', "a1;", True),
    ('{"async":true,"flow":"a1;"}', "a1;", True),
    ('{"async":true}', None, True),
    ('{"flow":"a1;","async":false}', "a1;", False),
    ('{"flow":"a1;","async":1}', "a1;", False),
    ('{"flow":"a1;","async":1.0}', "a1;", False),
    ('{"flow":"a1;","async":"true"}', "a1;", False),
    ('{"flow":"a1;","async":"1"}', "a1;", False),
    ('{"flow":"a1;","async":[true]}', "a1;", False),
    ('{"flow":"a1;","async":{"async":true}}', "a1;", False),
    ('{"flow":"a1;","async":null}', "a1;", False),
    ('{"flow":7,"async":true}', None, True),
    ('{"flow":null,"async":true}', None, True),
    ('{"flow":true,"async":true}', None, True),
    ('{"flow":["a1;"],"async":true}', None, True),
    ('{"flow":{"flow":"a1;"},"async":true}', None, True),
    ('{"flow":"","async":true}', None, True),
    ('{"Flow":"a1;","Async":true}', None, False),
    ('{"flow ":"a1;"," async":true}', None, False),
    ('{"flow":"old;","flow":"a1;"}', "a1;", False),
    ('{ "flow" : "a1;" , "async" : true }', "a1;", True),
    ('{"more":{"flow":"x"},"flow":"a1;","list":[1,2]}', "a1;", False),
    ('{"flow":"no separator"}', "no separator", False),
    ('{"flow":"\\u0061\\u00e9\\/;"}', "a\u00e9/;", False),
    ('{"flow":"%s"}' % ("a1;" * 1000), "a1;" * 1000, False),
    ('{"flow":"a1;","more":%s1%s}' % ("[" * 31, "]" * 31), "a1;", False),
    ('{"flow":"a1;","more":[%s1]}' % ("1," * 1000), "a1;", False),
    ('{}', None, False)], ids=lambda value: str(value)[:40])
def test_flow_and_async_are_read_from_the_object(entry, value, flow, asynchronous):
    payload, body = entry.ask(headers=[SAME_ACCOUNT, ("X-Skelvor-Origin", value)])
    assert flow_of(payload) == (flow, asynchronous)
    assert json.loads(body)["error"] == 0


@pytest.mark.parametrize("value", [
    "", "a1;", "flow", '{"flow":"a1;"', '"flow":"a1;"}', "{'flow':'a1;'}", '{flow:"a1;"}',
    '{"flow":"a1;"} {}', '{"flow":"a1;",}', '{"flow":"a1;","async":True}', '{"flow":"\\x41;"}',
    '{"flow":"\\ud800;"}', '{"\\u0000x":1,"flow":"a1;"}',
    '{"flow":"a1;","deep":%s%s}' % ("[" * 600, "]" * 600),
    '{"flow":"a1;","deep":%s%s}' % ("[" * 32, "]" * 32),
    '{"flow":"a1;","many":[%s1]}' % ("1," * 1100),
    "[]", '["flow","a1;"]', '[{"flow":"a1;","async":true}]', '"flow"',
    '"{\\"flow\\":\\"a1;\\"}"', "7", "-1.5", "true", "false", "null"],
    ids=lambda value: value[:40])
def test_origin_that_is_no_object_or_dear_to_decode_changes_nothing_and_is_not_reported(
        entry, value):
    payload, body = entry.ask(headers=[
        SAME_ACCOUNT, ("X-Skelvor-Origin", value), ("Traceparent", TRACEPARENT)])
    assert flow_of(payload) == (None, False)
    assert (payload.trace_id, payload.parent) == (TRACE, PARENT)
    assert json.loads(body)["error"] == 0
    assert "ei" not in payload.root, "the bad text shows as an error of the script's"


def test_flow_and_async_of_one_request_are_gone_in_the_next(entry):
    entry.ask(headers=[SAME_ACCOUNT, FLOW, ("Traceparent", TRACEPARENT)])
    payload, _ = entry.ask(headers=[SAME_ACCOUNT])
    assert flow_of(payload) == (None, False) and is_new(payload, TRACEPARENT)


# Background requests -----------------------------------------------------------------------------

def test_background_request_after_a_web_request_has_no_caller_and_reads_no_headers(entry):
    if entry.speaks_http:
        pytest.skip("every request of this server has a URI")
    headers = [SAME_ACCOUNT, FLOW, ("Traceparent", TRACEPARENT)]
    web, _ = entry.ask(headers=headers)
    assert (web.parent, flow_of(web)) == (PARENT, ("a1;", True))
    background, body = entry.ask(headers=headers, REQUEST_URI=None)
    assert json.loads(body)["heard"]["Traceparent"] == TRACEPARENT
    assert background.transaction["transaction_type"] == 0
    assert is_new(background, TRACEPARENT)
    assert '"origin":{"async":false}' in background.text


def test_command_line_run_reads_no_headers(wire, collector):
    variables = {"HTTP_TRACEPARENT": TRACEPARENT, "HTTP_X_SKELVOR_ID": KEY[-12:],
                 "HTTP_X_SKELVOR_ORIGIN": FLOW[1], "KAQ_ACCOUNT_KEY": KEY}
    wire.cli(env=variables)
    payload = services.Payload(collector.payload.raw)
    assert is_new(payload, TRACEPARENT) and flow_of(payload) == (None, False)


# Engines whose server interface hands no headers over --------------------------------------------

def test_fpm_of_an_engine_without_the_function_starts_new_traces(engine, echo, tmp_path):
    if engine.fpm_has_getallheaders:
        pytest.skip("this engine's FPM hands the headers over")
    service = entered(engine, tmp_path, "fpm")
    try:
        payload, body = service.ask("/?call=" + echo.url, headers=[
            SAME_ACCOUNT, FLOW, ("Traceparent", TRACEPARENT)])
    finally:
        service.close()
    assert is_new(payload, TRACEPARENT) and flow_of(payload) == (None, False)
    sent = json.loads(body)["sent"]
    assert sent["traceparent"] == "00-%s-%s-01" % (payload.trace_id, payload.ids_of("curl_exec")[0])
    assert json.loads(sent["X-Skelvor-Origin"]) == {"flow": OWN_APPLICATION + ";"}


# What goes on from here --------------------------------------------------------------------------

def call_from(entry, echo, value):
    """The headers of a call out of a request that came with this origin."""
    payload, body = entry.ask("/?call=" + echo.url, headers=[
        SAME_ACCOUNT, ("X-Skelvor-Origin", value), ("Traceparent", TRACEPARENT)])
    return payload, json.loads(body)["sent"]


@pytest.mark.parametrize("value,sent", [
    ('{"flow":"a1;"}', '{"flow":"a1;shop-1;"}'), ('{"flow":"a1;b2;"}', '{"flow":"a1;b2;shop-1;"}'),
    ('{"flow":"a1;","async":true}', '{"flow":"shop-1;"}'), ('{"flow":""}', '{"flow":"shop-1;"}'),
    ('{"flow":7}', '{"flow":"shop-1;"}'), ("bad", '{"flow":"shop-1;"}')])
def test_call_extends_the_flow_or_begins_it_anew(entry, echo, value, sent):
    payload, headers = call_from(entry, echo, value)
    assert headers["X-Skelvor-Id"] == KEY[-12:]
    assert headers["traceparent"] == "00-%s-%s-01" % (TRACE, payload.ids_of("curl_exec")[0])
    assert headers["X-Skelvor-Origin"] == sent


@pytest.mark.parametrize("at", [2, 3, 34], ids=["version", "first digit", "last digit"])
def test_caller_with_control_characters_is_reported_but_not_passed_on_which_is_meant(
        entry, echo, at):
    """The version is not taken over, so that nothing of it can be wrong."""
    value = TRACEPARENT[:at] + "\t" + TRACEPARENT[at + 1:]
    payload, body = entry.ask("/?call=" + echo.url, headers=[("Traceparent", value)])
    assert (payload.trace_id, payload.parent) == (value[3:35], PARENT)
    assert ("traceparent" in json.loads(body)["sent"]) == (at < 3)


@pytest.mark.parametrize("escaped", [
    "A\\r\\nEvil: 1", "A\\nEvil: 1", "A\\rEvil: 1", "\\r\\nEvil: 1\\r\\n",
    "A;\\u000d\\u000aEvil: 1",
    "A\\r\\n\\r\\nGET /evil HTTP/1.1\\r\\nEvil: 1\\r\\n\\r\\n", "A\\tB", "A\\u0001B", "A\\u007fB",
    "A\\u001f"])
def test_flow_with_control_characters_makes_no_header_line_of_its_own(entry, echo, escaped):
    _, headers = call_from(entry, echo, '{"flow":"%s"}' % escaped)
    assert not any("evil" in (name + value).lower() for name, value in headers.items())
    assert headers["X-Skelvor-Origin"] == '{"flow":"%s;"}' % OWN_APPLICATION


def test_flow_with_a_nul_leads_to_a_call_all_the_same(entry, echo):
    _, headers = call_from(entry, echo, '{"flow":"A;\\u0000Evil: 1"}')
    assert headers["X-Skelvor-Id"] == KEY[-12:]
    assert headers["X-Skelvor-Origin"].endswith(OWN_APPLICATION + ';"}')
    assert "Evil" not in headers["X-Skelvor-Origin"]
