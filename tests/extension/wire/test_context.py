"""What makes a request a web or a background one, and the name it goes by."""
import pytest
from fake_collector import DISABLED_NOTICE, NO_URI_NOTICE
from payloads import escape

SKIPPED = [NO_URI_NOTICE, DISABLED_NOTICE]


@pytest.mark.parametrize("uri,name", [
    ("/", "/"), ("/a", "/a"), ("/a/", "/a"), ("/a/b/?x=1", "/a/b"), ("/a/b?x=1/", "/a/b"),
    ("/a//", "/a/"), ("//", "/"), ("/?x", "/"), ("/shop/", "/shop"), ("a/", "a"), ("x", "x"),
    ("/a?b?c", "/a"), ("/a/?", "/a"), ("/a%2Fb/", "/a%2Fb"), ("/a%3Fb?c", "/a%3Fb"),
    ("/a;p=1/", "/a;p=1"), ("/a#f", "/a#f"), ("http://h/a/?x", "http://h/a"), ("  /a ", "  /a "),
    ("/caf\u00e9/", "/caf\u00e9"), ("/\udcff\udcfe/?x", "/\udcff\udcfe"),
    ('/q"u\\o\te/', '/q"u\\o\te')])
def test_uri_is_cut_at_the_query_and_loses_one_final_slash(wire, collector, uri, name):
    wire.cgi("", REQUEST_URI=uri)
    assert '{"t_name":"%s",' % escape(name) in collector.payload.text
    assert '"txn.name":"%s"}}\n' % escape(name) in collector.request.text
    assert collector.payload.transaction["transaction_type"] == 1


@pytest.mark.parametrize("uri", ["?", "?x=1", "?/a"])
def test_uri_that_is_nothing_but_a_query_leaves_no_name_and_the_request_is_skipped(
        wire, collector, uri):
    wire.cgi("", REQUEST_URI=uri)
    assert collector.notices == SKIPPED


@pytest.mark.parametrize("original,name", [
    ("/orig", "/orig"), ("/orig/?a=1", "/orig"), ("/", "/"), ("", "/index.php")])
def test_original_url_of_a_rewriting_front_end_wins(wire, collector, original, name):
    wire.cgi("", HTTP_X_ORIGINAL_URL=original, REQUEST_URI="/index.php")
    assert collector.payload.transaction["t_name"] == name


def test_original_url_makes_a_web_request_even_without_a_request_uri(wire, collector):
    wire.cgi("", HTTP_X_ORIGINAL_URL="/orig", REQUEST_URI=None)
    assert collector.payload.transaction["t_name"] == "/orig"
    assert collector.payload.transaction["transaction_type"] == 1


def test_original_url_does_not_change_the_query(wire, collector):
    wire.cgi("", HTTP_X_ORIGINAL_URL="/orig?a=1", REQUEST_URI="/x?b=2", QUERY_STRING="b=2")
    assert collector.payload.transaction["http_query_str"] == "b=2"


@pytest.mark.parametrize("uri", [None, ""])
def test_web_server_request_without_uri_is_a_background_run_named_by_its_script(
        wire, collector, uri):
    wire.cgi("", REQUEST_URI=uri, SCRIPT_NAME="/dir/script.php")
    seen = collector.payload.transaction
    assert (seen["transaction_type"], seen["t_name"]) == (0, "/dir/script.php")
    assert seen["http_method_name"] == "GET" and seen["http_host"] == "shop.test"
    assert "httpcode" not in seen


def test_background_name_is_neither_cut_nor_trimmed(wire, collector):
    wire.cgi("", REQUEST_URI=None, SCRIPT_NAME="/a?b/")
    assert collector.payload.transaction["t_name"] == "/a?b/"
    assert '"txn.name":"\\/a?b\\/"' in collector.request.text


def test_background_name_from_a_web_server_obeys_the_command_line_switch(wire, collector):
    wire.cgi("", REQUEST_URI=None, settings={"kaq.capture_clirequest": 0})
    assert collector.notices == SKIPPED


@pytest.mark.parametrize("source", [
    "<?php function f() { echo 'out'; exit(6); } f();", "", "plain text only",
    "<?php fatal error here"])
def test_standard_input_is_never_monitored(wire, collector, source):
    bare = wire.php(stdin=source.encode(), loaded=False)
    loaded = wire.php(stdin=source.encode())
    assert loaded.outcome == bare.outcome
    assert collector.notices == SKIPPED and collector.status_connections == 0


@pytest.mark.parametrize("arguments", [
    ["-r", "function f() { echo 'out'; exit(6); } f();"], ["-r", "echo 1;", "--", "argument"],
    ["-r", ""], ["-R", "echo $argn;"], ["-B", "echo 1;", "-E", "echo 2;"]],
    ids=lambda arguments: " ".join(arguments)[:20])
def test_code_on_the_command_line_is_never_monitored(wire, collector, arguments):
    bare = wire.php(*arguments, stdin=b"line\n", loaded=False)
    loaded = wire.php(*arguments, stdin=b"line\n")
    assert loaded.outcome == bare.outcome
    assert collector.notices == SKIPPED and collector.status_connections == 0


def test_script_named_like_standard_input_is_not_monitored_which_is_meant(wire, collector):
    wire.script("", "Standard input code")
    wire.php("Standard input code", cwd=str(wire.directory))
    assert collector.notices == SKIPPED


def test_script_whose_path_only_ends_like_standard_input_is_monitored(wire, collector):
    wire.cli(wire.script("", "Standard input code"))
    assert collector.payload.transaction["t_name"].endswith("/Standard input code")


def test_environment_variables_can_name_a_command_line_run_like_a_web_request(wire, collector):
    wire.cli(env={"REQUEST_URI": "/as/web/?x"})
    assert collector.payload.transaction["transaction_type"] == 1
    assert collector.payload.transaction["t_name"] == "/as/web"


# Arguments ---------------------------------------------------------------------------------------

@pytest.mark.parametrize("arguments,members", [
    ([], ""), (["--all"], ',"$argv[1]":"--all"'), (["", "x"], ',"$argv[1]":"x"'),
    (["a", "", "", "b"], ',"$argv[1]":"a","$argv[2]":"b"'), (["0"], ',"$argv[1]":"0"'),
    ([" "], ',"$argv[1]":" "'), (['a/"b"\\', "\u00e9"], ',"$argv[1]":"a\\/\\"b\\"\\\\",'
                                                         '"$argv[2]":"\u00e9"'),
    (["line\nfeed\x01"], ',"$argv[1]":"line\\nfeed\\u0001"')], ids=str)
def test_arguments_are_counted_without_the_empty_ones(wire, collector, arguments, members):
    script = wire.script("")
    wire.cli(script, *arguments)
    assert collector.payload.raw_member("bckgrnd_input_params") == (
        '{"$argv[0]":"%s"%s}' % (escape(str(script)), members))


def test_arguments_that_are_no_utf_8_go_raw(wire, collector):
    wire.php(str(wire.script("")), b"\xff\xfe")
    assert b',"$argv[1]":"\xff\xfe"}' in collector.payload.bytes


def test_many_arguments_are_all_there(wire, collector):
    wire.cli("", *("v%d" % number for number in range(1, 3000)))
    arguments = collector.payload.transaction["bckgrnd_input_params"]
    assert list(arguments.items())[1:] == [
        ("$argv[%d]" % number, "v%d" % number) for number in range(1, 3000)]


def test_arguments_are_the_engine_s_and_not_what_the_script_made_of_them(wire, collector):
    script = wire.script("$_SERVER['argv'] = ['changed']; $argv = [1]; $argc = 9;")
    wire.cli(script, "x")
    assert collector.payload.transaction["bckgrnd_input_params"] == {
        "$argv[0]": str(script), "$argv[1]": "x"}


@pytest.mark.parametrize("settings,query", [
    ({"register_argc_argv": 0}, "a+b"), ({"register_argc_argv": 1}, "")])
def test_arguments_that_are_missing_or_empty_are_left_out(wire, collector, settings, query):
    wire.cgi("", settings=settings, QUERY_STRING=query, REQUEST_URI=None)
    assert "bckgrnd_input_params" not in collector.payload.transaction


def test_arguments_of_a_background_run_of_a_web_server(wire, collector):
    wire.cgi("", settings={"register_argc_argv": 1}, QUERY_STRING="a+b", REQUEST_URI=None)
    assert collector.payload.raw_member("bckgrnd_input_params") == '{"$argv[0]":"a","$argv[1]":"b"}'


# Longer than the buffers -------------------------------------------------------------------------

@pytest.mark.parametrize("length", [8190, 8191, 8192, 8193, 20000])
def test_uri_is_truncated_to_its_buffer(wire, collector, length):
    wire.cgi("", REQUEST_URI="/" + "u" * (length - 1))
    assert collector.payload.transaction["t_name"] == "/" + "u" * (min(length, 8191) - 1)


def test_uri_is_truncated_before_the_query_is_cut_off(wire, collector):
    wire.cgi("", REQUEST_URI="/" + "u" * 8189 + "/?q")
    assert collector.payload.transaction["t_name"] == "/" + "u" * 8189
    collector.forget()
    wire.cgi("", REQUEST_URI="/" + "u" * 9000 + "/?q")
    assert collector.payload.transaction["t_name"] == "/" + "u" * 8190


@pytest.mark.parametrize("length", [12798, 12799, 12800, 40000])
def test_query_is_truncated_to_its_buffer(wire, collector, length):
    wire.cgi("", QUERY_STRING="q" * length)
    assert collector.payload.transaction["http_query_str"] == "q" * min(length, 12799)


@pytest.mark.parametrize("length", [8191, 8192, 30000])
@pytest.mark.parametrize("variable,member", [
    ("HTTP_HOST", "http_host"), ("REQUEST_METHOD", "http_method_name"),
    ("HTTP_X_ORIGINAL_URL", "t_name")])
def test_host_method_and_original_url_are_truncated_to_their_buffers(
        wire, collector, variable, member, length):
    wire.cgi("", **{variable: "v" * length})
    assert collector.payload.transaction[member] == "v" * min(length, 8191)


@pytest.mark.parametrize("length", [8191, 8192, 30000])
def test_script_name_is_truncated_to_its_buffer(wire, collector, length):
    wire.cgi("", REQUEST_URI=None, SCRIPT_NAME="/" + "s" * (length - 1))
    assert collector.payload.transaction["t_name"] == "/" + "s" * (min(length, 8191) - 1)


def test_long_facts_of_one_request_leave_nothing_in_the_next(wire, collector, worker):
    worker.open("echo 1;")
    worker.get("/" + "u" * 9000)
    worker.get("/v?" + "q" * 14000)
    worker.get("/w", {"Host": "h" * 9000})
    worker.get("/x?r", {"Host": "i"})
    uri, query, host, short = (payload.transaction for payload in collector.payloads)
    assert (len(uri["t_name"]), len(query["http_query_str"]), len(host["http_host"])) == (
        8191, 12799, 8191)
    assert (query["t_name"], host["http_query_str"]) == ("/v", "")
    assert (short["t_name"], short["http_host"], short["http_query_str"]) == ("/x", "i", "r")


def test_host_that_is_no_string_counts_as_missing(wire, collector):
    wire.cgi("", HTTP_HOST=None, **{"HTTP_HOST[a]": "x"})
    assert "http_host" not in collector.payload.transaction


def test_what_the_script_writes_to_the_server_variables_is_not_reported(wire, collector):
    wire.cgi("$_SERVER['HTTP_HOST'] = 'changed'; $_SERVER['REQUEST_URI'] = '/changed';"
             "$_SERVER['REQUEST_METHOD'] = 'CHANGED'; $_SERVER['QUERY_STRING'] = 'changed';")
    assert "hanged" not in collector.payload.text
