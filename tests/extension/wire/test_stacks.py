"""Call stacks: what a frame says, how deep they go, slow queries, and stacks in the output."""
import json
import re

import pytest
from engines import DROP_SHORT, KEEP_ALL
from failure_records import json_text, stack
from fake_collector import ENABLED

# Catches what `run` throws and tells the frames that the engine itself has put into the exception.
AS_THE_ENGINE = """
    try { run(); } catch (Exception $e) { echo json_encode(array_map(function ($frame) {
        return [isset($frame['class']) ? $frame['class'] : '', $frame['function'],
                isset($frame['file']) ? $frame['file'] : '',
                isset($frame['line']) ? $frame['line'] : 0]; }, $e->getTrace())); }
"""

SCENES = {
    "function": "function run() { fails(); } function fails() { throw new Exception; }",
    "method": "class C { function m() { $this->n(); } private function n() {"
              "throw new Exception; } } function run() { (new C)->m(); }",
    "static method of a parent": "class P { static function s() { throw new Exception; } }"
                                 "class C extends P {} function run() { C::s(); }",
    "closure": "function run() { $f = function () { throw new Exception; };\n $f(); }",
    "callback of the engine": "function run() { array_map(function () {\n throw new Exception; },"
                              " [1]); }",
    "callback of a callback": "function run() { usort($GLOBALS['a'], 'cmp'); } $a = [2, 1];"
                              "function cmp() { call_user_func('fails'); }"
                              "function fails() { throw new Exception; }",
    "constructor": "class C { function __construct() { throw new Exception; } }"
                   "function run() { new C; }",
    "magic call": "class C { function __call($n, $a) { throw new Exception; } }"
                  "function run() { (new C)->any(1); }",
    "generator": "function g() { yield 1; throw new Exception; }"
                 "function run() { foreach (g() as $v) {} }",
    "evaluated code": "function run() { eval('\nthrow new Exception;'); }",
    "recursion": "function run($n = 9) { if (!$n) throw new Exception;\n run($n - 1); }",
    "destructor": "class D { function __destruct() { throw new Exception; } }"
                  "function run() { $d = new D; unset($d); }",
    "text of an object": "class T { function offsetGet($k) { throw new Exception; } }"
                         "function run() { call_user_func([new T, 'offsetGet'], 1); }",
    "anonymous class": "function run() { (new class { function m() { throw new Exception; } })"
                       "->m(); }",
    "trait": "trait T { function t() { throw new Exception; } } class C { use T; }"
             "function run() { (new C)->t(); }",
}


@pytest.mark.parametrize("scene", list(SCENES))
def test_frames_are_those_of_the_engine(wire, collector, scene):
    result = wire.cli(SCENES[scene] + AS_THE_ENGINE, settings=KEEP_ALL)
    span, = (span for span in collector.payload.spans if "ei" in span)
    frames = json.loads(result.stdout)
    for frame in frames:  # a name ends at its first NUL, and a closure's says no more than that
        frame[0] = frame[0].partition("\0")[0]
        frame[1] = re.sub(r"\{closure:.*\}", "{closure}", frame[1])
    assert span["mst"] == frames and frames[-1][1] == "run"
    assert stack(*frames) in collector.payload.text


def test_included_file_is_a_frame(wire, collector):
    part = wire.script("function fails() { throw new Exception; }\n\nfails();", name="part.php")
    path = wire.script("try {\ninclude 'part.php'; } catch (Exception $e) {}")
    wire.cli(path, settings=DROP_SHORT)
    assert collector.payload.span("fails")["mst"] == [
        ["", "fails", str(part), 4], ["", "include", str(path), 3]]


def test_namespaces_and_odd_names_are_escaped(wire, collector):
    path = wire.script("namespace A\\B; class \u00c7 { function m() { trigger_error('t'); } }\n"
                       "(new \u00c7)->m();", name="a \"quoted\" name.php")
    wire.cli(path, settings=DROP_SHORT)
    frames = (("", "trigger_error", str(path), 2), ("A\\B\\\u00c7", "m", str(path), 3))
    assert stack(*frames) in collector.payload.text


def test_frame_without_a_file_has_an_empty_one_and_line_zero(wire, collector):
    wire.cli("array_map(function () { trigger_error('t'); }, [1]);", settings=DROP_SHORT)
    frames = collector.payload.span("{closure}")["mst"]
    assert [frame[1:] for frame in frames[1:2]] == [["{closure}", "", 0]]
    assert [frame[1] for frame in frames] == ["trigger_error", "{closure}", "array_map"]


def test_closures_in_all_frames_bear_no_file_name(wire, collector):
    path = wire.script("class A { function b() { return function () { $f = function () {"
                       "trigger_error('t'); }; $f(); }; } } $f = (new A)->b(); $f();")
    wire.cli(path, settings=DROP_SHORT)
    span, = (span for span in collector.payload.spans if "ei" in span)
    assert span["fn"] == "A::{closure}"
    assert [frame[:2] for frame in span["mst"]] == [
        ["", "trigger_error"], ["A", "{closure}"], ["A", "{closure}"]]


def test_exception_thrown_outside_of_calls_has_no_stack(wire, collector):
    wire.cli("try { throw new Exception('top'); } catch (Exception $e) {}", settings=DROP_SHORT)
    assert len(collector.payload.root["ei"]) == 1 and "mst" not in collector.payload.root


def test_error_of_an_operator_outside_of_calls_has_no_stack(wire, collector):
    wire.cli("$a = []; @$a['x'];", settings=DROP_SHORT)
    assert len(collector.payload.root["ei"]) == 1 and "mst" not in collector.payload.root


@pytest.mark.parametrize("depth, frames", [
    (None, 15), (1, 1), (7, 7), (29, 29), (30, 30), (31, 30), (1000, 30), (0, 100), (-1, 100),
    (-31, 100)])
def test_depth(wire, collector, depth, frames):
    settings = dict(DROP_SHORT, **{"kaq.stack_depth": depth})
    wire.cli("function f($n) { if ($n) { return f($n - 1); }\n throw new Exception('deep'); }"
             "try { f(99); } catch (Exception $e) {}", settings=settings)
    span, = (span for span in collector.payload.spans if "ei" in span)
    assert [frame[1] for frame in span["mst"]] == ["f"] * frames
    lines = [frame[3] for frame in span["mst"]]
    assert lines == [2] * 99 + [3] if frames == 100 else lines == [2] * frames


def test_depth_follows_the_script(wire, collector):
    wire.cli("function f() { throw new Exception; } function g() { f(); }"
             "function h($depth) { ini_set('kaq.stack_depth', $depth);"
             "  try { g(); } catch (Exception $e) {} } h('2'); h('1');", settings=DROP_SHORT)
    assert [[frame[1] for frame in span["mst"]]
            for span in collector.payload.spans if "mst" in span] == [["f", "g"], ["f"]]


def test_arguments_and_objects_are_not_kept_alive_by_a_stack(wire, collector):
    result = wire.same_as_bare(wire.cli, settings=KEEP_ALL, source="""
        class D { function __destruct() { echo 'gone '; } }
        function f($argument) { @trigger_error('held?'); unset($argument); echo 'after '; }
        f(new D); echo 'end';
    """)
    assert result.stdout == b"gone after end"
    assert collector.payload.text.count('"mst":') == 1


# Slow queries ------------------------------------------------------------------------------------

def slow(drivers, collector, seconds, source):
    collector.reply = dict(ENABLED, **{"transaction.trace.sql.stacktrace.threshold": seconds})
    return drivers.payload(
        "kaq_standin_plan('mysql_query', 'usleep'); kaq_standin_plan('redis::get', 'usleep');"
        "kaq_standin_plan('pdo::exec', 'usleep'); kaq_standin_plan('mysql_connect', 'usleep');"
        + source)


def test_slow_query_carries_the_stack_that_issued_it(drivers, collector):
    path = drivers.wire.directory / "job.php"
    payload = slow(drivers, collector, 0.02, "\nfunction report() {\n mysql_query(60000); }\n\n"
                                             "class Page { function show() { report(); } }\n"
                                             "(new Page)->show();")
    span = payload.span("mysql_query")
    assert [frame[:3] for frame in span["mst"]] == [
        ["", "mysql_query", str(path)], ["", "report", str(path)], ["Page", "show", str(path)]]
    lines = [frame[3] for frame in span["mst"]]
    assert [line - lines[0] for line in lines] == [0, 2, 3]
    assert "ei" not in span and "if" not in span and "ie" not in span


def test_fast_query_carries_none(drivers, collector):
    payload = slow(drivers, collector, 30, "function f() { mysql_query(1000); } f();")
    assert '"mst"' not in payload.text and payload.span("mysql_query")


def test_only_queries_are_traced(drivers, collector):
    payload = slow(drivers, collector, 0.02, """
        function work() { usleep(60000); } work(); mysql_connect(60000); mysql_query(60000);
        $made['pdo']->exec(60000);
        function f() { $GLOBALS['made']['redis']->get(60000); } f();
    """)
    assert [span["fn"] for span in payload.spans if "mst" in span] == ["mysql_query", "PDO::exec"]
    assert len(payload.spans) == 7


def test_slow_query_that_fails_keeps_the_stack_of_its_failure(drivers, collector):
    collector.reply = dict(ENABLED, **{"transaction.trace.sql.stacktrace.threshold": 0.02})
    payload = drivers.payload("""
        ini_set('kaq.method_threshold', '99999');
        kaq_standin_plan('mysql_query', function () { usleep(60000); });
        function f() { mysql_query('q'); } f();
        kaq_standin_plan('mysql_query', 'throw'); try { f(); } catch (Exception $e) {}
    """, {"kaq.track_exceptions": 1})
    queries = [span for span in payload.spans if span["fn"] == "mysql_query"]
    assert ["ei" in span for span in queries] == [False, True]
    assert [[frame[1] for frame in span["mst"]] for span in queries] == [["mysql_query", "f"]] * 2


# Stacks in the output ----------------------------------------------------------------------------

def test_printed_stack(wire, collector):
    path = wire.script("class C { static function m() {\nkaq_print_stacktrace();\n} }\n"
                       "function f() { C::m(); }\nf();\necho 'end';")
    result = wire.cli(path)
    frames = [["", "kaq_print_stacktrace", str(path), 3], ["C", "m", str(path), 5],
              ["", "f", str(path), 6]]
    expected = ",".join(json_text(frame).replace("/", "\\/") for frame in frames)
    assert result.stdout.decode() == "kaq st: " + expected + "\tend"
    assert '"mst"' not in collector.payload.text


def test_printed_stack_goes_through_output_buffers_and_has_its_depth(wire):
    result = wire.cli("function f($n) { if ($n) return f($n - 1); kaq_print_stacktrace(); }"
                      "ob_start(); f(9); $printed = ob_get_clean(); echo substr_count($printed,"
                      "'\"f\"'), ' ', substr($printed, 0, 8), '|', strlen($printed);",
                      settings={"kaq.stack_depth": 4})
    count, _, rest = result.stdout.decode().partition(" ")
    assert count == "3" and rest.startswith("kaq st: |")


def test_printed_stack_of_a_long_path_is_whole(wire):
    name = "/".join(["d" * 200] * 12) + "/long.php"
    path = wire.script("function f($n) { $n ? f($n - 1) : kaq_print_stacktrace(); } f(20);",
                       name=name)
    text = wire.cli(path, settings={"kaq.stack_depth": 30}).stdout.decode()
    frames = json.loads("[%s]" % text[len("kaq st: "):].rstrip("\t"))
    assert len(frames) == 22 and all(frame[2] == str(path) for frame in frames)
