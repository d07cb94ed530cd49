"""What each answer of the status port leads to."""
import json

import pytest
from fake_collector import DISABLED_NOTICE, ENABLED

WRONG_TYPES = [None, True, False, 7, -1, 2.5, [], ["text"], {}, {"a": "b"}]
STRING_KEYS = ["instance.id", "normalised.txn.name", "app.id", "webtransaction.rum.snippet"]


def is_monitored(collector):
    collector.settle()
    assert len(collector.data_records) == 1
    record = collector.data_records[0]
    if record.is_notice:
        assert record.text == DISABLED_NOTICE
    return not record.is_notice


@pytest.mark.parametrize("reply", [
    {"instance.id": "i1", "instance.status": 920},
    {"instance.id": "i1", "instance.status": 911},
    {"instance.status": 920, "instance.id": "0"},
    {"instance.id": " ", "instance.status": 920, "unknown": {"deep": [1, 2]}},
], ids=str)
def test_reply_that_enables(wire, collector, reply):
    collector.reply = reply
    wire.cli()
    assert is_monitored(collector)
    assert collector.payload.application["instance_id"] == reply["instance.id"]


@pytest.mark.parametrize("reply", [
    {"instance.id": "", "instance.status": 920},
    {"instance.status": 920},
    {"instance.id": None, "instance.status": 920},
    {"instance.id": 5, "instance.status": 920},
    {"instance.id": ["i1"], "instance.status": 920},
    {"instance.id": "i1"},
    {"instance.id": "i1", "instance.status": 0},
    {"instance.id": "i1", "instance.status": 1},
    {"instance.id": "i1", "instance.status": 919},
    {"instance.id": "i1", "instance.status": 921},
    {"instance.id": "i1", "instance.status": -920},
    {"instance.id": "i1", "instance.status": 920 + (1 << 32)},
    {"instance.id": "i1", "instance.status": "920"},
    {"instance.id": "i1", "instance.status": "911"},
    {"instance.id": "i1", "instance.status": 920.0},
    {"instance.id": "i1", "instance.status": True},
    {"instance.id": "i1", "instance.status": None},
    {"instance.id": "i1", "instance.status": [920]},
    {"instance.id": "i1", "instance.status": {"920": 920}},
    {"Instance.Id": "i1", "Instance.Status": 920},
    {"instance": {"id": "i1", "status": 920}},
    {},
], ids=str)
def test_reply_that_does_not_enable(wire, collector, reply):
    collector.reply = reply
    wire.cli()
    assert not is_monitored(collector)


@pytest.mark.parametrize("raw", [
    b"", b" ", b"\n", b"null", b"true", b"920", b"920.0", b'"text"', b"[]", b"[920]",
    b'[{"instance.id":"i1","instance.status":920}]', b"{", b"}", b"not json",
    b'{"instance.id":"i1","instance.status":920', b'{"instance.id":"i1","instance.status":920}}',
    b'{"instance.id":"i1","instance.status":920} x', b"{'instance.id':'i1'}",
    b'{"instance.id":"\xff","instance.status":920}', b"\x00\x01\x02", b"\xff" * 300,
    b'{"a":' * 600 + b"1" + b"}" * 600, b'{"":1}', b'{"\\u0000a":1}',
    b"HTTP/1.1 200 OK\r\nContent-Length: 0\r\n\r\n",
], ids=lambda raw: repr(raw[:40]))
def test_reply_that_is_no_json_object_counts_as_empty_and_is_not_noticed_by_the_script(
        wire, collector, raw):
    collector.reply = raw
    wire.same_as_bare(
        wire.cli, source="echo json_last_error(); var_dump(error_get_last(), new stdClass);")
    assert not is_monitored(collector)


def enabling_with(member):
    """A reply that enables, with one more member as its text."""
    return json.dumps(ENABLED).encode()[:-1] + b"," + member + b"}"


def members(count):
    return b",".join(b'"member%d":1' % i for i in range(count))


def text_member(content):
    return b'"webtransaction.rum.snippet":"' + content + b'"'


@pytest.mark.parametrize("member", [
    b'"more":' + b"[" * 31 + b"]" * 31, b'"more":' + b'{"a":' * 31 + b"1" + b"}" * 31,
    b'"more":[' + b"1," * 1000 + b"1]", members(500), b'"' + b"k" * 32000 + b'":1',
    b'"more":' + b"7" * 32000, b" " * 32000 + b'"more":1', text_member(b"x" * 5000000),
    text_member(b"caf\xc3\xa9 " * 700000), text_member(b"\\n" * 190000),
    text_member(b'var a = \\"x\\"; // a line of a script\\n' * 60000),
], ids=lambda member: repr(member[:40]))
def test_reply_that_is_long_or_a_little_nested_is_taken(wire, collector, member):
    collector.reply = enabling_with(member)
    wire.cli()
    assert is_monitored(collector)


@pytest.mark.parametrize("member", [
    b'"more":' + b"[" * 32 + b"]" * 32, b'"more":' + b'{"a":' * 32 + b"1" + b"}" * 32,
    b'"more":[' + b"1," * 1100 + b"1]", members(600), b'"a":1,' * 600 + b'"a":1',
    b'"more":[' + b"[]," * 1000000 + b"1]", b'"' + b"k" * 33000 + b'":1',
    b'"more":' + b"7" * 33000, b" " * 33000 + b'"more":1', text_member(b"\\n" * 200000),
], ids=lambda member: repr(member[:40]))
def test_reply_that_is_dear_to_decode_counts_as_empty_and_is_not_noticed_by_the_script(
        wire, collector, member):
    collector.reply = enabling_with(member)
    wire.same_as_bare(
        wire.cli, source="echo json_last_error(); var_dump(error_get_last(), new stdClass);")
    assert not is_monitored(collector)


def test_memory_for_a_reply_is_in_proportion_to_its_length(wire, collector):
    for member in (b'"more":[' + b"[1]," * 1000000 + b"1]", text_member(b"x" * 4000000)):
        collector.reply = enabling_with(member)
        assert int(wire.cli("echo memory_get_peak_usage(true);").stdout) < 20 << 20


def test_reply_ends_at_its_first_nul_byte(wire, collector):
    collector.reply = json.dumps(ENABLED).encode() + b"\0" + b"{broken"
    wire.cli()
    assert is_monitored(collector)


def test_reply_may_be_surrounded_by_white_space(wire, collector):
    collector.reply = b" \r\n\t" + json.dumps(ENABLED).encode() + b"\r\n"
    wire.cli()
    assert is_monitored(collector)


@pytest.mark.parametrize("identifier", [
    'quote " solidus / backslash \\', "caf\u00e9", "tab\t", "x" * 5000])
def test_instance_id_goes_back_escaped_in_the_payload(wire, collector, identifier):
    collector.reply = {"instance.id": identifier, "instance.status": 920}
    wire.cli()
    assert collector.payload.application["instance_id"] == identifier


def test_normalised_name_is_a_member_right_after_t_name(wire, collector):
    collector.reply = dict(ENABLED, **{"normalised.txn.name": "GET /cart/{id}"})
    wire.cli()
    assert list(collector.payload.transaction)[:3] == [
        "t_name", "normalised_tname", "http_query_str"]
    assert '"normalised_tname":"GET \\/cart\\/{id}",' in collector.payload.text


@pytest.mark.parametrize("value", ["", *WRONG_TYPES], ids=repr)
def test_normalised_name_that_is_empty_or_no_string_is_left_out(wire, collector, value):
    collector.reply = dict(ENABLED, **{"normalised.txn.name": value})
    wire.cli()
    assert "normalised_tname" not in collector.payload.transaction


@pytest.mark.parametrize("key", STRING_KEYS + [
    "instance.status", "transaction.trace.sql.stacktrace.threshold"])
@pytest.mark.parametrize("value", WRONG_TYPES, ids=repr)
def test_wrong_type_of_any_key_leaves_the_script_alone(wire, collector, key, value):
    collector.reply = dict(ENABLED, **{key: value})
    result = wire.cli("echo json_last_error(); var_dump(error_get_last()); exit(4);")
    assert (result.stdout, result.stderr, result.status) == (b"0NULL\n", b"", 4)
    assert is_monitored(collector) == (key not in ("instance.id", "instance.status"))


@pytest.mark.parametrize("value", [0, 5, 0.25, 1e300, -3, "4", None], ids=repr)
def test_threshold_of_any_form_keeps_the_request_monitored(wire, collector, value):
    collector.reply = dict(ENABLED, **{"transaction.trace.sql.stacktrace.threshold": value})
    wire.cli()
    assert is_monitored(collector)


def test_missing_json_decode_means_unmonitored_and_nothing_shown(wire, collector):
    wire.same_as_bare(wire.cli, source="echo 'own output';",
                      settings={"disable_functions": "json_decode"})
    assert not is_monitored(collector)
    assert collector.events == ["status", "data"]


def test_every_request_asks_again(wire, collector, worker):
    worker.open("echo 1;")
    for _ in range(4):
        worker.get()
    collector.settle()
    assert len(collector.status_requests) == 4 and collector.status_connections == 4
