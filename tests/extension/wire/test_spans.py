"""Which calls become spans, what they are named, and how they hang together."""

import pytest
from engines import KEEP_ALL
from payloads import HEX16, escape


def spans_of(wire, collector, source, settings=None, **arguments):
    """The payload of a command-line run that keeps every span."""
    wire.cli(source, settings=dict(KEEP_ALL, **(settings or {})), **arguments)
    return collector.payload


def test_main_body_is_the_root_span(wire, collector):
    root = spans_of(wire, collector, "$x = strlen('abc');").root
    assert (root["mo"], root["pr"], root["fn"], root["cn"]) == (0, 1, "main", "PHP")
    assert HEX16.match(root["si"])


def test_user_function_called_main_is_a_span_of_its_own(wire, collector):
    payload = spans_of(wire, collector, "function main() {} main();")
    assert payload.tree() == ("main", [("main", [])])


def test_nested_calls_point_at_their_parents(wire, collector):
    payload = spans_of(wire, collector, """
        function a() { b(); c(); } function b() { c(); } function c() {}
        a(); b(); c();
    """)
    assert payload.tree() == ("main", [
        ("a", [("b", [("c", [])]), ("c", [])]), ("b", [("c", [])]), ("c", [])])
    assert [span["mo"] for span in payload.spans] == list(range(8))
    assert payload.names == ["a", "b", "c", "c", "b", "c", "c"]


def test_every_span_has_an_identifier_of_its_own(wire, collector):
    payload = spans_of(wire, collector, "function f() {} for ($i = 0; $i < 2000; $i++) f();")
    identifiers = {span["si"] for span in payload.spans}
    assert len(identifiers) == 2001 and all(HEX16.match(one) for one in identifiers)
    assert payload.transaction["trace_id"][:16] not in identifiers
    assert {span["psi"] for span in payload.spans[1:]} == {payload.root["si"]}


def test_recursion_makes_a_chain(wire, collector):
    payload = spans_of(
        wire, collector, "function down($n) { return $n ? 1 + down($n - 1) : 0; } down(499);")
    assert payload.names == ["down"] * 500
    for child, parent in zip(payload.spans[1:], payload.spans):
        assert child["psi"] == parent["si"]


def test_times_of_a_child_lie_within_its_parent_s(wire, collector, still_clock):
    """The script tells the time whenever one of its functions begins or ends."""
    now = "echo (int)(microtime(true) * 1000), ' ';"
    out = wire.cli("""
        function outer() { %(now)s usleep(2000); inner(); usleep(3000); %(now)s }
        function inner() { %(now)s usleep(5000); %(now)s }
        usleep(7000); outer(); usleep(11000);
    """ % {"now": now}, settings=KEEP_ALL, env=still_clock).stdout
    payload = collector.payload
    root, outer, inner = payload.root, payload.span("outer"), payload.span("inner")
    assert [outer["st"], inner["st"], inner["et"], outer["et"]] == [int(one) for one in out.split()]
    assert root["st"] < outer["st"] < inner["st"] < inner["et"] < outer["et"] < root["et"]


@pytest.mark.parametrize("source,names", [
    ("class A { static function b() {} } A::b();", ["A::b"]),
    ("class A { function b() {} } (new A)->b();", ["A::b"]),
    ("class A { function __construct() {} } new A;", ["A::__construct"]),
    ("class P { function b() {} } class A extends P {} (new A)->b();", ["P::b"]),
    ("class P { static function b() { static::c(); } static function c() {} }"
     "class A extends P { static function c() {} } A::b();", ["P::b", "A::c"]),
    ("class P { function b() {} } class A extends P { function b() { parent::b(); } }"
     "(new A)->b();", ["A::b", "P::b"]),
    ("abstract class P { abstract function b(); } class A extends P { function b() {} }"
     "(new A)->b();", ["A::b"]),
    ("trait T { function b() {} } class A { use T; } (new A)->b();", ["A::b"]),
    ("class A { function __get($n) {} function __toString() { return ''; } }"
     "$a = new A; $a->x; '' . $a;", ["A::__get", "A::__toString"]),
    ("class A { function __invoke() {} } $a = new A; $a();", ["A::__invoke"]),
    ("class A { function B() {} } (new a)->b();", ["A::B"]),
    ("function Mixed_Case() {} mixed_case();", ["Mixed_Case"]),
    ("function f() {} call_user_func('f'); array_map('f', [1, 2]);", ["f", "f", "f"]),
    ("$a = [2, 1]; usort($a, function ($x, $y) { return $x - $y; });", ["{closure}"]),
    ("spl_autoload_register('load'); function load($c) {} class_exists('Missing');", ["load"]),
    ("class A implements IteratorAggregate { function getIterator(): Iterator {"
     " return new ArrayIterator([1]); } } foreach (new A as $x);", ["A::getIterator"]),
], ids=lambda item: str(item)[:60])
def test_name_of_a_call(wire, collector, source, names):
    assert spans_of(wire, collector, source).names == names


def test_magic_call_is_a_span_in_the_span_of_the_name_that_was_called(wire, collector, engine):
    if engine.observes_calls:
        pytest.skip("the engine does not tell of the call around it")
    payload = spans_of(
        wire, collector, "class A { function __call($n, $a) { f(); } static function __callStatic"
                         "($n, $a) {} } function f() {} (new A)->x(); A::y(); f();")
    assert payload.tree() == ("main", [
        ("A::x", [("A::__call", [("f", [])])]), ("A::y", [("A::__callStatic", [])]), ("f", [])])


@pytest.mark.parametrize("source,names", [
    ("$f = function () {}; $f(); $f();", ["{closure}", "{closure}"]),
    ("class A { function b() { $f = function () {}; $f(); } } (new A)->b();",
     ["A::b", "A::{closure}"]),
    ("namespace N; $f = function () {}; $f();", ["N\\{closure}"]),
    ("namespace N\\M; function f() {} class C { static function s() {} } f(); C::s();",
     ["N\\M\\f", "N\\M\\C::s"]),
    ("$f = static function () {}; $f();", ["{closure}"]),
    ("class A {} $f = function () {}; $f->call(new A);", ["A::{closure}"]),
    ("(function () { (function () {})(); })();", ["{closure}", "{closure}"]),
    ("$f = eval('return function () {};'); $f();", ["{closure}"]),
    ("function f() {} $f = (new ReflectionFunction('f'))->getClosure(); $f();", ["f"]),
    ("class A { function b() {} } $f = (new ReflectionMethod('A', 'b'))->getClosure(new A);"
     "$f();", ["A::b"]),
], ids=lambda item: str(item)[:60])
def test_name_of_a_closure_and_of_what_lives_in_a_namespace(
        wire, collector, engine, source, names):
    payload = spans_of(wire, collector, source)
    if engine.closures_tell_where_they_stand:
        names = [name.replace("N\\{closure}", "{closure}") for name in names]
    assert payload.names == names
    for name in names:
        assert '"fn":"%s","cn":"PHP"' % escape(name) in payload.text


def test_name_of_an_anonymous_class_ends_at_its_nul_byte_which_is_meant(wire, collector):
    assert spans_of(wire, collector, "$o = new class { function run() {} }; $o->run();").names == [
        "class@anonymous::run"]


def test_names_beyond_ascii_go_raw(wire, collector):
    payload = spans_of(wire, collector, b"function caf\xc3\xa9() {} class \xff { static function"
                                        b" \xfe() {} } caf\xc3\xa9(); \xff::\xfe();")
    assert b'"fn":"caf\xc3\xa9","cn"' in payload.bytes
    assert b'"fn":"\xff::\xfe","cn"' in payload.bytes


def test_very_long_names_are_kept_whole(wire, collector):
    name, owner = "f" * 3000, "C" * 3000
    payload = spans_of(wire, collector, "function %s() {} class %s { static function %s() {} }"
                                        "%s(); %s::%s();" % (name, owner, name, name, owner, name))
    assert payload.names == [name, owner + "::" + name]


@pytest.mark.parametrize("length", list(range(1, 70, 6)) + [127, 128, 255, 256])
def test_names_of_every_length_are_kept_whole(wire, collector, length):
    payload = spans_of(wire, collector, "function %s() {} class %s { static function s() {} } %s();"
                                        "%s::s();" % (("f" * length, "g" * length) * 2))
    assert payload.names == ["f" * length, "g" * length + "::s"]


@pytest.mark.parametrize("statement", [
    "include '%s';", "require '%s';", "include_once '%s';", "eval('in_file();');",
    "eval(file_get_contents('%s', false, null, 6));"])
def test_included_and_evaluated_code_is_no_span_but_its_calls_are(wire, collector, statement):
    included = wire.script("function other() {} in_file();", "included.php")
    payload = spans_of(wire, collector, "function in_file() {} function f() { %s } f();" % (
        statement.replace("%s", str(included))))
    assert payload.tree() == ("main", [("f", [("in_file", [])])])


def test_prepended_file_s_calls_are_spans(wire, collector):
    before = wire.script("function early() {} early();", "before.php")
    payload = spans_of(wire, collector, "early();", settings={"auto_prepend_file": str(before)})
    assert payload.names == ["early", "early"]


def test_calls_of_internal_functions_are_no_spans(wire, collector):
    payload = spans_of(wire, collector, "strlen('x'); array_map('strlen', ['a']); new ArrayObject;"
                                        "(new ArrayObject([1]))->count(); json_encode([]);")
    assert payload.names == []


# Generators --------------------------------------------------------------------------------------

@pytest.mark.parametrize("yields", [0, 1, 3])
def test_each_resume_of_a_generator_is_a_span(wire, collector, engine, yields):
    payload = spans_of(
        wire, collector, "function gen() { for ($i = 0; $i < %d; $i++) yield $i; }"
                         "foreach (gen() as $v); " % yields)
    created = 1 if engine.creating_a_generator_runs_its_function else 0
    assert payload.names == ["gen"] * (created + yields + 1)
    assert {span["psi"] for span in payload.spans[1:]} == {payload.root["si"]}


def test_calls_inside_a_generator_are_children_of_the_resume(wire, collector):
    payload = spans_of(wire, collector, "function gen() { yield leaf(); yield leaf(); } "
                                        "function leaf() {} foreach (gen() as $v);")
    parents = [payload.parent_of(span) for span in payload.spans if span["fn"] == "leaf"]
    assert [parent["fn"] for parent in parents] == ["gen", "gen"]
    assert parents[0]["si"] != parents[1]["si"]


def test_generator_given_up_half_way_leaves_no_open_span(wire, collector):
    payload = spans_of(wire, collector, """
        function gen() { try { yield 1; yield 2; } finally { done(); } }
        function done() {} function after() {} foreach (gen() as $v) break; after();
    """)
    assert payload.parent_of(payload.span("after"))["fn"] == "main"
    assert payload.names.count("done") == 1


def test_delegating_generator(wire, collector):
    payload = spans_of(wire, collector, "function inner() { yield 1; } function outer() {"
                                        "yield from inner(); } foreach (outer() as $v);"
                                        "function after() {} after();")
    assert set(payload.names) == {"inner", "outer", "after"}
    assert payload.parent_of(payload.span("after"))["fn"] == "main"


# Exits, exceptions, fatal errors -----------------------------------------------------------------

def chain(end, depth=10):
    """Functions f1 ... f<depth> that call one another; the last runs `end`."""
    links = "".join("function f%d() { f%d(); } " % (n, n + 1) for n in range(1, depth))
    return links + "function f%d() { %s } f1();" % (depth, end)


NO_TRACKING = {"kaq.track_errors": 0, "kaq.track_exceptions": 0}


@pytest.mark.parametrize("end", [
    "exit;", "exit(9);", "die('bye');", "throw new Exception('x');", "undefined_function();",
    "ini_set('memory_limit', '4M'); $x = str_repeat('x', 10000000);",
    "trigger_error('own', E_USER_ERROR);", "class_that_is_not::here();",
    "eval('syntax error here');", "require '/nowhere/at/all';",
    "set_error_handler(function () { exit; }); echo $undefined;",
], ids=lambda end: end[:30])
def test_request_that_ends_ten_calls_deep_keeps_all_its_spans(wire, collector, end):
    wire.same_as_bare(wire.cli, source=chain(end), settings=dict(KEEP_ALL, **NO_TRACKING))
    payload = collector.payload
    assert payload.names[:10] == ["f%d" % n for n in range(1, 11)]
    for child, parent in zip(payload.spans[1:11], payload.spans):
        assert child["psi"] == parent["si"] and child["et"] <= parent["et"]


def test_time_limit_ten_calls_deep(wire, collector):
    wire.same_as_bare(wire.cli, source="set_time_limit(1); " + chain("while (true);"),
                      settings=dict(KEEP_ALL, **NO_TRACKING))
    payload = collector.payload
    assert payload.names == ["f%d" % n for n in range(1, 11)]
    assert payload.span("f10")["et"] > payload.span("f10")["st"]


def test_caught_exception_closes_the_spans_it_passes(wire, collector):
    payload = spans_of(
        wire, collector, "function a() { try { b(); } catch (Exception $e) { c(); } }"
        "function b() { d(); } function c() {} function d() { throw new Exception; } a(); c();",
        settings=NO_TRACKING)
    assert payload.tree() == ("main", [("a", [("b", [("d", [])]), ("c", [])]), ("c", [])])


def test_shutdown_function_after_exit_is_recorded(wire, collector):
    payload = spans_of(wire, collector, "function late() { leaf(); } function leaf() {}"
                                        "register_shutdown_function('late'); " + chain("exit;", 2))
    assert {"late", "leaf"} <= set(payload.names)
    assert payload.parent_of(payload.span("leaf"))["fn"] == "late"


# With the opcode cache ---------------------------------------------------------------------------

@pytest.mark.parametrize("jit", ["0", "tracing"])
def test_spans_are_the_same_with_the_opcode_cache(wire, collector, engine, jit):
    if not engine.opcache:
        pytest.skip("this engine has no opcode cache")
    source = """
        class A { static function s($n) { return $n + 1; } function m() { return self::s(1); } }
        function small($n) { return $n * 2; } function outer() { return small(2) + small(3); }
        for ($i = 0; $i < 50; $i++) outer(); (new A)->m();
    """
    settings = dict(engine.opcache, **{"opcache.jit_buffer_size": "8M", "opcache.jit": jit})
    assert spans_of(wire, collector, source, settings=settings).names == (
        ["outer", "small", "small"] * 50 + ["A::m", "A::s"])
