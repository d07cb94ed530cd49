"""How PHP values become JSON text, seen through the request input of a web request."""
import pytest


def encoded(wire, collector, statement, **arguments):
    """The text of http_input_params after the script has run the statement, as bytes."""
    collector.forget()
    wire.cgi(statement, **arguments)
    text = collector.payload.raw_member("http_input_params")
    return text if text is None else text.encode("utf-8", "surrogateescape")


@pytest.mark.parametrize("value,text", [
    ("null", b"null"), ("true", b"true"), ("false", b"false"),
    ("0", b"0"), ("-1", b"-1"), ("PHP_INT_MAX", b"9223372036854775807"),
    ("~PHP_INT_MAX", b"-9223372036854775808"),
    ("3.0", b"3"), ("-2.5", b"-2.5"), ("0.1", b"0.1"), ("1/3", b"0.33333333333333"),
    ("2/3", b"0.66666666666667"), ("100000.0", b"100000"), ("123456789.125", b"123456789.125"),
    ("1e13", b"10000000000000"), ("1e20", b"1.0e+20"), ("1.5e-7", b"1.5e-7"), ("0.0", b"0"),
    ("-0.0", b"-0"), ("INF", b"null"), ("-INF", b"null"), ("NAN", b"null"),
    ("''", b'""'), ("'text'", b'"text"'),
    ("new stdClass", b'"[object]"'), ("function() {}", b'"[object]"'),
    ("new ArrayObject([1])", b'"[object]"'), ("fopen('php://memory', 'r')", b'"[resource]"'),
], ids=lambda item: str(item))
def test_value_inside_the_input(wire, collector, value, text):
    assert encoded(wire, collector, "$_REQUEST = [%s];" % value) == b"[" + text + b"]"


def test_closed_resource_is_still_a_resource(wire, collector):
    assert encoded(wire, collector, "$f = fopen('php://memory', 'r'); $_REQUEST = [$f]; fclose($f);"
                   ) == b'["[resource]"]'


@pytest.mark.parametrize("code,text", [
    (0x01, b"\\u0001"), (0x07, b"\\u0007"), (0x08, b"\\b"), (0x09, b"\\t"), (0x0a, b"\\n"),
    (0x0b, b"\\u000b"), (0x0c, b"\\f"), (0x0d, b"\\r"), (0x0e, b"\\u000e"), (0x1b, b"\\u001b"),
    (0x1f, b"\\u001f"), (0x20, b" "), (0x22, b'\\"'), (0x27, b"'"), (0x2f, b"\\/"),
    (0x3c, b"<"), (0x5c, b"\\\\"), (0x7e, b"~"), (0x7f, b"\x7f"), (0x80, b"\x80"),
    (0xa0, b"\xa0"), (0xff, b"\xff")], ids=lambda item: str(item))
def test_byte_in_a_string(wire, collector, code, text):
    assert encoded(wire, collector, "$_REQUEST = ['a' . chr(%d) . 'b'];" % code) == (
        b'["a' + text + b'b"]')


def test_every_byte_but_nul_at_every_place_of_a_long_string(wire, collector):
    named = {8: b"\\b", 9: b"\\t", 10: b"\\n", 12: b"\\f", 13: b"\\r",
             0x22: b'\\"', 0x2f: b"\\/", 0x5c: b"\\\\"}
    bytes_in_text = b"".join(
        named.get(code) or (b"\\u%04x" % code if code < 32 else bytes([code]))
        for code in range(1, 256))
    expected = b",".join(b'"' + b"." * shift + bytes_in_text + b'"' for shift in range(40))
    out = encoded(wire, collector, """
        $all = ''; for ($i = 1; $i < 256; $i++) $all .= chr($i);
        $_REQUEST = []; for ($i = 0; $i < 40; $i++) $_REQUEST[] = str_repeat('.', $i) . $all;
    """)
    assert out == b"[" + expected + b"]"


@pytest.mark.parametrize("text", [
    "\u00e9", "\u4e2d\u6587", "\U0001f600", "\u2028", "\udcc3", "\udced\udca0\udc80",
    "\udcc0\udc80"])
def test_bytes_beyond_ascii_go_raw_be_they_utf_8_or_not(wire, collector, text):
    raw = text.encode("utf-8", "surrogateescape")
    statement = b"$_REQUEST = ['k" + raw + b"' => '" + raw + b"'];"
    assert encoded(wire, collector, statement) == b'{"k' + raw + b'":"' + raw + b'"}'


@pytest.mark.parametrize("value,text", [
    ('"a\\0b"', b'"a"'), ('"\\0"', b'""'), ('"\\0\\0x"', b'""'),
    ('str_repeat("x", 100) . "\\0y"', b'"' + b"x" * 100 + b'"')])
def test_string_ends_at_its_first_nul_byte_which_is_meant(wire, collector, value, text):
    assert encoded(wire, collector, "$_REQUEST = [%s];" % value) == b"[" + text + b"]"


@pytest.mark.parametrize("key,text", [
    ("'a'", b"a"), ("''", b""), ("'a/b\"'", b'a\\/b\\"'), ('"a\\0b"', b"a"), ('"\\n"', b"\\n"),
    ("'01'", b"01"), ("' 1'", b" 1"), ("1", b"1"), ("PHP_INT_MAX", b"9223372036854775807")])
def test_key_of_an_object(wire, collector, key, text):
    assert encoded(wire, collector, "$_REQUEST = [%s => 1];" % key) == b'{"' + text + b'":1}'


@pytest.mark.parametrize("key,text", [
    ("-1", b"18446744073709551615"), ("-2", b"18446744073709551614"),
    ("~PHP_INT_MAX", b"9223372036854775808"), ("'-5'", b"18446744073709551611")])
def test_negative_key_is_printed_unsigned_which_is_meant(wire, collector, key, text):
    assert encoded(wire, collector, "$_REQUEST = [%s => 'v'];" % key) == b'{"' + text + b'":"v"}'


@pytest.mark.parametrize("statement,text", [
    ("$_REQUEST = [1, 2, 3];", b"[1,2,3]"),
    ("$_REQUEST = [0 => 'a', 1 => 'b'];", b'["a","b"]'),
    ("$_REQUEST = [1 => 'a', 2 => 'b'];", b'{"1":"a","2":"b"}'),
    ("$_REQUEST = [1, 2, 3]; unset($_REQUEST[1]);", b'{"0":1,"2":3}'),
    ("$_REQUEST = [1, 2, 3]; unset($_REQUEST[2]);", b"[1,2]"),
    ("$_REQUEST = [1, 2, 3]; unset($_REQUEST[0]);", b'{"1":2,"2":3}'),
    ("$_REQUEST = []; $_REQUEST[1] = 'b'; $_REQUEST[0] = 'a';", b'{"1":"b","0":"a"}'),
    ("$_REQUEST = [0 => 'a', 'k' => 'b', 1 => 'c'];", b'{"0":"a","k":"b","1":"c"}'),
    ("$_REQUEST = ['k' => 1, 'l' => 2, 'm' => 3]; unset($_REQUEST['k']);", b'{"l":2,"m":3}'),
    ("$_REQUEST = ['k' => 1, 'l' => 2]; unset($_REQUEST['l']);", b'{"k":1}'),
    ("$_REQUEST = ['k' => 1, 5 => 2]; unset($_REQUEST['k']); $_REQUEST['z'] = 3;",
     b'{"5":2,"z":3}'),
    ("$_REQUEST = [[], [[]], ['a' => []]];", b'[[],[[]],{"a":[]}]'),
    ("$_REQUEST = range(0, 299);",
     b"[" + b",".join(b"%d" % number for number in range(300)) + b"]"),
], ids=lambda item: str(item)[:50])
def test_list_or_object(wire, collector, statement, text):
    assert encoded(wire, collector, statement) == text


@pytest.mark.parametrize("statement", [
    "$_REQUEST = [];", "$_REQUEST = ['a' => 1]; unset($_REQUEST['a']);", ""])
def test_input_that_is_an_empty_array_is_left_out(wire, collector, statement):
    assert encoded(wire, collector, statement) is None


def test_input_that_no_longer_exists_is_left_out(wire, collector):
    assert encoded(wire, collector, "unset($_REQUEST);", QUERY_STRING="a=1") is None


@pytest.mark.parametrize("statement,text", [
    ("$_REQUEST = null;", b"null"), ("$_REQUEST = false;", b"false"),
    ("$_REQUEST = 'text';", b'"text"'), ("$_REQUEST = 4;", b"4"), ("$_REQUEST = '[]';", b'"[]"'),
    ("$_REQUEST = ''; ", b'""'), ("$o = new stdClass; $_REQUEST = $o;", b'"[object]"')])
def test_input_that_the_script_made_something_else_is_written_as_it_is(
        wire, collector, statement, text):
    assert encoded(wire, collector, statement) == text


# Depth and references ----------------------------------------------------------------------------

def nested(levels):
    """A statement that puts an array below `levels` - 1 others into the input."""
    return "$v = ['x']; for ($i = 1; $i < %d; $i++) $v = [$v]; $_REQUEST = [$v];" % levels


def test_value_32_levels_down_is_still_written(wire, collector):
    assert encoded(wire, collector, nested(31)) == b"[" * 32 + b'"x"' + b"]" * 32


def test_value_33_levels_down_is_null(wire, collector):
    assert encoded(wire, collector, nested(32)) == b"[" * 33 + b"null" + b"]" * 33


def test_array_33_levels_down_is_null_however_deep_it_goes(wire, collector):
    for levels in (33, 40, 1000):
        assert encoded(wire, collector, nested(levels)) == b"[" * 33 + b"null" + b"]" * 33


def test_empty_array_33_levels_down_is_null_too(wire, collector):
    statement = "$v = []; for ($i = 1; $i < 33; $i++) $v = [$v]; $_REQUEST = [$v];"
    assert encoded(wire, collector, statement) == b"[" * 33 + b"null" + b"]" * 33


@pytest.mark.parametrize("statement,text", [
    ("$x = 1; $_REQUEST = ['a' => &$x, 'b' => $x];", b'{"a":null,"b":1}'),
    ("$_REQUEST = [[1, 2]]; foreach ($_REQUEST[0] as &$v) {}", b"[null]"),
    ("$in = [1, 2]; foreach ($in as &$v) {} unset($v); $_REQUEST = $in;", b"[null,null]"),
    ("$_REQUEST = [1, 2]; foreach ($_REQUEST as &$v) {}", b"null"),
    ("$in = [1]; $_REQUEST = [&$in, [&$in]];", b"[null,[null]]"),
    ("$_REQUEST = [1]; $other = &$_REQUEST;", b"null"),
    ("$_REQUEST = ['self' => 1]; $_REQUEST['self'] = &$_REQUEST;", b"null"),
], ids=lambda item: str(item)[:50])
def test_reference_is_null_and_never_followed_which_is_meant(wire, collector, statement, text):
    assert encoded(wire, collector, statement) == text


@pytest.mark.parametrize("statement", [
    "$_REQUEST = ['g' => $GLOBALS];",
    "$_REQUEST = [$GLOBALS, $GLOBALS, $GLOBALS];",
    "$_REQUEST = ['g' => $GLOBALS, 'h' => [$GLOBALS, [$GLOBALS]]]; $x = $_REQUEST;",
], ids=["once", "thrice", "nested"])
def test_input_that_holds_the_globals_exhausts_neither_memory_nor_time(wire, collector, statement):
    wire.same_as_bare(wire.cgi, source=statement + " echo 'own output';")
    collector.settle()
    assert len(collector.data_records) == 1


# From real requests ------------------------------------------------------------------------------

@pytest.mark.parametrize("query,text", [
    ("a=1", b'{"a":"1"}'), ("a", b'{"a":""}'), ("a=1&a=2", b'{"a":"2"}'),
    ("b[]=2&b[]=3", b'{"b":["2","3"]}'), ("b[x][y]=z", b'{"b":{"x":{"y":"z"}}}'),
    ("0=x&1=y", b'["x","y"]'), ("5=x", b'{"5":"x"}'), ("-3=x", b'{"18446744073709551613":"x"}'),
    ("a=%2F%22%5C", b'{"a":"\\/\\"\\\\"}'), ("a=%00b", b'{"a":""}'), ("a=%FF", b'{"a":"\xff"}'),
    ("a=%C3%A9", b'{"a":"\xc3\xa9"}'), ("a=x%0Ay", b'{"a":"x\\ny"}'), ("a.b=1", b'{"a_b":"1"}')])
def test_query_parameters(wire, collector, query, text):
    assert encoded(wire, collector, "", QUERY_STRING=query, REQUEST_URI="/?" + query) == text


def test_query_form_and_cookies_together(wire, collector):
    assert encoded(
        wire, collector, "", QUERY_STRING="q=1", body=b"f=2&q=3", REQUEST_METHOD="POST",
        CONTENT_TYPE="application/x-www-form-urlencoded", HTTP_COOKIE="c=4",
        settings={"request_order": "GPC"}) == b'{"q":"3","f":"2","c":"4"}'


def test_input_is_there_even_when_the_script_never_mentions_it(wire, collector):
    assert encoded(wire, collector, "", QUERY_STRING="a=1", settings={"auto_globals_jit": 1}) == (
        b'{"a":"1"}')
