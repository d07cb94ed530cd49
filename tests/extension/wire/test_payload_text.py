"""The payload line: its framing, its whole text for small requests, and its members' order."""
import re

import pytest
from fake_collector import ENABLED
from payloads import escape

NUMBER = r"\d+"
MILLISECONDS = r"\d{13}"
ID16, ID32 = "[0-9a-f]{16}", "[0-9a-f]{32}"

CLI_TEXT = (
    '{"apm":{"data":true,'
    '"application_info":{"application_type":"PHP","application_name":"PHP-Application",'
    '"application_group":"","instance_id":"i-1"},'
    '"transaction_info":{"t_name":"%(script)s","http_query_str":"","s_time":<ms>,"e_time":<ms>,'
    '"http_method_name":"","bytes_in":0,"bytes_out":0,"transaction_type":0,"thread_id":<n>,'
    '"cputime":<n>,"memalloc":<n>,"trace_id":"<id32>",'
    '"bckgrnd_input_params":{"$argv[0]":"%(script)s"},"origin":{"async":false}},'
    '"method_info":{"span_info":[{"st":<ms>,"et":<ms>,"mo":0,"pr":1,"fn":"main","cn":"PHP",'
    '"si":"<id16>"}%(spans)s]},"app_parameters":{}}}')

WEB_TEXT = (
    '{"apm":{"data":true,'
    '"application_info":{"application_type":"PHP","application_name":"Shop",'
    '"application_group":"Sales","instance_id":"i-1"},'
    '"transaction_info":{"t_name":"\\/cart","normalised_tname":"cart page",'
    '"http_host":"shop.test","http_query_str":"a=1","s_time":<ms>,"e_time":<ms>,'
    '"http_method_name":"POST","bytes_in":5,"bytes_out":2,"transaction_type":1,"thread_id":<n>,'
    '"httpcode":201,"cputime":<n>,"memalloc":<n>,"trace_id":"0af7651916cd43dd8448eb211c80319c",'
    '"http_headers":{<headers>},"http_input_params":{"a":"1"},'
    '"http_resp_headers":{"Content-Length":"2","Content-Type":"text\\/plain;charset=UTF-8"},'
    '"origin":{"async":false}},'
    '"method_info":{"span_info":[{"st":<ms>,"et":<ms>,"mo":0,"pr":1,"fn":"main","cn":"PHP",'
    '"si":"<id16>","psi":"b7ad6b7169203331"},'
    '{"st":<ms>,"et":<ms>,"mo":1,"fn":"f","cn":"PHP","si":"<id16>","psi":"<id16>"}]},'
    '"app_parameters":{}}}')


def pattern(text):
    """A regular expression for text, in which <...> stands for a value that varies."""
    expression = re.escape(text)
    for mark, value in (("ms", MILLISECONDS), ("n", NUMBER), ("id16", ID16), ("id32", ID32),
                        ("headers", "[^{}]*")):
        expression = expression.replace(re.escape("<%s>" % mark), value)
    return expression + r"\Z"


def test_whole_text_of_a_command_line_run(wire, collector):
    script = wire.script("")
    wire.cli(script)
    text = collector.payload.text
    assert re.match(pattern(CLI_TEXT % {"script": escape(str(script)), "spans": ""}), text), text


def test_whole_text_of_a_command_line_run_with_spans(wire, collector):
    script = wire.script("class A { static function b() { c(); } } function c() {} A::b(); c();")
    wire.cli(script, settings={"kaq.method_threshold": 0})
    spans = "".join(
        ',{"st":<ms>,"et":<ms>,"mo":%d,"fn":"%s","cn":"PHP","si":"<id16>","psi":"<id16>"}' % span
        for span in ((1, "A::b"), (2, "c"), (3, "c")))
    text = collector.payload.text
    whole = CLI_TEXT % {"script": escape(str(script)), "spans": spans}
    assert re.match(pattern(whole), text), text


def test_whole_text_of_a_web_request(wire, collector):
    collector.reply = dict(ENABLED, **{"normalised.txn.name": "cart page"})
    wire.cgi(
        "function f() {} f(); http_response_code(201); header('Content-Length: 2');"
        "header('Content-Type: text/plain;charset=UTF-8'); echo 'ok';",
        settings={"kaq.method_threshold": 0, "expose_php": 0, "kaq.application_name": "Shop",
                  "kaq.application_group": "Sales"},
        body=b"hello", REQUEST_METHOD="POST", CONTENT_TYPE="text/plain",
        REQUEST_URI="/cart/?a=1", QUERY_STRING="a=1",
        HTTP_TRACEPARENT="00-0af7651916cd43dd8448eb211c80319c-b7ad6b7169203331-01")
    text = collector.payload.text
    assert re.match(pattern(WEB_TEXT), text), text


def test_line_is_base64_with_one_line_feed_at_its_very_end(wire, collector):
    for size in range(4):
        wire.cli("", "x" * size, settings={"kaq.application_name": "n" * (size + 1)})
    collector.settle()
    lengths = set()
    for record in collector.data_records:
        payload = record.payload
        assert payload.document["apm"]["data"] is True
        assert len(record.raw) == (len(payload.bytes) + 2) // 3 * 4 + 1
        lengths.add(len(payload.bytes) % 3)
    assert lengths == {0, 1, 2}


def test_text_holds_no_white_space_of_its_own(wire, collector):
    wire.cgi("function f() {} f(); echo 1;", settings={"kaq.method_threshold": 0},
             HTTP_HOST="h", QUERY_STRING="q=1", REQUEST_URI="/u")
    outside_strings = re.sub(r'"(?:[^"\\]|\\.)*"', '""', collector.payload.text)
    assert not re.search(r"\s", outside_strings)


def test_member_order_of_a_web_request(wire, collector):
    collector.reply = dict(ENABLED, **{"normalised.txn.name": "n"})
    wire.cgi("echo 1;", QUERY_STRING="a=1", REQUEST_URI="/u?a=1")
    document = collector.payload.document
    assert list(document) == ["apm"]
    assert list(document["apm"]) == [
        "data", "application_info", "transaction_info", "method_info", "app_parameters"]
    assert list(document["apm"]["application_info"]) == [
        "application_type", "application_name", "application_group", "instance_id"]
    assert list(document["apm"]["transaction_info"]) == [
        "t_name", "normalised_tname", "http_host", "http_query_str", "s_time", "e_time",
        "http_method_name", "bytes_in", "bytes_out", "transaction_type", "thread_id", "httpcode",
        "cputime", "memalloc", "trace_id", "http_headers", "http_input_params",
        "http_resp_headers", "origin"]
    assert list(document["apm"]["method_info"]) == ["span_info"]
    assert document["apm"]["app_parameters"] == {}


def test_member_order_of_a_background_run(wire, collector):
    wire.cli("", "argument")
    assert list(collector.payload.transaction) == [
        "t_name", "http_query_str", "s_time", "e_time", "http_method_name", "bytes_in",
        "bytes_out", "transaction_type", "thread_id", "cputime", "memalloc", "trace_id",
        "bckgrnd_input_params", "origin"]


def test_member_order_of_spans(wire, collector):
    wire.cli("function f() {} f();", settings={"kaq.method_threshold": 0})
    root, span = collector.payload.spans
    assert list(root) == ["st", "et", "mo", "pr", "fn", "cn", "si"]
    assert list(span) == ["st", "et", "mo", "fn", "cn", "si", "psi"]


def test_parent_of_the_root_comes_last_in_the_root_span(wire, collector):
    wire.cgi("", HTTP_TRACEPARENT="00-" + "a" * 32 + "-" + "b" * 16 + "-01")
    assert list(collector.payload.root) == ["st", "et", "mo", "pr", "fn", "cn", "si", "psi"]
    assert collector.payload.root["psi"] == "b" * 16


@pytest.mark.parametrize("arguments", [[], ["x"] * 50])
def test_request_with_only_the_root_span_has_exactly_one_object(wire, collector, arguments):
    wire.cli("echo 1;", *arguments)
    assert len(collector.payload.spans) == 1
    assert collector.payload.root["fn"] == "main"
