"""What naming a transaction does to the caller's text: a variable is changed, nothing else.

Each case is the body of a function whose result is compared. The texts are made at run time unless
the case is about literals: opcache would work out the rest before the script runs.
"""
import json

import pytest

PRELUDE = """
class Held {
    const TEXT = 'a b?c';
    public static $shared = 'a b?c';
    public $text = 'a b?c';
    function __toString() { return $this->text; }
    static function with($text) { $held = new self; $held->text = $text; return $held; }
}
class Box implements ArrayAccess {
    public $text;
    function __construct($text) { $this->text = $text; }
    #[ReturnTypeWillChange]
    function offsetGet($at) { return $this->text; }
    #[ReturnTypeWillChange]
    function offsetSet($at, $value) { }
    #[ReturnTypeWillChange]
    function offsetExists($at) { return true; }
    #[ReturnTypeWillChange]
    function offsetUnset($at) { }
}
define('DEFINED', 'a b?c');
const LITERAL = 'a b?c';
function made() { return str_repeat('a b?c', mt_rand(1, 1)); }
function by_value($text) { kaq_transaction_name($text); return $text; }
function by_default($text = 'a b?c') { kaq_transaction_name($text); return $text; }
function by_reference(&$text) { kaq_transaction_name($text); }
"""
OLD, NEW = "a b?c", "a_b_c"

VARIABLES = {
    "made at run time": ("$n = made(); kaq_transaction_name($n); return $n;", NEW),
    "literal": ("return [by_default(), by_default(), 'a b?c'];", [NEW, NEW, OLD]),
    "literal argument": ("return [by_value('a b?c'), by_value('a b?c')];", [NEW, NEW]),
    "shared copy": ("$n = made(); $m = $n; kaq_transaction_name($n); return [$n, $m];", [NEW, OLD]),
    "caller's copy": ("$n = made(); return [by_value($n), $n];", [NEW, OLD]),
    "constant": ("$n = $c = LITERAL; kaq_transaction_name($n); return [$n, $c, LITERAL];",
                 [NEW, OLD, OLD]),
    "copy of a property": ("$o = Held::with(made()); $n = $o->text; kaq_transaction_name($n);"
                           "return [$n, $o->text];", [NEW, OLD]),
    "copy in an array": ("$n = made(); $a = ['k' => $n]; kaq_transaction_name($n);"
                         "return [$n, $a];", [NEW, {"k": OLD}]),
    "key of an array": (
        "$n = made(); $a = [$n => 1]; kaq_transaction_name($n);"
        "return [$n, $a, isset($a['a b?c']), isset($a['a_b_c']), isset($a[$n])];",
        [NEW, {OLD: 1}, True, False, False]),
    "then a key": ("$n = made(); kaq_transaction_name($n); $a = [$n => 1];"
                   "return [isset($a['a_b_c']), isset($a['a b?c']), isset($a[$n])];",
                   [True, False, True]),
    "key in foreach": (
        "$a = [made() => 1, 'x y' . mt_rand(1, 1) => 2]; $seen = [];"
        "foreach ($a as $k => $v) { kaq_transaction_name($k); $seen[] = $k; }"
        "return [$seen, $a, isset($a['a b?c'])];", [[NEW, "x_y1"], {OLD: 1, "x y1": 2}, True]),
    "value in foreach": ("$a = [made(), made()]; foreach ($a as $v) kaq_transaction_name($v);"
                         "return [$a, $v];", [[OLD, OLD], NEW]),
    "reference in foreach": ("$a = [made(), made()]; foreach ($a as &$v) kaq_transaction_name($v);"
                             "unset($v); return $a;", [NEW, NEW]),
    "reference": ("$n = made(); $r = &$n; kaq_transaction_name($r); return [$n, $r];", [NEW, NEW]),
    "parameter by reference": ("$n = made(); $m = $n; by_reference($n); return [$n, $m];",
                               [NEW, OLD]),
    "element by reference": ("$a = ['k' => made()]; $b = $a; by_reference($a['k']);"
                             "return [$a, $b];", [{"k": NEW}, {"k": OLD}]),
    "static": ("$f = function () { static $n = 'a b?c'; kaq_transaction_name($n); $n .= ' d';"
               "return $n; }; return [$f(), $f()];", ["a_b_c d", "a_b_c_d d"]),
    "global": ("$GLOBALS['held'] = made(); global $held; kaq_transaction_name($held);"
               "return [$held, $GLOBALS['held']];", [NEW, NEW]),
    "extracted": ("extract(['n' => made()]); kaq_transaction_name($n); return $n;", NEW),
    "extracted by reference": ("$a = ['n' => made()]; extract($a, EXTR_REFS);"
                               "kaq_transaction_name($n); return [$n, $a['n']];", [NEW, NEW]),
    "used by a closure": ("$n = made(); $f = function () use ($n) { kaq_transaction_name($n);"
                          "return $n; }; return [$f(), $f(), $n];", [NEW, NEW, OLD]),
    "in a generator": ("$g = (function () { $n = made(); kaq_transaction_name($n); yield $n; })();"
                       "return $g->current();", NEW),
    "called by a variable": ("$f = 'kaq_transaction_name'; $n = made(); $f($n); return $n;", NEW),
    "called by a closure": ("$f = (new ReflectionFunction('kaq_transaction_name'))->getClosure();"
                            "$n = made(); $f($n); return $n;", NEW),
    "called twice": ("$n = made(); kaq_transaction_name($n); $m = $n; kaq_transaction_name($n);"
                     "return [$n, $m];", [NEW, NEW]),
    "numeric texts": ("$r = []; foreach (['5', '0', '-1', ' 7'] as $n) { kaq_transaction_name($n);"
                      "$r[] = $n; } return $r;", ["5", "0", "_1", "_7"]),
    "with a NUL": ('$n = made() . "\\0z"; kaq_transaction_name($n); return bin2hex($n);',
                   (NEW + "_z").encode().hex()),
    "one character": ("$n = substr(made(), 3, 1); kaq_transaction_name($n);"
                      "return [$n, chr(63), 'a?'[1]];", ["_", "?", "?"]),
    "eval": ("return eval('$n = made(); kaq_transaction_name($n); return $n;');", NEW),
}
KEPT = {
    "integer": ("$n = mt_rand(-5, -5); kaq_transaction_name($n); return $n;", -5),
    "object": ("$o = Held::with(made()); kaq_transaction_name($o); return $o->text;", OLD),
    "property": ("$o = Held::with(made()); kaq_transaction_name($o->text); return $o->text;", OLD),
    "static property": ("kaq_transaction_name(Held::$shared); return Held::$shared;", OLD),
    "constants": ("kaq_transaction_name(Held::TEXT); kaq_transaction_name(DEFINED);"
                  "kaq_transaction_name(LITERAL); return [Held::TEXT, DEFINED, LITERAL];",
                  [OLD, OLD, OLD]),
    "literal": ("kaq_transaction_name('a b?c'); return 'a b?c';", OLD),
    "results": ("$n = made(); kaq_transaction_name($n . ''); kaq_transaction_name(trim($n));"
                "kaq_transaction_name((string) $n); kaq_transaction_name($n ?: 'x');"
                "kaq_transaction_name($m = $n); kaq_transaction_name($n ?? 'x');"
                "kaq_transaction_name(by_value($n)); return [$n, $m];", [OLD, OLD]),
    "variable variable": ("$v = 'n'; $n = made(); kaq_transaction_name($$v); return $n;", OLD),
    "server variable": ("$_SERVER['KAQ_X'] = made(); kaq_transaction_name($_SERVER['KAQ_X']);"
                        "return $_SERVER['KAQ_X'];", OLD),
    "globals' element": ("$GLOBALS['held'] = made(); kaq_transaction_name($GLOBALS['held']);"
                         "return $GLOBALS['held'];", OLD),
    "call_user_func": (
        "$n = made(); call_user_func('kaq_transaction_name', $n); $f = 'call_user_func';"
        "$f('kaq_transaction_name', $n); call_user_func_array('kaq_transaction_name', [$n]);"
        "kaq_transaction_name(...[$n]); array_map('kaq_transaction_name', [$n]);"
        "return $n;", OLD),
    "object with array access": ("$b = new Box(made()); kaq_transaction_name($b['k']);"
                                 "return $b->text;", OLD),
    "offset of a text": ("$n = made(); kaq_transaction_name($n[3]); return [$n, '?'];", [OLD, "?"]),
}
ELEMENTS = {
    "held by the array alone": ("$a = ['k' => made(), 'l' => 1]; kaq_transaction_name($a['k']);"
                                "return $a;", {"k": OLD, "l": 1}),
    "by a number": ("$a = [made(), made()]; kaq_transaction_name($a[1]); return $a;", [OLD, OLD]),
    "by a variable": ("$a = ['k' => made()]; $k = 'k'; kaq_transaction_name($a[$k]);"
                      "return [$a, $k];", [{"k": OLD}, "k"]),
    "that is a reference": ("$n = made(); $a = ['k' => &$n]; kaq_transaction_name($a['k']);"
                            "return [$n, $a['k']];", [OLD, OLD]),
    "in an array by reference": ("$a = ['k' => made()]; $r = &$a; kaq_transaction_name($r['k']);"
                                 "return $a;", {"k": OLD}),
    "in a shared array": ("$a = ['k' => made()]; $b = $a; kaq_transaction_name($a['k']);"
                          "return [$a, $b];", [{"k": OLD}, {"k": OLD}]),
    "that another variable holds": ("$a = ['k' => made()]; $n = $a['k'];"
                                    "kaq_transaction_name($a['k']); return [$a, $n];",
                                    [{"k": OLD}, OLD]),
    "that is a key, too": ("$n = made(); $a = [$n => $n]; unset($n);"
                           "kaq_transaction_name($a['a b?c']); return [$a, isset($a['a b?c'])];",
                           [{OLD: OLD}, True]),
    "that is a literal": ("$a = ['k' => 'a b?c', 'n' => made()]; kaq_transaction_name($a['k']);"
                          "return [$a, 'a b?c'];", [{"k": OLD, "n": OLD}, OLD]),
    "of an element": ("$a = ['x' => ['y' => made()]]; kaq_transaction_name($a['x']['y']);"
                      "return $a;", {"x": {"y": OLD}}),
    "that is iterated over": ("$a = ['k' => made()]; foreach ($a as $k => $v) { unset($v);"
                              "kaq_transaction_name($a[$k]); } return $a;", {"k": OLD}),
    "that is an object": ("$o = Held::with(made()); $a = ['k' => $o];"
                          "kaq_transaction_name($a['k']); return $o->text;", OLD),
}
CASES = {"%s: %s" % (group, name): case
         for group, cases in [("variable", VARIABLES), ("kept", KEPT),
                               ("text of an element stays", ELEMENTS)]
         for name, case in cases.items()}
EXPECTED = {name: result for name, (_, result) in CASES.items()}


def source():
    """Runs every case twice: what the first run changed must not reach the second."""
    functions = ",\n".join("%s => function () { %s }" % (json.dumps(name).replace("$", "\\$"), body)
                           for name, (body, _) in CASES.items())
    return PRELUDE + """
$cases = [%s];
for ($round = 0; $round < 2; $round++) {
    $results = [];
    foreach ($cases as $name => $case) {
        $results[$name] = $case();
    }
    echo json_encode($results), "\\n";
}
$main = 'a b?c'; kaq_transaction_name($main); echo $main, ' a b?c ';
echo function_exists('opcache_is_script_cached') && opcache_is_script_cached(__FILE__)
    ? 'cached' : 'plain';
""" % functions


def check(output):
    first, second, last = output.decode().splitlines()
    assert json.loads(first) == EXPECTED
    assert json.loads(second) == EXPECTED
    assert last.startswith("a_b_c a b?c ")
    return last.split()[-1]


@pytest.fixture
def cache(engine):
    if not engine.opcache:
        pytest.skip("this engine has no opcache")
    return engine.opcache


def test_text_of_the_caller(wire, collector):
    result = wire.cli(source())
    assert result.status == 0 and not result.stderr, result
    assert check(result.stdout) == "plain"
    assert collector.payload.transaction["t_name"] == "/a_b_c"


@pytest.mark.parametrize("settings", [
    {}, {"opcache.protect_memory": 1}, {"opcache.optimization_level": 0},
    {"kaq.track_zend_execute": 0, "opcache.jit": "tracing", "opcache.jit_buffer_size": "8M"},
    {"kaq.track_zend_execute": 0, "opcache.jit": "function", "opcache.jit_buffer_size": "8M"}],
    ids=["opcache", "protected memory", "not optimised", "tracing", "compiled"])
def test_text_of_the_caller_with_opcache(wire, collector, cache, settings):
    result = wire.cli(source(), settings=dict(cache, **settings))
    assert result.status == 0 and not result.stderr, result
    assert check(result.stdout) == "cached"
    assert collector.payload.transaction["t_name"] == "/a_b_c"


def test_text_of_the_caller_from_a_file_cache(wire, cache):
    directory = wire.directory / "cache"
    directory.mkdir()
    cache.update({"opcache.file_cache": str(directory), "opcache.file_cache_only": 1})
    script = wire.script(source())
    for _ in range(3):
        check(wire.cli(script, settings=cache).stdout)
        assert list(directory.rglob("*.bin"))


def test_shared_memory_stays_as_it_is_from_request_to_request(wire, cache):
    server = wire.cgi_server(dict(cache, **{"opcache.protect_memory": 1}))
    page = wire.script(source(), "page.php")
    for _ in range(4):
        assert check(server.request(page).body) == "cached"


def test_opcache_may_pass_the_literal_in_place_of_its_variable(wire, collector, engine, cache):
    body = "function f() { $n = 'a b?c'; kaq_transaction_name($n); echo $n; } f();"
    assert wire.cli(body).stdout == b"a_b_c"
    seen = wire.cli(body, settings=cache).stdout.decode()
    assert seen == (OLD if engine.version_id >= 70400 else NEW)
    assert [p.transaction["t_name"] for p in collector.payloads] == ["/a_b_c"] * 2


def test_variable_of_another_call_is_left_alone(wire):
    """The engine calls a loader of classes on behalf of an instruction that passes nothing."""
    out = wire.cli("""
        spl_autoload_register('kaq_transaction_name');
        function g($text, $object) {}
        function f($n) { try { g($n, new $n); } catch (Error $e) { } return $n; }
        echo f('A\\\\' . 'B' . mt_rand(1, 1));""").stdout
    assert out == b"A\\B1"


def test_texts_made_in_a_loop_leave_no_memory_behind(wire, engine):
    if not engine.keeps_memory_limit:
        pytest.skip("memory does not come from the engine's allocator")
    out = wire.cli("""
        function f($i) {
            $n = str_repeat("a b $i", 300); $a = ['k' => $n . 'x']; $m = $n;
            kaq_transaction_name($n); kaq_transaction_name($a['k']); kaq_transaction_name($m);
        }
        f(1);
        $before = memory_get_usage();
        for ($i = 0; $i < 2000; $i++) f($i);
        echo memory_get_usage() - $before;""").stdout
    assert 0 <= int(out) < 4096
