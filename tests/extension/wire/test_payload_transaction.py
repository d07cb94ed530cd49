"""Each row of the payload's transaction section."""
import json

import pytest
from payloads import HEX32, escape


# t_name, http_host, http_query_str ---------------------------------------------------------------

def test_name_of_a_web_request_is_its_uri_and_not_the_script(wire, collector):
    wire.cgi("", REQUEST_URI="/from/uri", SCRIPT_NAME="/script.php")
    assert collector.payload.transaction["t_name"] == "/from/uri"


def test_name_of_a_background_run_is_the_script_as_it_was_called(wire, collector):
    wire.script("", "sub/job.php")
    wire.php("sub/job.php", cwd=str(wire.directory))
    assert collector.payload.transaction["t_name"] == "sub/job.php"


@pytest.mark.parametrize("host,member", [
    ("shop.test:8080", '"http_host":"shop.test:8080",'), ("a/b", '"http_host":"a\\/b",'),
    ("h\u00f6st", '"http_host":"h\u00f6st",')])
def test_host_is_the_header_as_sent(wire, collector, host, member):
    wire.cgi("", HTTP_HOST=host)
    assert member in collector.payload.text


@pytest.mark.parametrize("host", [None, ""])
def test_host_is_left_out_when_empty(wire, collector, host):
    wire.cgi("", HTTP_HOST=host)
    assert "http_host" not in collector.payload.transaction


@pytest.mark.parametrize("query", ["", "a=1&b=%2F/x", "no-equals", "a=\u00e9\"\\"])
def test_query_is_always_a_member_and_taken_raw(wire, collector, query):
    wire.cgi("", QUERY_STRING=query, REQUEST_URI="/?other=1")
    assert collector.payload.transaction["http_query_str"] == query
    assert '"http_query_str":"%s"' % escape(query) in collector.payload.text


# Method, sizes, status ---------------------------------------------------------------------------

@pytest.mark.parametrize("method", ["GET", "HEAD", "POST", "PURGE", "we/ird"])
def test_method_is_the_one_of_the_request(wire, collector, method):
    wire.cgi("", REQUEST_METHOD=method)
    assert collector.payload.transaction["http_method_name"] == method


@pytest.mark.parametrize("body", [b"", b"x", b"a=1&b=2", b"y" * 100000])
def test_bytes_in_is_the_declared_length_of_the_body(wire, collector, body):
    wire.cgi("", body=body, REQUEST_METHOD="POST",
             CONTENT_TYPE="application/x-www-form-urlencoded")
    assert collector.payload.transaction["bytes_in"] == len(body)


def test_bytes_in_counts_what_was_declared_even_when_less_comes(wire, collector):
    wire.cgi("", body=b"abc", REQUEST_METHOD="POST", CONTENT_TYPE="text/plain",
             CONTENT_LENGTH="1000")
    assert collector.payload.transaction["bytes_in"] == 1000


@pytest.mark.parametrize("header,size", [
    (None, 0), ("Content-Length: 1234", 1234), ("content-length: 77", 77),
    ("CONTENT-LENGTH:5", 5), ("Content-Length:    42", 42), ("Content-Length: 12abc", 12),
    ("Content-Length: none", 0), ("Content-Length: -9", -9), ("X-Content-Length: 8", 0)])
def test_bytes_out_is_the_length_header_of_the_response(wire, collector, header, size):
    wire.cgi("header('%s');" % header if header else "echo 'five!';")
    assert collector.payload.transaction["bytes_out"] == size


@pytest.mark.parametrize("code", [200, 201, 302, 404, 500, 599])
def test_httpcode_is_the_status_of_the_response(wire, collector, code):
    wire.cgi("http_response_code(%d);" % code)
    assert collector.payload.transaction["httpcode"] == code


def test_httpcode_is_200_when_the_script_sets_none(wire, collector):
    wire.cgi("echo 1;")
    assert collector.payload.transaction["httpcode"] == 200


def test_httpcode_of_a_redirect(wire, collector):
    wire.cgi("header('Location: /elsewhere'); exit;")
    assert collector.payload.transaction["httpcode"] == 302


def test_background_run_has_none_of_the_members_of_a_web_request(wire, collector):
    wire.cli("http_response_code(404); header('X-A: b'); $_REQUEST = [1]; echo 1;")
    assert not {"httpcode", "http_headers", "http_input_params", "http_resp_headers"} & set(
        collector.payload.transaction)


def test_web_request_has_no_background_arguments(wire, collector):
    wire.cgi("", QUERY_STRING="a+b", settings={"register_argc_argv": 1})
    assert "bckgrnd_input_params" not in collector.payload.transaction


def test_no_later_member_is_there_before_a_script_asks_for_it(wire, collector):
    wire.cgi("echo 1;")
    assert not {"session_id", "custom_params"} & set(collector.payload.transaction)
    assert collector.payload.raw_member("origin") == '{"async":false}'


# Figures -----------------------------------------------------------------------------------------

def test_thread_id_of_a_process_with_one_thread_is_its_process_id(wire, collector):
    out = wire.cli("echo getmypid();").stdout
    assert collector.payload.transaction["thread_id"] == int(out)


BURN = ("$used = function () { $u = getrusage(); return $u['ru_utime.tv_sec'] * 1e6"
        " + $u['ru_utime.tv_usec']; }; $from = $used(); while ($used() - $from < 250000);")


def test_cputime_counts_computing_in_milliseconds(wire, collector):
    wire.cli(BURN)
    seen = collector.payload.transaction
    assert 250 <= seen["cputime"] <= seen["e_time"] - seen["s_time"] + 20


def test_cputime_does_not_count_waiting(wire, collector):
    wire.cli("usleep(400000);")
    assert collector.payload.transaction["cputime"] < 200


def test_cputime_counts_from_the_start_of_this_request(wire, collector):
    server = wire.cgi_server()
    script = wire.script("if ($_GET) { %s }" % BURN)
    server.request(script, QUERY_STRING="work=1", REQUEST_URI="/?work=1")
    server.request(script)
    first, second = collector.payloads
    assert first.transaction["cputime"] >= 250 > second.transaction["cputime"] + 50


def test_memalloc_is_the_peak_of_memory_in_use_in_bytes(wire, collector):
    out = wire.cli("$x = str_repeat('x', 30000000); $x = null;"
                   "echo memory_get_peak_usage(), ' ', memory_get_peak_usage(true);").stdout
    used, reserved = (int(number) for number in out.split())
    assert 30000000 < used <= collector.payload.transaction["memalloc"] < reserved


# Trace identifier --------------------------------------------------------------------------------

def test_background_run_has_a_fresh_trace_identifier(wire, collector):
    for _ in range(3):
        wire.cli(env={"HTTP_TRACEPARENT": "00-" + "a" * 32 + "-" + "b" * 16 + "-01"})
    seen = {payload.transaction["trace_id"] for payload in collector.payloads}
    assert len(seen) == 3 and all(HEX32.match(identifier) for identifier in seen)
    assert all("psi" not in payload.root for payload in collector.payloads)


@pytest.mark.parametrize("value", [
    "00-0af7651916cd43dd8448eb211c80319c-b7ad6b7169203331-01",
    "ff-0AF7651916CD43DD8448EB211C80319C-B7AD6B7169203331-00",
    "00-" + "0" * 32 + "-" + "0" * 16 + "-01",
    "zz?" + "not hexadecimal, though 32 long " + "+" + "sixteen chars ok" + "...",
    '00-"quoted/and\\backslash---------xx-b7ad6b7169203331-01',
])
def test_any_parent_of_55_characters_is_taken_apart_by_position_which_is_meant(
        wire, collector, value):
    assert len(value) == 55
    wire.cgi("", HTTP_TRACEPARENT=value)
    assert '"trace_id":"%s",' % escape(value[3:35]) in collector.payload.text
    assert '"psi":"%s"}' % escape(value[36:52]) in collector.payload.text


@pytest.mark.parametrize("value", [
    "", "00-0af7651916cd43dd8448eb211c80319c-b7ad6b7169203331-0",
    "00-0af7651916cd43dd8448eb211c80319c-b7ad6b7169203331-011", "x" * 5000])
def test_parent_of_any_other_length_starts_a_new_trace(wire, collector, value):
    wire.cgi("", HTTP_TRACEPARENT=value)
    seen = collector.payload.transaction["trace_id"]
    assert HEX32.match(seen) and seen not in value
    assert "psi" not in collector.payload.root


@pytest.mark.parametrize("spelling,taken", [
    ("traceparent", True), ("Traceparent", True), ("TRACEPARENT", False), ("TraceParent", False)])
def test_parent_header_is_known_in_two_spellings_only(wire, collector, spelling, taken):
    server = wire.builtin_server("echo implode(',', array_keys(getallheaders()));")
    value = "00-0af7651916cd43dd8448eb211c80319c-b7ad6b7169203331-01"
    assert spelling in server.request(headers=[(spelling, value)]).body.decode().split(",")
    assert (collector.payload.transaction["trace_id"] == value[3:35]) == taken
    assert ("psi" in collector.payload.root) == taken


# Headers -----------------------------------------------------------------------------------------

def test_request_headers_are_those_the_engine_reports(wire, collector):
    out = wire.cgi("echo json_encode(getallheaders());", HTTP_X_FIRST="1",
                   HTTP_ACCEPT="text/html", HTTP_COOKIE="k=v").response.body
    assert json.loads(collector.payload.raw_member("http_headers")) == json.loads(out)
    assert collector.payload.transaction["http_headers"]["X-First"] == "1"


def test_request_headers_keep_the_order_and_spelling_of_the_server(wire, collector):
    server = wire.builtin_server()
    server.request(headers=[("x-b", "2/"), ("X-A", "1"), ("x-C", '"q"')])
    assert collector.payload.raw_member("http_headers") == (
        '{"x-b":"2\\/","X-A":"1","x-C":"\\"q\\""}')


def test_request_without_headers_still_has_an_empty_list_of_them(wire, collector):
    wire.cgi("", HTTP_HOST=None)
    assert collector.payload.raw_member("http_headers") == "[]"


def test_request_headers_under_fpm_need_the_engine_to_have_the_function(wire, collector, engine):
    wire.fpm().request(wire.script(""))
    assert ("http_headers" in collector.payload.transaction) == engine.fpm_has_getallheaders


def test_disabled_header_function_is_not_noticed_by_the_script(wire, collector):
    wire.same_as_bare(wire.cgi, source="echo 'own output';",
                      settings={"disable_functions": "getallheaders"})
    assert "http_headers" not in collector.payload.transaction or (
        collector.payload.raw_member("http_headers") == "null")


def test_response_headers_are_left_out_when_there_are_none(wire, collector):
    wire.cgi("", settings={"expose_php": 0})
    assert "http_resp_headers" not in collector.payload.transaction


def test_default_content_type_is_listed_only_after_output_has_begun(wire, collector):
    wire.cgi("header('X-A: 1');", settings={"expose_php": 0})
    wire.cgi("header('X-A: 1'); echo 'x';", settings={"expose_php": 0})
    before, after = collector.payloads
    assert before.raw_member("http_resp_headers") == '{"X-A":"1"}'
    assert after.raw_member("http_resp_headers") == (
        '{"X-A":"1","Content-type":"text\\/html; charset=UTF-8"}')


@pytest.mark.parametrize("lines,member", [
    (["X-B: 2", "X-A: 1"], '{"X-B":"2","X-A":"1"}'),
    (["X-A:1"], '{"X-A":"1"}'),
    (["X-A:   \t  spaced  in  it"], '{"X-A":"spaced  in  it"}'),
    (["X-A:"], '{"X-A":""}'),
    (["X-A: b:c: d"], '{"X-A":"b:c: d"}'),
    (["x-lower: KEEP"], '{"x-lower":"KEEP"}'),
    (["X-" + "n" * 198 + ": v"], '{"X-' + "n" * 125 + '":"v"}'),
    (["X-A: " + "v" * 300], '{"X-A":"' + "v" * 255 + '"}'),
    (['X-A: a/"b\\c'], '{"X-A":"a\\/\\"b\\\\c"}'),
])
def test_response_header_lines_are_split_and_cut(wire, collector, lines, member):
    wire.cgi("".join("header('%s');" % line.replace("\\", "\\\\") for line in lines),
             settings={"expose_php": 0})
    assert collector.payload.raw_member("http_resp_headers") == member


def test_of_response_headers_with_one_name_the_last_remains_in_the_first_place(wire, collector):
    wire.cgi("header('Set-Cookie: a=1'); header('X-A: 1'); header('Set-Cookie: b=2', false);",
             settings={"expose_php": 0})
    assert collector.payload.raw_member("http_resp_headers") == '{"Set-Cookie":"b=2","X-A":"1"}'


def test_response_headers_of_the_engine_itself_are_listed(wire, collector):
    out = wire.cgi("echo PHP_VERSION;").response.body.decode()
    assert collector.payload.transaction["http_resp_headers"]["X-Powered-By"] == "PHP/" + out
