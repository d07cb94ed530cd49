"""The functions that scripts may call: signatures, warnings, returns and what the payload shows."""
import json
import re
import signal

import pytest
from fake_collector import DISABLED, DISABLED_NOTICE
from payloads import HEX32

# In the order in which they are registered: parameters as (name, is optional).
ONE, TWO, OPTIONAL = [["val_one", False]], [["val_one", False], ["val_two", False]], [
    ["val_one", False], ["val_two", True]]
SIGNATURES = {
    "kaq_transaction_name": ONE, "kaq_app_param_increment": OPTIONAL, "kaq_app_param_avg": TWO,
    "kaq_print_stacktrace": [], "kaq_stack_depth": [], "kaq_custom_params": TWO,
    "kaq_set_appname": ONE, "kaq_agent_version": [], "kaq_trace_id": [], "kaq_span_id": [],
    "kaq_set_session_id": ONE, "kaq_debug_crash": [], "kaq_store_curl_response_headers": TWO}
PARSED = {name: parameters for name, parameters in SIGNATURES.items()
          if parameters and name != "kaq_store_curl_response_headers"}
# What each parsed parameter has to be.
TYPES = {name: ["string", "float" if "app_param" in name else "string"][:len(parameters)]
         for name, parameters in PARSED.items()}

# Prints what a call returned, threw or was warned of.
TELL = """
error_reporting(-1);
set_error_handler(function ($type, $text) { echo "$type $text\\n"; return true; });
function tell($function, ...$arguments) {
    try {
        echo json_encode($function(...$arguments)), "\\n";
    } catch (Throwable $thrown) {
        echo get_class($thrown), " ", $thrown->getMessage(), "\\n";
    }
}
"""


def app_parameters(payload):
    """The text of that section, as it stands on the wire."""
    return re.search(r'"app_parameters":(\{.*\})\}\}\Z', payload.text, re.S).group(1)


def lines(result):
    assert result.status == 0 and not result.stderr, result
    return result.stdout.decode("utf-8", "surrogateescape").splitlines()


# Signatures --------------------------------------------------------------------------------------

def test_thirteen_functions_are_registered_in_order(wire):
    out = wire.cli("echo json_encode(get_extension_funcs('kaq'));").stdout
    assert json.loads(out) == list(SIGNATURES) and len(SIGNATURES) == 13


@pytest.mark.parametrize("name,parameters", SIGNATURES.items(), ids=list(SIGNATURES))
def test_signature(wire, name, parameters):
    out = wire.cli("""
        $function = new ReflectionFunction('%s');
        $parameters = [];
        foreach ($function->getParameters() as $p) {
            $parameters[] = [$p->getName(), $p->isOptional(), $p->getType(),
                $p->isPassedByReference(), $p->isVariadic()];
        }
        echo json_encode([$parameters, $function->getNumberOfRequiredParameters(),
            $function->getReturnType(), $function->returnsReference(),
            $function->isDeprecated(), $function->getExtensionName()]);""" % name).stdout
    expected = [[parameter, optional, None, False, False] for parameter, optional in parameters]
    required = sum(not optional for _, optional in parameters)
    assert json.loads(out) == [expected, required, None, False, False, "kaq"]


# Arguments that do not fit -----------------------------------------------------------------------

def count_error(engine, name, given):
    parameters = PARSED[name]
    required = sum(not optional for _, optional in parameters)
    if required == len(parameters):
        kind, wanted = "exactly", required
    else:
        kind, wanted = ("at least", required) if given < required else ("at most", len(parameters))
    if engine.failed_parses_throw:
        return "ArgumentCountError %s() expects %s %d argument%s, %d given" % (
            name, kind, wanted, "" if wanted == 1 else "s", given)
    return "2 %s() expects %s %d parameter%s, %d given" % (
        name, kind, wanted, "" if wanted == 1 else "s", given)


def type_error(engine, name, position, given):
    wanted = TYPES[name][position - 1]
    if engine.failed_parses_throw:
        return "TypeError %s(): Argument #%d ($%s) must be of type %s, %s given" % (
            name, position, PARSED[name][position - 1][0], wanted,
            "stdClass" if given == "object" else given)
    return "2 %s() expects parameter %d to be %s, %s given" % (name, position, wanted, given)


@pytest.mark.parametrize("name", PARSED)
def test_wrong_number_of_arguments_is_the_engines_usual_complaint(wire, collector, engine, name):
    most = len(PARSED[name])
    few = sum(not optional for _, optional in PARSED[name]) - 1
    out = lines(wire.cli(TELL + "tell('%s'%s); tell('%s'%s);" % (
        name, ", '1'" * few, name, ", '1'" * (most + 1))))
    told = [count_error(engine, name, few), count_error(engine, name, most + 1)]
    if not engine.failed_parses_throw:
        told = [told[0], "null", told[1], "null"]
    assert out == told
    assert_nothing_stored(collector.payload)


@pytest.mark.parametrize("given,value", [("array", "[]"), ("object", "new stdClass")])
@pytest.mark.parametrize("name", PARSED)
def test_argument_of_a_wrong_type_is_the_engines_usual_complaint(
        wire, collector, engine, name, given, value):
    calls, told = "", []
    for position in range(1, len(PARSED[name]) + 1):
        arguments = ["'1'"] * len(PARSED[name])
        arguments[position - 1] = value
        calls += "tell('%s', %s);" % (name, ", ".join(arguments))
        told.append(type_error(engine, name, position, given))
        if not engine.failed_parses_throw:
            told.append("null")
    assert lines(wire.cli(TELL + calls)) == told
    assert_nothing_stored(collector.payload)


def assert_nothing_stored(payload):
    assert payload.transaction["t_name"].endswith("job.php")
    assert not {"session_id", "custom_params"} & set(payload.transaction)
    assert app_parameters(payload) == "{}"
    assert payload.application["application_name"] == "PHP-Application"


@pytest.mark.parametrize("name", PARSED)
def test_strict_types_refuse_a_number_for_a_text(wire, collector, name):
    arguments = ", ".join(["5"] + ["'1'"] * (len(PARSED[name]) - 1))
    out = lines(wire.cli("declare(strict_types=1); try { %s(%s); } catch (TypeError $e) {"
                         "echo 'refused'; }" % (name, arguments)))
    assert out == ["refused"]
    assert_nothing_stored(collector.payload)


def test_strict_types_take_an_integer_for_a_float(wire, collector):
    wire.cli("declare(strict_types=1); kaq_app_param_increment('x', 2); kaq_app_param_avg('y', 3);")
    assert app_parameters(collector.payload) == '{"sum":{"x":[2]},"average":{"y":[3]},"data":true}'


@pytest.mark.parametrize("name", PARSED)
def test_null_is_the_empty_value(wire, collector, engine, name):
    nulls = ", ".join(["null"] * len(PARSED[name]))
    told = []
    if engine.version_id >= 80100:
        told = ["8192 %s(): Passing null to parameter #%d ($%s) of type %s is deprecated" % (
            name, i, PARSED[name][i - 1][0], type_)
            for i, type_ in enumerate(TYPES[name], 1)]
    assert lines(wire.cli(TELL + "tell('%s', %s);" % (name, nulls))) == told + ["null"]
    assert {
        "kaq_transaction_name": '"t_name":"\\/",', "kaq_app_param_increment": '{"sum":{"":[0]},',
        "kaq_app_param_avg": '{,"average":{"":[0]},', "kaq_custom_params": '{"":[""]}',
        "kaq_set_appname": '"application_name":"",', "kaq_set_session_id": '"session_id":"",',
    }[name] in collector.payload.text


def test_functions_without_parameters_ignore_arguments(wire):
    out = lines(wire.cli(TELL + "tell('kaq_agent_version', 1); tell('kaq_span_id', 1, [2]);"
                         "tell('kaq_trace_id', 'x'); tell('kaq_stack_depth', null);"))
    assert out[:2] == ['"4.9"', "null"] and HEX32.match(out[2].strip('"'))
    assert out[3] == "stack depth = 15<br>null"


def test_named_arguments(wire, collector, engine):
    if engine.version_id < 80000:
        pytest.skip("this engine has no named arguments")
    out = lines(wire.cli(TELL + """
        kaq_app_param_increment(val_two: 2.5, val_one: 'x');
        kaq_app_param_increment(val_one: 'x');
        kaq_custom_params(val_two: 'v', val_one: 'k');
        $n = str_repeat('a b', mt_rand(1, 1)); kaq_transaction_name(val_one: $n); echo $n, "\\n";
        $f = 'kaq_transaction_name'; $m = $n . '?'; $f(val_one: $m); echo $m, "\\n";
        tell('kaq_app_param_increment', ...['val_two' => 2]);
        tell('kaq_transaction_name', ...['name' => 'x']);"""))
    assert out == [
        "a_b", "a_b?",
        "ArgumentCountError kaq_app_param_increment(): Argument #1 ($val_one) not passed",
        "Error Unknown named parameter $name"]
    assert app_parameters(collector.payload) == '{"sum":{"x":[2.5,1]},"data":true}'
    assert collector.payload.raw_member("custom_params") == '{"k":["v"]}'


# kaq_transaction_name ----------------------------------------------------------------------------

ALL_BYTES = "".join(chr(c) if chr(c).isalnum() or chr(c) in "./" else "_" for c in range(128))
NAMES = [
    ("'a b?c'", "/a_b_c"), ("'cart/checkout.php'", "/cart/checkout.php"), ("'/x'", "//x"),
    ("''", "/"), ("'5'", "/5"), ("'0'", "/0"), ("'-1'", "/_1"), ("5", "/5"), ("-1", "/_1"),
    ("1.5", "/1.5"), ("true", "/1"), ("false", "/"), ('"a\\0b"', "/a_b"), ('"\\0"', "/_"),
    ('"\\u{e9}"', "/__"), ("implode('', array_map('chr', range(0, 255)))",
                           "/" + ALL_BYTES + "_" * 128),
    ("new ArrayName", "/of_an_object")]


@pytest.mark.parametrize("expression,name", NAMES, ids=[text[:20] for text, _ in NAMES])
def test_name_of_the_transaction(wire, collector, expression, name):
    out = wire.cli("class ArrayName { function __toString() { return 'of an object'; } }"
                   "var_dump(kaq_transaction_name(%s));" % expression).stdout
    assert out == b"NULL\n"
    assert collector.payload.transaction["t_name"] == name


@pytest.mark.parametrize("length", [1, 8189, 8190, 8191, 8192, 9000, 200000])
def test_name_is_cut_to_8190_characters(wire, collector, length):
    out = lines(wire.cli("$n = str_repeat('b', %d - 1) . 'z'; kaq_transaction_name($n);"
                         "echo strlen($n), substr($n, -1);" % length))
    assert out == ["%dz" % length]
    assert collector.payload.transaction["t_name"] == "/" + ("b" * (length - 1) + "z")[:8190]


def test_cut_name_is_replaced_to_its_end(wire, collector):
    wire.cli("kaq_transaction_name(str_repeat('?', 9000));")
    assert collector.payload.transaction["t_name"] == "/" + "_" * 8190


def test_last_name_counts_and_nothing_of_an_earlier_one_is_left(wire, collector):
    wire.cli("kaq_transaction_name(str_repeat('long', 500)); kaq_transaction_name('short');")
    assert collector.payload.transaction["t_name"] == "/short"


def test_name_takes_the_place_of_the_uri_in_this_request_only(wire, collector):
    server, page = wire.cgi_server(), wire.script("if ($_GET) kaq_transaction_name('named');")
    for query in ("n=1", ""):
        server.request(page, QUERY_STRING=query, REQUEST_URI="/from/uri")
    assert [p.transaction["t_name"] for p in collector.payloads] == ["/named", "/from/uri"]


# Application parameters --------------------------------------------------------------------------

SUMS = [
    ("kaq_app_param_increment('x'); kaq_app_param_increment('x', 2.5);", '{"x":[1,2.5]}'),
    ("kaq_app_param_increment('x'); kaq_app_param_increment('y'); kaq_app_param_increment('x');",
     '{"x":[1,1],"y":[1]}'),
    ("kaq_app_param_increment('x', 0); kaq_app_param_increment('x', -2);", '{"x":[0,-2]}'),
    ("kaq_app_param_increment('x', '1e3'); kaq_app_param_increment('x', true);", '{"x":[1000,1]}'),
    ("kaq_app_param_increment('x', INF); kaq_app_param_increment('x', NAN);", '{"x":[null,null]}'),
    ("kaq_app_param_increment('x', 1/3); kaq_app_param_increment('x', 1e15);",
     '{"x":[0.33333333333333,1.0e+15]}'),
    ("kaq_app_param_increment('5'); kaq_app_param_increment('0'); kaq_app_param_increment('-1');"
     "kaq_app_param_increment('5', 2);", '{"5":[1,2],"0":[1],"-1":[1]}'),
    ("kaq_app_param_increment('0');", '{"0":[1]}'),
    ("kaq_app_param_increment(5); kaq_app_param_increment('5');", '{"5":[1,1]}'),
    ("kaq_app_param_increment('');", '{"":[1]}'),
    ('kaq_app_param_increment("a\\0b"); kaq_app_param_increment("a\\0c", 2);',
     '{"a":[1],"a":[2]}'),
    ('kaq_app_param_increment("a\\"/\\u{e9}");', '{"a\\"\\/\u00e9":[1]}'),
    ("for ($i = 0; $i < 20000; $i++) kaq_app_param_increment('x');",
     '{"x":[%s]}' % ",".join(["1"] * 20000))]


@pytest.mark.parametrize("calls,text", SUMS, ids=range(len(SUMS)))
def test_values_to_sum_are_listed_under_their_name(wire, collector, calls, text):
    assert lines(wire.cli(calls)) == []
    assert app_parameters(collector.payload) == '{"sum":%s,"data":true}' % text


@pytest.mark.parametrize("calls,text", SUMS[2:6], ids=range(2, 6))
def test_values_to_average_alone_begin_with_a_comma_is_meant(wire, collector, calls, text):
    wire.cli(calls.replace("increment", "avg"))
    assert app_parameters(collector.payload) == '{,"average":%s,"data":true}' % text


def test_sums_and_averages_of_one_name_are_two_lists(wire, collector):
    wire.cli("kaq_app_param_avg('x', 4); kaq_app_param_increment('x'); kaq_app_param_avg('x', 6);"
             "kaq_app_param_avg('-1', 1);")
    assert app_parameters(collector.payload) == (
        '{"sum":{"x":[1]},"average":{"x":[4,6],"-1":[1]},"data":true}')


def test_values_are_copied(wire, collector):
    wire.cli("""
        $v = 1; $r = &$v; $name = 'n' . $argc; $text = 't' . $argc;
        kaq_app_param_increment($name, $r); kaq_custom_params($name, $text);
        $v = 2; $name .= 'more'; $text .= 'more';""")
    assert app_parameters(collector.payload) == '{"sum":{"n1":[1]},"data":true}'
    assert collector.payload.raw_member("custom_params") == '{"n1":["t1"]}'


CUSTOM = [
    ("kaq_custom_params('k', 'v');", '{"k":["v"]}'),
    ("kaq_custom_params('k', 'v'); kaq_custom_params('l', 'w'); kaq_custom_params('k', 'x');",
     '{"k":["v","x"],"l":["w"]}'),
    ("kaq_custom_params('k', 5); kaq_custom_params('k', 1.5); kaq_custom_params('k', false);",
     '{"k":["5","1.5",""]}'),
    ("kaq_custom_params('0', ''); kaq_custom_params('-1', 'y');", '{"0":[""],"-1":["y"]}'),
    ('kaq_custom_params("a\\0b", "v\\0w");', '{"a":["v"]}')]


@pytest.mark.parametrize("calls,text", CUSTOM, ids=range(len(CUSTOM)))
def test_custom_parameters_are_lists_of_texts(wire, collector, calls, text):
    assert lines(wire.cli(calls)) == []
    assert collector.payload.raw_member("custom_params") == text
    assert app_parameters(collector.payload) == "{}"


# Session, application, identifiers ---------------------------------------------------------------

@pytest.mark.parametrize("length", [0, 1, 8191, 8192, 8193, 9000])
def test_session_identifier_has_8192_characters_at_most(wire, collector, length):
    wire.cli("var_dump(kaq_set_session_id(str_repeat('s', %d)));" % length)
    assert collector.payload.transaction["session_id"] == "s" * min(length, 8192)


def test_session_identifier_replaces_a_longer_one_and_ends_at_a_nul(wire, collector):
    wire.cli('kaq_set_session_id(str_repeat("s", 9000)); kaq_set_session_id("a b\\0c");')
    assert collector.payload.transaction["session_id"] == "a b"


@pytest.mark.parametrize("name,shown", [
    ("'shop'", "shop"), ("''", ""), ("'two', 'arguments'", "PHP-Application"),
    ('"a\\0b"', "a"), ("7", "7"), ("str_repeat('n', 20000)", "n" * 20000)])
def test_application_name(wire, collector, name, shown):
    wire.cli("@kaq_set_appname(%s);" % name if "arguments" not in name else
             "try { @kaq_set_appname(%s); } catch (Error $e) {}" % name)
    assert collector.payload.application["application_name"] == shown


def test_application_name_and_session_are_those_of_one_request(wire, collector):
    server = wire.cgi_server({"kaq.application_name": "set"})
    page = wire.script("if ($_GET) { kaq_set_appname('first'); kaq_set_appname('shop');"
                       "kaq_set_session_id('s'); kaq_custom_params('k', 'v');"
                       "kaq_app_param_increment('x'); kaq_app_param_avg('x', 1); }")
    for query in ("n=1", ""):
        server.request(page, QUERY_STRING=query)
    first, second = collector.payloads
    assert first.application["application_name"] == "shop"
    assert second.application["application_name"] == "set"
    assert first.transaction["session_id"] == "s"
    assert not {"session_id", "custom_params"} & set(second.transaction)
    assert app_parameters(second) == "{}"


def test_trace_identifier_of_a_background_run_is_the_payloads(wire, collector):
    out = wire.cli("echo kaq_trace_id();").stdout.decode()
    assert HEX32.match(out) and collector.payload.transaction["trace_id"] == out


def test_trace_identifier_of_a_web_request_is_the_callers(wire, collector):
    result = wire.cgi("echo kaq_trace_id();",
                      HTTP_TRACEPARENT="00-" + "a1" * 16 + "-" + "b" * 16 + "-01")
    assert result.response.body.decode() == collector.payload.transaction["trace_id"] == "a1" * 16


def test_trace_identifier_stays_that_of_the_request_before_when_not_monitored(wire, collector):
    collector.replies.extend([DISABLED, dict(collector.reply), DISABLED])
    server, page = wire.cgi_server(), wire.script("var_dump(kaq_trace_id());")
    before, during, after = (server.request(page).body for _ in range(3))
    assert before == b'string(0) ""\n'
    assert during == after == b'string(32) "%s"\n' % (
        collector.payloads[0].transaction["trace_id"].encode())


def test_agent_version_and_span_identifier(wire):
    assert lines(wire.cli("var_dump(kaq_agent_version(), kaq_span_id());")) == [
        'string(3) "4.9"', "NULL"]


# Diagnostics -------------------------------------------------------------------------------------

@pytest.mark.parametrize("depth", [15, 0, 3, 100, -1])
def test_stack_depth_prints_the_setting(wire, depth):
    out = lines(wire.cli("ob_start(); var_dump(kaq_stack_depth()); echo strrev(ob_get_clean());",
                         settings={"kaq.stack_depth": depth}))
    assert "\n".join(out)[::-1].strip("\n") == "stack depth = %d<br>NULL" % depth


def test_stack_depth_follows_the_script(wire):
    assert lines(wire.cli("ini_set('kaq.stack_depth', '4'); kaq_stack_depth();")) == [
        "stack depth = 4<br>"]


def test_stack_is_printed_innermost_first_with_a_tab_behind(wire):
    result = wire.cli("class A {\nfunction m() {\nkaq_print_stacktrace();\n}\n}\n"
                      "function f() { (new A)->m(); }\nf();")
    path = str(wire.directory / "job.php").replace("/", "\\/")
    frames = [["", "kaq_print_stacktrace", 4], ["A", "m", 7], ["", "f", 8]]
    assert result.stdout.decode() == "kaq st: " + ",".join(
        '["%s","%s","%s",%d]' % (class_, name, path, line)
        for class_, name, line in frames) + "\t"


@pytest.mark.parametrize("depth,frames", [(2, 2), (15, 15), (30, 30), (31, 30), (0, 42)])
def test_stack_is_printed_to_the_depth_of_the_setting(wire, depth, frames):
    out = wire.cli("function f($n) { if ($n) f($n - 1); else kaq_print_stacktrace(); } f(40);",
                   settings={"kaq.stack_depth": depth}).stdout.decode()
    assert out.startswith("kaq st: [") and out.endswith("]\t")
    assert len(json.loads("[" + out[len("kaq st: "):-1] + "]")) == frames


def test_debug_crash_ends_the_process_by_a_segmentation_fault(wire):
    result = wire.cli("echo 'before'; kaq_debug_crash(); echo 'after';")
    assert result.status == -signal.SIGSEGV and b"after" not in result.stdout


HEADER_CALLS = [
    ("1, 'X-A: b'", 6), ("1, ''", 0), ("1, 5", 0), ("1, null", 0), ("1, ['x']", 0), ("", 0),
    ("1", 0), ("1, 'abc', 2", 0), ("null, \"a\\0b\"", 3), ("new stdClass, 'four'", 4),
    ("1, new Line", 0)]


@pytest.mark.parametrize("arguments,length", HEADER_CALLS, ids=[a for a, _ in HEADER_CALLS])
def test_header_callback_returns_the_length_of_a_text_without_a_word(wire, arguments, length):
    out = lines(wire.cli(TELL + "class Line { function __toString() { return 'x'; } }"
                         "try { var_dump(kaq_store_curl_response_headers(%s)); }"
                         "catch (Throwable $e) { echo get_class($e); }" % arguments))
    assert out == ["int(%d)" % length]


# Requests that are not monitored -----------------------------------------------------------------

EVERY_CALL = """
$n = str_repeat('a b', mt_rand(1, 1));
var_dump(kaq_transaction_name($n), $n, kaq_app_param_increment('x'), kaq_app_param_avg('x', 1),
    kaq_custom_params('k', 'v'), kaq_set_appname('shop'), kaq_agent_version(), kaq_trace_id(),
    kaq_span_id(), kaq_set_session_id('s'), kaq_store_curl_response_headers(1, 'X: y'));
kaq_stack_depth();
kaq_print_stacktrace();
"""
EVERY_RESULT = [
    "NULL", 'string(3) "a_b"', "NULL", "NULL", "NULL", "NULL", 'string(3) "4.9"', 'string(0) ""',
    "NULL", "NULL", "int(4)"]


def test_functions_work_in_a_request_that_is_not_monitored(wire, collector):
    collector.reply = DISABLED
    server, page = wire.cgi_server(), wire.script(EVERY_CALL)
    for _ in range(3):
        body = server.request(page).body.decode().splitlines()
        assert body[:-1] == EVERY_RESULT
        assert body[-1].startswith("stack depth = 15<br>kaq st: [")
    assert collector.notices == [DISABLED_NOTICE] * 3 and not collector.payloads


def test_functions_work_in_a_skipped_request_and_without_a_collector(wire, collector):
    out = lines(wire.cli(EVERY_CALL, settings={"kaq.capture_clirequest": 0}))
    assert out[:-1] == EVERY_RESULT and not collector.payloads
    out = lines(wire.cli(EVERY_CALL, settings={"kaq.status_port": 1, "kaq.data_port": 1}))
    assert out[:-1] == EVERY_RESULT


# After the request -------------------------------------------------------------------------------

LATE_CALLS = """
class Handler implements SessionHandlerInterface {
    #[ReturnTypeWillChange]
    function open($path, $name) { return true; }
    #[ReturnTypeWillChange]
    function close() { return true; }
    #[ReturnTypeWillChange]
    function read($id) { return ''; }
    #[ReturnTypeWillChange]
    function destroy($id) { return true; }
    #[ReturnTypeWillChange]
    function gc($lifetime) { return 1; }
    #[ReturnTypeWillChange]
    function write($id, $data) {
        $n = str_repeat('a b', mt_rand(1, 1));
        kaq_transaction_name($n); kaq_app_param_increment('x'); kaq_app_param_avg('x', 1);
        kaq_custom_params('k', $n); kaq_set_appname('late'); kaq_set_session_id('late');
        kaq_store_curl_response_headers(1, 'X: y');
        file_put_contents($_SERVER['KAQ_NOTE'], $n . kaq_agent_version(), FILE_APPEND);
        return true;
    }
}
if ($_GET) {
    session_set_save_handler(new Handler, false);
    session_start();
    $_SESSION['a'] = 1;
}
"""


def test_what_is_given_after_the_request_reaches_no_other_one(wire, collector):
    """The engine writes the session when the request has been sent."""
    note = wire.directory / "note"
    server, page = wire.cgi_server({"session.save_path": wire.directory}), wire.script(LATE_CALLS)
    for query in ("n=1", "", "n=1", ""):
        server.request(page, QUERY_STRING=query, REQUEST_URI="/page", KAQ_NOTE=str(note))
    assert note.read_text() == "a_b4.9" * 2
    for payload in collector.payloads:
        assert payload.transaction["t_name"] == "/page"
        assert payload.application["application_name"] == "PHP-Application"
        assert not {"session_id", "custom_params"} & set(payload.transaction)
        assert app_parameters(payload) == "{}"
    assert len(collector.payloads) == 4
