"""PHP errors: which of them are recorded, on which span, and what a record says."""
import json
import re

import pytest
from engines import DROP_SHORT, KEEP_ALL, REPOSITORY
from failure_records import (FAILED_BY_ERROR, assert_only_record, assert_written, flags, is_failed,
                             json_text, payload_of, stack, texts, told)
from fake_collector import DISABLED
from payloads import escape

# One error of each kind that a script can raise and survive; what the message begins with is the
# name of the kind where the script may choose it.
KINDS = {
    "notice": "@ob_end_clean();",
    "user notice": "trigger_error('user notice', E_USER_NOTICE);",
    "deprecated": "if (PHP_VERSION_ID < 80000) { Old::run(); } else { $o = new Old; $o->p = 1; }",
    "user deprecated": "trigger_error('user deprecated', E_USER_DEPRECATED);",
    "warning": "hex2bin('a');",
    "compile warning": "eval('declare(unknown=1);');",
    "user warning": "trigger_error('user warning', E_USER_WARNING);",
    "user error": "trigger_error('user error', E_USER_ERROR);",
}
SEVERITIES = {"notice": 1, "user notice": 1, "deprecated": 1, "user deprecated": 1, "warning": 2,
              "compile warning": 2, "user warning": 2, "user error": 3}
LEVELS = {1: "Notice", 2: "Warning", 3: "Error"}
OLD = "class Old { function run() {} }"


# The record --------------------------------------------------------------------------------------

def test_record_of_an_error_on_the_wire(wire, collector):
    path = wire.script("function f() {\n  trigger_error('broke', E_USER_WARNING);\n}\nf();\n")
    wire.cli(path, settings=DROP_SHORT)
    payload = collector.payload
    span = payload.span("f")
    assert_only_record(payload, span, err_clz="ERROR", filename=str(path), linenumber=3,
                       level="Warning", str="broke")
    assert stack(("", "trigger_error", str(path), 3), ("", "f", str(path), 5)) in payload.text


def test_time_of_a_record_is_when_the_error_came_up(wire, collector):
    out = wire.cli("usleep(60000); echo (int)(microtime(true) * 1000), ' ';"
                   "trigger_error('late'); echo (int)(microtime(true) * 1000);").stdout.decode()
    before, after = (int(word) for word in (out.split()[0], out.split()[-1]))
    assert before <= collector.payload.root["ei"][0]["time"] <= after


@pytest.mark.parametrize("kind", list(KINDS))
def test_level_of_each_kind(wire, collector, engine, kind):
    payload = payload_of(wire, collector, OLD + "function f() { %s } f();" % KINDS[kind])
    records = told(payload.span("f"))
    if kind == "user error" and engine.user_errors_are_deprecated:
        assert records.pop(0)[1] == "Notice"
    (name, level, message), = records
    assert (name, level) == ("ERROR", LEVELS[SEVERITIES[kind]])
    assert message.startswith(kind) if kind.startswith("user") else message


@pytest.mark.parametrize("lowest", [-1, 1, 2, 3, 4, 9])
def test_lowest_severity_that_is_recorded(wire, collector, lowest):
    functions = "".join("function f%d() { %s }" % (n, code)
                        for n, code in enumerate(KINDS.values()))
    calls = "".join("f%d();" % n for n in range(len(KINDS)))
    payload = payload_of(wire, collector, OLD + functions + calls, track_errors=lowest)
    assert payload.names == ["f%d" % n for n, kind in enumerate(KINDS)
                             if SEVERITIES[kind] >= lowest]
    for span in payload.spans[1:]:
        assert flags(span) == FAILED_BY_ERROR
    assert not is_failed(payload.root)


def test_without_error_tracking_nothing_is_recorded(wire, collector):
    payload = payload_of(wire, collector, "function f() { hex2bin('a'); } f(); hex2bin('b');"
                                          "trigger_error('dead', E_USER_ERROR);", track_errors=0)
    assert payload.names == [] and not is_failed(payload.root)


def test_lowest_severity_follows_the_script(wire, collector):
    payload = payload_of(wire, collector, """
        trigger_error('a'); ini_set('kaq.track_errors', '2'); trigger_error('b');
        trigger_error('c', E_USER_WARNING); ini_set('kaq.track_errors', '1'); trigger_error('d');
    """)
    assert texts(payload.root) == ["a", "c", "d"]


@pytest.mark.parametrize("source, message", [
    (r"""'say "no" \\ / ' . "\t\r\n\x01\x7f" """, "say \"no\" \\ / \t\r\n\x01\x7f"),
    ("'sch\u00f6n \u20ac \U0001f600'", "sch\u00f6n \u20ac \U0001f600"), ("''", ""),
    ("'100% %s %n %d'", "100% %s %n %d"), ("\"cut\\0here\"", "cut"),
    ("str_repeat('long ', 20000)", "long " * 20000), ("'[{\"a\":1},'", '[{"a":1},')])
def test_message(wire, collector, source, message):
    payload = payload_of(wire, collector, "trigger_error(%s);" % source)
    assert texts(payload.root) == [message]
    assert_written(payload, payload.root)


def test_place_of_an_error_in_an_included_and_in_evaluated_code(wire, collector):
    included = wire.script("\n\n\ntrigger_error('included');", name="parts/in \"part\".php")
    path = wire.script("include %r;\neval(\"\\n\\ntrigger_error('evaluated');\");" % str(included))
    wire.cli(path, settings=DROP_SHORT)
    records = [record for span in collector.payload.spans for record in span.get("ei", [])]
    assert {(r["str"], r["filename"], r["linenumber"]) for r in records} == {
        ("included", str(included), 5), ("evaluated", "%s(3) : eval()'d code" % path, 3)}


def test_example_of_the_document(wire, collector):
    text = (REPOSITORY / "docs" / "diagnostics.md").read_text(encoding="utf-8")
    source, shown = ("\n".join(line[4:] for line in block.splitlines())
                     for block in re.findall(r"\n\n((?:    .*\n|\n(?=    ))+)", text)[:2])
    path = wire.script(source, name="page.php")
    wire.cli(path)
    shown = json.loads(shown.replace("\\/srv\\/shop\\/page.php", escape(str(path))))
    span = collector.payload.span("Cart::add")
    for one in (shown, span, *shown["ei"], *span["ei"]):
        for key in ("st", "et", "si", "psi", "time"):
            one.pop(key, None)
    assert json_text(span) == json_text(shown)


# The span ----------------------------------------------------------------------------------------

def test_error_marks_the_running_span_alone(wire, collector):
    payload = payload_of(wire, collector, """
        function outer() { inner(); } function inner() { trigger_error('in'); quiet(); }
        function quiet() {} outer();
    """, method_threshold=0)
    assert payload.tree() == ("main", [("outer", [("inner", [("quiet", [])])])])
    assert [span["fn"] for span in payload.spans if is_failed(span)] == ["inner"]
    assert flags(payload.span("inner")) == FAILED_BY_ERROR
    assert flags(payload.span("outer")) == flags(payload.span("quiet")) == {}


def test_short_span_with_an_error_is_kept_and_survives_pruning(wire, collector):
    source = """
        function a() { b(); } function b() { c(); d(); } function c() { trigger_error('deep'); }
        function d() {} a();
    """
    for prune, tree in ((0, [("a", [("b", [("c", [])])])]), (1, [("c", [])])):
        payload = payload_of(wire, collector, source, prune_intermediate_spans=prune)
        assert payload.tree() == ("main", tree)
        assert texts(payload.span("c")) == ["deep"]
        collector.forget()


def test_error_after_a_call_belongs_to_the_caller_again(wire, collector):
    payload = payload_of(wire, collector, """
        function outer() { trigger_error('1'); inner(); trigger_error('3'); }
        function inner() { trigger_error('2'); } outer(); trigger_error('4');
    """)
    assert [texts(span) for span in payload.spans] == [["4"], ["1", "3"], ["2"]]


def test_second_error_of_a_span_adds_a_record_and_leaves_the_stack(wire, collector):
    path = wire.script("function f() {\ntrigger_error('a');\n\nhex2bin('b');\n}\nf();")
    wire.cli(path, settings=DROP_SHORT)
    payload = collector.payload
    span = payload.span("f")
    assert [record["linenumber"] for record in span["ei"]] == [3, 5]
    assert_written(payload, span)
    assert stack(("", "trigger_error", str(path), 3), ("", "f", str(path), 7)) in payload.text
    assert payload.text.count('"mst":') == 1


def test_error_of_a_function_that_is_instrumented_is_its_own(drivers, collector):
    payload = drivers.payload("""
        kaq_standin_plan('mysql_query', 'trigger_error');
        function f() { mysql_query('no such table'); } f();
    """, {"kaq.track_errors": 1})
    span = payload.span("mysql_query")
    assert told(span) == [("ERROR", "Notice", "no such table")]
    assert flags(span)["ie"] == 1 and "if" not in span
    assert [frame[1] for frame in span["mst"]] == ["trigger_error", "mysql_query", "f"]
    assert not is_failed(payload.span("f"))


def test_without_user_code_tracking_errors_go_to_the_root(wire, collector):
    payload = payload_of(wire, collector, "function f() { trigger_error('in f'); } f();",
                         track_zend_execute=0)
    assert payload.names == [] and texts(payload.root) == ["in f"]
    assert [frame[1] for frame in payload.root["mst"]] == ["trigger_error", "f"]


# "Stack trace:" ----------------------------------------------------------------------------------

@pytest.mark.parametrize("message, has_stack", [
    ("Stack trace:", False), ("oh\\nStack trace:\\n#0 {main}", False), ("stack trace:", True),
    ("Stack trace", True), ("Stack  trace:", True)])
def test_message_that_carries_a_stack_needs_none(wire, collector, message, has_stack):
    payload = payload_of(wire, collector, "function f() { trigger_error(\"%s\"); } f();" % message)
    assert len(payload.span("f")["ei"]) == 1
    assert ("mst" in payload.span("f")) == has_stack


def test_later_error_still_gives_the_stack_that_the_first_did_not(wire, collector):
    payload = payload_of(wire, collector, "function f() { trigger_error('Stack trace:');\n"
                                          "trigger_error('b'); } f();")
    assert texts(payload.span("f")) == ["Stack trace:", "b"]
    assert payload.span("f")["mst"][0][3] == 3


# The cap of ten ----------------------------------------------------------------------------------

def test_eleventh_error_is_passed_on_but_not_recorded(wire, collector):
    result = wire.same_as_bare(wire.cli, settings=dict(DROP_SHORT, display_errors=1), source="""
        function f($n) { trigger_error("error $n;"); }
        for ($n = 1; $n <= 13; $n++) f($n);
    """)
    assert b"error 13;" in result.stdout
    assert [texts(span) for span in collector.payload.spans[1:]] == [
        ["error %d;" % n] for n in range(1, 11)]


def test_ten_errors_of_one_span(wire, collector):
    payload = payload_of(wire, collector, "for ($n = 0; $n < 5000; $n++) trigger_error(\"$n\");",
                         display_errors=0)
    assert texts(payload.root) == [str(n) for n in range(10)]


def test_error_below_the_lowest_severity_does_not_count(wire, collector):
    payload = payload_of(wire, collector, """
        for ($n = 0; $n < 30; $n++) { trigger_error('notice');
            if ($n % 2) trigger_error("$n", E_USER_WARNING); }
    """, track_errors=2)
    assert texts(payload.root) == [str(n) for n in range(1, 21, 2)]


def test_exceptions_do_not_count_as_errors(wire, collector):
    payload = payload_of(wire, collector, """
        for ($n = 0; $n < 20; $n++) { try { throw new Exception('e'); } catch (Exception $e) {} }
        for ($n = 0; $n < 20; $n++) trigger_error('n');
    """)
    assert texts(payload.root) == ["e"] * 20 + ["n"] * 10


def test_count_begins_anew_with_each_request(collector, worker):
    worker.open("for ($n = 0; $n < 15; $n++) @trigger_error(\"$n\"); echo 'page';", DROP_SHORT)
    for _ in range(3):
        assert worker.get("/page") == b"page"
    assert [texts(payload.root) for payload in collector.payloads] == [
        [str(n) for n in range(10)]] * 3


# What the script does about errors ---------------------------------------------------------------

def test_suppressed_errors_are_recorded(wire, collector):
    payload = payload_of(wire, collector, "@trigger_error('at'); error_reporting(0);"
                                          "trigger_error('off'); ini_set('display_errors', 0);")
    assert texts(payload.root) == ["at", "off"]


@pytest.mark.parametrize("handler, recorded", [
    ("set_error_handler(function () { return true; });", []),
    ("set_error_handler(function () {});", []),
    ("set_error_handler(function () { return false; });", ["n", "w"]),
    ("set_error_handler(function () { return true; }, E_USER_NOTICE);", ["w"]),
    ("set_error_handler(function () { return true; }); restore_error_handler();", ["n", "w"])])
def test_error_that_a_handler_takes_never_reaches_the_extension(wire, collector, handler, recorded):
    """The engine asks the script's handler first."""
    payload = payload_of(wire, collector, handler + "trigger_error('n');"
                                                    "trigger_error('w', E_USER_WARNING);")
    assert texts(payload.root) == recorded


def test_error_inside_an_error_handler_is_recorded_on_the_handler(wire, collector):
    payload = payload_of(wire, collector, """
        function handle($type, $text) { trigger_error("handling $text", E_USER_WARNING); }
        set_error_handler('handle'); trigger_error('first');
    """)
    assert payload.names == ["handle"] and texts(payload.root) == []
    assert told(payload.span("handle")) == [("ERROR", "Warning", "handling first")]


def test_error_in_a_shutdown_function_and_in_a_destructor(wire, collector):
    payload = payload_of(wire, collector, """
        class D { function __destruct() { trigger_error('destructor'); } }
        function late() { trigger_error('shutdown'); }
        register_shutdown_function('late'); new D;
    """)
    assert texts(payload.span("D::__destruct")) == ["destructor"]
    assert texts(payload.span("late")) == ["shutdown"]


# Fatal errors ------------------------------------------------------------------------------------

def test_fatal_error_in_a_call(wire, collector, engine):
    payload = payload_of(wire, collector, "function a() { b(); } function b() {"
                                          "trigger_error('dead', E_USER_ERROR); } a();")
    records = told(payload.span("b"))
    if engine.user_errors_are_deprecated:
        assert records.pop(0)[1] == "Notice"
    assert records == [("ERROR", "Error", "dead")]
    assert flags(payload.span("b")) == FAILED_BY_ERROR
    assert payload.tree() == ("main", [("a", [("b", [])])])


def test_exhausted_memory(wire, collector, engine):
    if not engine.keeps_memory_limit:
        pytest.skip("memory of this engine has no limit")
    payload = payload_of(wire, collector, """
        function eat() { ini_set('memory_limit', '4M'); return str_repeat('x', 64 << 20); }
        eat();
    """)
    (name, level, message), = told(payload.span("eat"))
    assert (name, level) == ("ERROR", "Error")
    assert message.startswith("Allowed memory size of 4194304 bytes exhausted")
    frames = [frame[1] for frame in payload.span("eat")["mst"]]
    assert frames == (["str_repeat", "eat"] if engine.memory_limit_is_a_bailout else ["eat"])


def test_error_in_a_file_that_cannot_be_compiled(wire, collector):
    broken = wire.script("function f() {}\nfunction f() {}", name="broken.php")
    payload = payload_of(wire, collector, "function load($file) { include $file; } load(%r);"
                         % str(broken))
    record, = payload.span("load")["ei"]
    assert (record["level"], record["filename"], record["linenumber"]) == (
        "Error", str(broken), 3)
    assert re.match(r"Cannot redeclare (function )?f\(\)", record["str"])


def test_script_that_does_not_parse(wire, collector):
    payload = payload_of(wire, collector, "\n\nthis is no php")
    record = payload.root["ei"][-1]
    assert (record["err_clz"], record["level"], record["linenumber"]) == ("ERROR", "Error", 4)
    assert "syntax error" in record["str"] and "mst" not in payload.root


def test_uncaught_exception_is_an_error_of_the_root_without_a_stack_of_its_own(wire, collector):
    payload = payload_of(wire, collector, "function f() { throw new LogicException('out'); } f();")
    (name, level, message), = told(payload.root)
    assert (name, level) == ("ERROR", "Error")
    assert "LogicException" in message and "\nStack trace:\n#0 " in message
    assert flags(payload.root) == FAILED_BY_ERROR and "mst" not in payload.root
    assert told(payload.span("f")) == [("LogicException", "Warning", "out")]


# Not recorded ------------------------------------------------------------------------------------

def test_unmonitored_request_passes_errors_on(wire, collector):
    collector.reply = DISABLED
    result = wire.same_as_bare(wire.cli, settings=dict(KEEP_ALL, display_errors=1), source="""
        function f() { trigger_error('shown'); } for ($n = 0; $n < 20; $n++) f();
    """)
    assert result.stdout.count(b"shown") == 20 and len(collector.notices) == 1


def test_page_without_errors_has_no_records(wire, collector):
    payload = payload_of(wire, collector, "function f() {} f();", method_threshold=0)
    assert '"ei"' not in payload.text and '"mst"' not in payload.text
