"""Exceptions: which throws are recorded, on which span, and what a record says."""
import pytest
from engines import DROP_SHORT, KEEP_ALL
from failure_records import (FAILED_BY_BOTH, FAILED_BY_ERROR, FAILED_BY_EXCEPTION,
                             assert_only_record, assert_written, flags, is_failed, payload_of,
                             stack, texts, told)
from fake_collector import DISABLED


def caught(code):
    return "try { %s } catch (Throwable $caught) {} " % code


# The record --------------------------------------------------------------------------------------

def test_record_of_an_exception_on_the_wire(wire, collector):
    path = wire.script("function f() {\n  throw new LogicException('broke', 7);\n}\n"
                       + caught("f();"))
    wire.cli(path, settings=DROP_SHORT)
    payload = collector.payload
    span = payload.span("f")
    assert_only_record(payload, span, err_clz="LogicException", filename=str(path), linenumber=3,
                       level="Warning", str="broke")
    assert stack(("", "f", str(path), 5)) in payload.text
    assert flags(span) == FAILED_BY_EXCEPTION and not is_failed(payload.root)


def test_time_of_a_record_is_when_it_was_thrown_and_not_when_it_was_made(wire, collector):
    out = wire.cli("$e = new Exception; usleep(60000); echo (int)(microtime(true) * 1000), ' ';"
                   + caught("throw $e;") + "echo (int)(microtime(true) * 1000);").stdout.decode()
    before, after = (int(word) for word in out.split())
    assert before <= collector.payload.root["ei"][0]["time"] <= after


def test_place_of_a_record_is_where_it_was_made(wire, collector):
    payload = payload_of(wire, collector, "$e = new Exception('x');\n\n" + caught("throw $e;"))
    assert payload.root["ei"][0]["linenumber"] == 2


@pytest.mark.parametrize("thrown, name", [
    ("new Shop\\Cart\\EmptyError('t')", "Shop\\Cart\\EmptyError"),
    ("new mixedCASE('t')", "MixedCase"),
    ("new class('t') extends Exception {}", "@anonymous"),
    ("made_by_eval()", "Made"), ("alias()", "MixedCase"), ("new \u00dcber('t')", "\u00dcber"),
    ("new Error('t')", "Error"), ("new ErrorException('t')", "ErrorException")])
def test_class_name(wire, collector, thrown, name):
    wire.script("namespace Shop\\Cart; class EmptyError extends \\Exception {}", name="cart.php")
    payload = payload_of(wire, collector, """
        include __DIR__ . '/cart.php'; class MixedCase extends Exception {}
        class \u00dcber extends Exception {}
        function made_by_eval() { eval('class Made extends Exception {}'); return new Made('t'); }
        function alias() { class_alias('MixedCase', 'Other'); return new Other('t'); }
    """ + caught("throw %s;" % thrown))
    (written, level, message), = told(payload.root)
    assert written.endswith(name) if name == "@anonymous" else written == name
    assert (level, message) == ("Warning", "t")


@pytest.mark.parametrize("code, name, message", [
    ("intdiv(1, 0);", "DivisionByZeroError", "Division by zero"),
    ("nowhere();", "Error", "Call to undefined function nowhere()"),
    ("(function (int $i) {})('x');", "TypeError", None),
    ("new DateTime('no time');", "class_of_a_bad_date", None),
    ("eval('(');", "ParseError", None),
    ("(new ReflectionMethod('A', 'b'));", "ReflectionException", None)])
def test_exceptions_of_the_engine(wire, collector, engine, code, name, message):
    payload = payload_of(wire, collector, caught(code))
    told_by = [one for span in payload.spans for one in told(span)]
    if told_by[0][0] == "ERROR":  # some engines make the exception of a warning
        assert code.startswith("new DateTime") and engine.version_id < 80000
        told_by.pop(0)
    assert [one[:2] for one in told_by] == [(getattr(engine, name, name), "Warning")]
    assert message in (None, told_by[0][2])


BEHAVES = """
    class Odd extends Exception {
        function __construct(%s) { %s }
        function __get($name) { echo "get $name "; return 'magic'; }
        function __isset($name) { echo "isset $name "; return true; }
        function __toString() { echo 'string '; return 'text'; }
    }
    class Text { function __toString() { echo 'asked '; return 'text'; } }
"""


@pytest.mark.parametrize("code, member, value", [
    ("$this->message = 5;", "str", "5"), ("$this->message = -1.5;", "str", "-1.5"),
    ("$this->message = null;", "str", ""), ("$this->message = true;", "str", "1"),
    ("$this->message = false;", "str", ""), ("unset($this->message);", "str", ""),
    ("$this->message = new Text;", "str", ""), ("$this->message = &$GLOBALS['far'];", "str", "far"),
    ("$this->message = [1, [2]];", "str", "Array"),
    ("$this->message = new stdClass;", "str", ""), ("$this->message = &$GLOBALS['list'];", "str",
                                                    "Array"),
    ("$this->message = STDERR;", "str", "Resource id #3"),
    ("$this->message = 'cut' . chr(0) . 'off';", "str", "cut"),
    ("$this->message = \"\\\"\\t\\\\/\\n\\x02\";", "str", "\"\t\\/\n\x02"),
    ("$this->message = str_repeat('l', 100000);", "str", "l" * 100000),
    ("$this->message = 'Stack trace:';", "str", "Stack trace:"),
    ("$this->file = 'else/where.php';", "filename", "else/where.php"),
    ("$this->file = null;", "filename", ""), ("$this->file = 12;", "filename", "12"),
    ("unset($this->file);", "filename", ""), ("$this->file = new Text;", "filename", ""),
    ("$this->line = 77;", "linenumber", 77), ("$this->line = -3;", "linenumber", -3),
    ("$this->line = '12';", "linenumber", 12), ("$this->line = 12.75;", "linenumber", 12),
    ("$this->line = 'x';", "linenumber", 0), ("$this->line = null;", "linenumber", 0),
    ("$this->line = &$GLOBALS['number'];", "linenumber", 12),
    ("$this->line = true;", "linenumber", 1), ("unset($this->line);", "linenumber", 0),
    ("$this->line = new Text;", "linenumber", 0),
    ("$this->line = PHP_INT_MIN;", "linenumber", -2 ** 63)])
def test_properties_that_a_class_has_made_odd(wire, collector, engine, code, member, value):
    """Whatever they hold, the script's code does not run for it."""
    if engine.version_id >= 80100 and ("line = 12.75" in code or "line = null" in code
                                       or "line = 'x'" in code or "line = new" in code
                                       or "file = null" in code or "file = new" in code):
        pytest.skip("the properties have types here")
    source = "$far = 'far'; $list = [1]; $number = 12;" + BEHAVES % ("", code) + (
        "class Plain extends Odd {} function f() { throw new Plain; } try { f(); }"
        "catch (Plain $caught) { echo 'caught'; }")
    result = wire.cli(source, settings=dict(DROP_SHORT, display_errors=1))
    assert result.stdout == b"caught"
    record, = collector.payload.span("f")["ei"]
    assert record["err_clz"] == "Plain" and record[member] == value
    assert_written(collector.payload, collector.payload.span("f"))


def test_message_that_carries_a_stack_needs_none(wire, collector):
    payload = payload_of(wire, collector, "function f($text) { throw new Exception($text); }"
                         + caught("f('a Stack trace: b');") + caught("f('other');"))
    assert ["mst" in span for span in payload.spans] == [False, False, True]


def test_properties_that_a_class_declares_anew(wire, collector):
    payload = payload_of(wire, collector, """
        class Own extends Exception { public $message = 'of the class'; protected $code = 9; }
    """ + caught("throw new Own;"))
    assert told(payload.root) == [("Own", "Warning", "of the class")]


# The span ----------------------------------------------------------------------------------------

def test_exception_marks_the_span_that_throws_and_no_other(wire, collector):
    payload = payload_of(wire, collector, """
        function a() { b(); } function b() { c(); } function c() { throw new Exception('up'); }
    """ + caught("a();"), prune_intermediate_spans=1)
    assert payload.tree() == ("main", [("c", [])])
    assert flags(payload.span("c")) == FAILED_BY_EXCEPTION


def test_exception_that_is_thrown_again_is_recorded_again(wire, collector):
    payload = payload_of(wire, collector, """
        function a() { try { b(); } catch (Exception $e) { throw $e; } }
        function b() { throw new Exception('same'); }
    """ + caught("a();"))
    assert texts(payload.span("a")) == texts(payload.span("b")) == ["same"]
    assert not is_failed(payload.root)


def test_second_exception_of_a_span_adds_a_record_and_leaves_the_stack(wire, collector):
    path = wire.script("function f() {\n" + caught("throw new Exception('a');") + "\n"
                       + caught("throw new LogicException('b');") + "\n}\nf();")
    wire.cli(path, settings=DROP_SHORT)
    payload = collector.payload
    assert told(payload.span("f")) == [("Exception", "Warning", "a"),
                                       ("LogicException", "Warning", "b")]
    assert_written(payload, payload.span("f"))
    assert payload.text.count('"mst":') == 1
    assert stack(("", "f", str(path), 6)) in payload.text


def test_span_with_an_error_and_an_exception_has_both_flags(wire, collector):
    payload = payload_of(wire, collector, "function f() { trigger_error('e', E_USER_WARNING);"
                                          "throw new Exception('x'); }" + caught("f();"))
    assert told(payload.span("f")) == [("ERROR", "Warning", "e"), ("Exception", "Warning", "x")]
    assert flags(payload.span("f")) == FAILED_BY_BOTH


def test_exception_of_a_function_that_is_instrumented_is_its_own(drivers, collector):
    payload = drivers.payload(
        "kaq_standin_plan('mysql_query', 'throw'); function f() { mysql_query('q'); }"
        + caught("f();"), {"kaq.track_exceptions": 1})
    span = payload.span("mysql_query")
    assert told(span) == [("Exception", "Warning", "planned exception")]
    assert span["if"] == 1 and "ie" not in span
    assert [frame[1] for frame in span["mst"]] == ["mysql_query", "f"]
    assert not is_failed(payload.span("f"))


@pytest.mark.parametrize("source, expected", [
    ("function g() { yield 1; throw new Exception('g'); } foreach (g() as $v) {}", {"g": ["g"]}),
    ("class D { function __destruct() { throw new Exception('d'); } } new D;",
     {"D::__destruct": ["d"]}),
    ("function f() { try { throw new Exception('1'); } finally { throw new Exception('2'); } }"
     "f();", {"f": ["1", "2"]}),
    ("function f() { try { try { throw new Exception('1'); } finally { h(); } }"
     "finally { return 1; } } function h() { try { throw new Exception('2'); }"
     "catch (Exception $e) {} } f();", {"f": ["1"], "h": ["2"]}),
    ("(function () { throw new Exception('c'); })();", {"{closure}": ["c"]}),
    ("array_map(function () { throw new Exception('m'); }, [1]);", {"{closure}": ["m"]}),
    ("spl_autoload_register(function ($c) { throw new Exception($c); }); new Missing;",
     {"{closure}": ["Missing"]}),
    ("set_error_handler(function ($n, $text) { throw new ErrorException($text); });"
     "function f() { trigger_error('t'); } f();", {"{closure}": ["t"]}),
    ("class C { static function s() { throw new Exception('s'); } } C::s();", {"C::s": ["s"]})],
    ids=["generator", "destructor", "finally", "finally returns", "closure", "callback",
         "autoload", "error handler", "static method"])
def test_where_an_exception_may_come_from(wire, collector, source, expected):
    payload = payload_of(wire, collector, caught(source))
    assert {span["fn"]: texts(span) for span in payload.spans if is_failed(span)} == expected


def test_exception_in_a_shutdown_function(wire, collector):
    payload = payload_of(wire, collector, "register_shutdown_function(function () {"
                                          "throw new Exception('late'); });")
    assert told(payload.span("{closure}")) == [("Exception", "Warning", "late")]


def test_exit_is_no_exception(wire, collector):
    payload = payload_of(wire, collector, "function f() { try { exit; } finally { echo 1; } } f();")
    assert not any(is_failed(span) for span in payload.spans)


def test_end_of_a_fiber_is_no_exception(wire, collector, engine):
    """The engine throws marks of its own into a fiber that is left, and out of one that exits."""
    if engine.version_id < 80100:
        pytest.skip("no fibers in this engine")
    payload = payload_of(wire, collector, """
        function left() { try { Fiber::suspend(); } finally { echo 'left '; } }
        function exits() { try { exit('exits '); } finally { echo 'never'; } }
        function both() { $fiber = new Fiber('left'); $fiber->start(); unset($fiber);
                          (new Fiber('exits'))->start(); }
        both();
    """, method_threshold=0)
    assert payload.names == ["both", "left", "exits"]
    assert not any(is_failed(span) for span in payload.spans)


def test_exception_that_is_only_made_is_not_recorded(wire, collector):
    payload = payload_of(wire, collector, "function f() { return new Exception('made'); } f();")
    assert payload.names == [] and not is_failed(payload.root)


def test_uncaught_exception_of_the_script_itself(wire, collector):
    payload = payload_of(wire, collector, "throw new Exception('out');")
    assert [one[:2] for one in told(payload.root)] == [
        ("Exception", "Warning"), ("ERROR", "Error")]
    assert flags(payload.root) == FAILED_BY_BOTH


def test_exception_handler_takes_the_error_away(wire, collector):
    payload = payload_of(wire, collector, "set_exception_handler(function ($e) {});"
                                          "function f() { throw new Exception('out'); } f();")
    assert texts(payload.span("f")) == ["out"] and not is_failed(payload.root)


def test_fiber_keeps_its_exceptions_to_its_own_span(wire, collector, engine):
    if engine.version_id < 80100:
        pytest.skip("no fibers in this engine")
    payload = payload_of(wire, collector, """
        function f() { try { Fiber::suspend(); } catch (Exception $e) { throw $e; } }
        function resumes($fiber) { $fiber->throw(new Exception('in')); }
        $fiber = new Fiber('f'); $fiber->start();
    """ + caught("resumes($fiber);"))
    assert texts(payload.span("f")) == ["in", "in"]
    assert not is_failed(payload.root)


# The caps ----------------------------------------------------------------------------------------

CLASSES = "".join("class E%d extends Exception {} function t%d() { throw new E%d('%d'); }"
                  % (n, n, n, n) for n in range(12))


def throws(*numbers):
    return CLASSES + "".join(caught("t%d();" % n) for n in numbers)


def recorded(payload):
    return [int(one[2]) for span in payload.spans for one in told(span)]


def test_eleventh_class_is_not_recorded_and_neither_is_any_later_exception(wire, collector):
    payload = payload_of(wire, collector, throws(*range(12), 0, 9, 11))
    assert recorded(payload) == list(range(10))
    assert payload.names == ["t%d" % n for n in range(10)]


def test_tenth_class_closes_the_list_for_every_known_class(wire, collector):
    payload = payload_of(wire, collector, throws(*range(9), 0, 0, 8, 9, 9, 0))
    assert recorded(payload) == [*range(9), 0, 0, 8, 9]


def test_few_classes_are_recorded_any_number_of_times(wire, collector):
    payload = payload_of(wire, collector, CLASSES + "for ($i = 0; $i < 500; $i++) { %s }"
                         % (caught("t1();") + caught("t2();")))
    assert recorded(payload) == [1, 2] * 500


def test_classes_are_told_apart_by_their_whole_name(wire, collector):
    """Were two of these one class the list would not be full when the eleventh comes."""
    names = ["A", "AA", "AAA", "A_", "_A", "A1", "A11", "AB", "BA", "B"]
    payload = payload_of(
        wire, collector, "".join("class %s extends Exception {} " % name for name in names)
        + "".join(caught("throw new %s('%d');" % (name, n)) for n, name in enumerate(names))
        + caught("throw new Exception('10');"))
    assert recorded(payload) == list(range(10))


def test_classes_without_a_name_count_as_one_is_meant(wire, collector):
    """What tells them apart stands behind a NUL, where a name ends."""
    payload = payload_of(wire, collector, "".join(
        caught("throw new class('%d') extends Exception {};" % n) for n in range(12))
        + throws(*range(9)))
    assert recorded(payload) == [*range(12), *range(9)]


def test_errors_do_not_count_as_exceptions(wire, collector):
    payload = payload_of(wire, collector, "for ($n = 0; $n < 30; $n++) @trigger_error('-1');"
                         + throws(*range(12)))
    assert recorded(payload) == [-1] * 10 + list(range(10))


def test_list_of_classes_begins_anew_with_each_request(collector, worker):
    worker.open(throws(*range(12)) + "echo 'page';", DROP_SHORT)
    for _ in range(3):
        assert worker.get("/page") == b"page"
    assert [recorded(payload) for payload in collector.payloads] == [list(range(10))] * 3


def test_messages_of_a_request_end_at_sixteen_megabytes(wire, collector):
    result = wire.same_as_bare(wire.cli, settings=KEEP_ALL, source="""
        function f() { for ($i = 0; $i < 200; $i++) {
            try { throw new Exception($i . str_repeat('x', 200000)); } catch (Exception $e) {} } }
        f(); echo 'done';
    """)
    assert result.stdout == b"done"
    records = collector.payload.span("f")["ei"]
    with_message = 16 * 1024 * 1024 // 200100
    assert len(records) == 200
    assert ["str" in record for record in records] == [
        number < with_message for number in range(200)]


# Switches ----------------------------------------------------------------------------------------

def test_without_exception_tracking_only_errors_are_recorded(wire, collector):
    payload = payload_of(wire, collector, "function f() { throw new Exception('x'); }"
                         + caught("f();") + "f();", track_exceptions=0)
    assert payload.names == []
    assert [one[:2] for one in told(payload.root)] == [("ERROR", "Error")]
    assert flags(payload.root) == FAILED_BY_ERROR


def test_lowest_severity_of_errors_does_not_matter_to_exceptions(wire, collector):
    payload = payload_of(wire, collector, caught("throw new Exception('x');"), track_errors=3)
    assert told(payload.root) == [("Exception", "Warning", "x")]


def test_switched_off_at_run_time_exceptions_are_recorded_all_the_same(wire, collector):
    """The hook stands since module start."""
    payload = payload_of(wire, collector, "ini_set('kaq.track_exceptions', '0');"
                         + caught("throw new Exception('x');"))
    assert texts(payload.root) == ["x"]


def test_unmonitored_request_throws_as_ever(wire, collector):
    collector.reply = DISABLED
    wire.same_as_bare(wire.cli, settings=KEEP_ALL, source=throws(*range(12)) + "t0();")
    assert len(collector.notices) == 1
