"""kaq.track_zend_execute=2: the engine tells of calls, and no hook stands on the C stack. The spans are
those of the hook, but for a few that differ on purpose."""
import pytest
from engines import KEEP_ALL
from fake_collector import DISABLED

HOOK, OBSERVER = {"kaq.track_zend_execute": 1}, {"kaq.track_zend_execute": 2}


@pytest.fixture
def observing(engine):
    if not engine.can_observe_calls:
        pytest.skip("this engine has no observer that is fit for it")
    return engine


def spans(payload):
    """Everything of the spans but times and identifiers, in the order of their keys."""
    keys = {span["si"]: span["mo"] for span in payload.spans}
    return [(span["fn"], keys.get(span.get("psi")), span.get("if"), span.get("ie"),
             [record["str"] for record in span.get("ei", [])]) for span in payload.spans]


# What is the same --------------------------------------------------------------------------------

WORK = "function leaf() { return 1; } function down($n) { return $n ? down($n - 1) : leaf(); } "
SAME = {
    "nothing": "",
    "nested calls": "down(4); down(2);",
    "methods": "class P { function m() { return static::s(); } static function s() { leaf(); } }"
               "class C extends P { function __construct() { $this->m(); } } new C; P::s();",
    "magic methods": "class M { function __get($n) { leaf(); } function __toString() { return ''; }"
                     "function __invoke() { leaf(); } } $m = new M; $m->x; '' . $m; $m();",
    "callbacks": "array_map('down', [1, 2]); usort($list, 'down'); call_user_func('down', 2);",
    "closures": "$f = function () { return (fn() => leaf())(); }; $f(); array_map($f, [1]);",
    "evaluated code": "eval('function made() { leaf(); } made();'); eval('leaf();');",
    "autoloader": "spl_autoload_register(function ($c) { leaf(); }); class_exists('Missing');",
    "exception": "function throws() { leaf(); throw new Exception('x'); }"
                 "function passes() { throws(); leaf(); } function stops() { try { passes(); }"
                 "catch (Exception $e) { leaf(); } finally { down(1); } } stops(); leaf();",
    "exception of a callback": "function t() { throw new Exception('x'); }"
                               "try { array_map('t', [1, 2]); } catch (Exception $e) {} leaf();",
    "uncaught exception": "function t() { throw new Exception('x'); } down(1); t();",
    "exception handler": "set_exception_handler('down_'); function down_($e) { leaf(); }"
                         "function t() { throw new Exception('x'); } t();",
    "error": "function e() { trigger_error('x'); leaf(); } e(); leaf();",
    "error handler": "set_error_handler(function () { leaf(); return true; });"
                     "function e() { trigger_error('x'); } e();",
    "fatal error": "function dies() { leaf(); missing_here(); } down(2); dies();",
    "end by a bailout": "function late() { down(1); } register_shutdown_function('late');"
                        "class D { function __destruct() { leaf(); } } $d = new D;"
                        "function out() { in(); } function in() { leaf(); class_alias(); "
                        "ini_set('memory_limit', '4M'); str_repeat('x', 64 << 20); } "
                        "try { out(); } catch (Error $e) {} function fatal() {"
                        "ini_set('memory_limit', '4M'); return str_repeat('x', 64 << 20); }"
                        "function around() { fatal(); } around();",
    "bailout below a callback": "function fatal() { leaf(); eval('class A extends A {}'); "
                                "ini_set('memory_limit', '4M'); return str_repeat('x', 64 << 20); }"
                                "function late() { down(1); } register_shutdown_function('late');"
                                "function around() { array_map('fatal', [1]); } around();",
    "bailout in a shutdown function": "function late() { dies(); } function later() { leaf(); }"
                                      "function dies() { ini_set('memory_limit', '4M');"
                                      "str_repeat('x', 64 << 20); }"
                                      "register_shutdown_function('late'); "
                                      "register_shutdown_function('later'); down(1);",
    "exit": "function leaves() { leaf(); exit; } function late() { leaf(); }"
            "register_shutdown_function('late'); function out() { leaves(); } out();",
    "destructor": "class D { function __destruct() { leaf(); } } function f() { new D; leaf(); }"
                  "f(); $d = new D; unset($d); $late = new D;",
    "limit": "ini_set('kaq.span_limit', '3'); for ($i = 0; $i < 5; $i++) down(1);",
    "limit that is raised again": "ini_set('kaq.span_limit', '3'); down(2); function around() {"
                                  "down(1); ini_set('kaq.span_limit', '100'); leaf(); } around();"
                                  "down(1);",
    "limit below open calls": "function around($n) { $n ? around($n - 1) : limits(); leaf(); }"
                              "function limits() { leaf(); ini_set('kaq.span_limit', '1'); leaf(); }"
                              "around(3); leaf();",
    "short calls": "ini_set('kaq.method_threshold', '99999'); down(5); function e() { leaf();"
                   "trigger_error('x'); down(1); } e(); down(3);",
}
FIBERS = {
    "taking turns": "function f($n) { leaf(); Fiber::suspend(); down(1); Fiber::suspend(); leaf(); }"
                    "$a = new Fiber('f'); $b = new Fiber('f'); $a->start(1); $b->start(2); leaf();"
                    "$a->resume(); $b->resume(); function later($x) { $x->resume(); leaf(); }"
                    "later($b); later($a); leaf();",
    "throwing": "function f() { leaf(); Fiber::suspend(); throw new Exception('x'); }"
                "function g() { $f = new Fiber('f'); $f->start(); leaf(); try { $f->resume(); }"
                "catch (Exception $e) { leaf(); } } g(); leaf();",
    "left suspended": "function f() { try { leaf(); Fiber::suspend(); } finally { leaf(); } }"
                      "function g() { $f = new Fiber('f'); $f->start(); leaf(); return $f; }"
                      "$kept = g(); g(); leaf();",
    "limit within": "function f() { leaf(); ini_set('kaq.span_limit', '2'); Fiber::suspend();"
                    "down(2); ini_set('kaq.span_limit', '99'); leaf(); } $f = new Fiber('f');"
                    "$f->start(); down(1); $f->resume(); leaf();",
    "ending with the script": "function f() { leaf(); exit; } function g() { $f = new Fiber('f');"
                              "$f->start(); leaf(); } g();",
    "dying": "function f() { leaf(); ini_set('memory_limit', '4M'); str_repeat('x', 64 << 20); }"
             "function late() { leaf(); } register_shutdown_function('late');"
             "function g() { $f = new Fiber('f'); $f->start(); leaf(); } g();",
}


def both_ways(wire, collector, source, settings=None):
    """Runs it with the hook and with the observer; the payloads in this order."""
    payloads, results = [], []
    for tracking in (HOOK, OBSERVER):
        collector.forget()
        results.append(wire.cli(WORK + source, settings=dict(
            KEEP_ALL, display_errors=0, log_errors=0, **dict(tracking, **(settings or {})))))
        payloads.append(collector.payload)
    assert results[0].outcome == results[1].outcome
    return payloads


@pytest.mark.parametrize("name", [*SAME, *("fiber " + name for name in FIBERS)])
def test_spans_are_those_of_the_hook(wire, collector, observing, name):
    source = FIBERS[name[6:]] if name.startswith("fiber ") else SAME[name]
    hook, observer = both_ways(wire, collector, "$list = [2, 1];" + source)
    assert spans(observer) == spans(hook)


@pytest.mark.parametrize("limit", [0, 1, 2, 5])
@pytest.mark.parametrize("name", ["nested calls", "exception", "callbacks"])
def test_limit_holds_as_with_the_hook(wire, collector, observing, name, limit):
    hook, observer = both_ways(wire, collector, "$list = [2, 1];" + SAME[name],
                               {"kaq.span_limit": limit})
    assert spans(observer) == spans(hook)


# deep() dies at the bottom, in a call that is not recorded: there the bailout ends.
CUT_OFF = """
    function deep($n) { return $n ? deep($n - 1) : dies(); }
    function dies() { leaf(); trigger_error('dies', E_USER_ERROR); }
    kaq_standin_plan('mysql_query', function () { leaf(); deep(3); });
    function around($n) { if ($n) { around($n - 1); } else { mysql_query('q'); } leaf(); }
    function late() { leaf(); } register_shutdown_function('late');
"""


@pytest.mark.parametrize("source", [
    "around(2); leaf();", "around(0); around(1); down(2);",
    "function g() { yield 1; around(1); yield 2; } $g = g(); $g->current(); $g->next(); leaf();",
    "ini_set('kaq.span_limit', '6'); around(2); ini_set('kaq.span_limit', '99'); leaf();",
    "function limits() { ini_set('kaq.span_limit', '1'); mysql_query('q'); leaf(); }"
    "function outer() { limits(); ini_set('kaq.span_limit', '99'); leaf(); } leaf(); outer();",
    "if (true) { $f = new Fiber(function () { Fiber::suspend(); around(1); leaf(); }); $f->start();"
    "around(1); $f->resume(); leaf(); }"])
def test_calls_that_a_swallowed_bailout_cuts_off_stay_open_to_the_end(
        drivers, collector, observing, source):
    payloads, results = [], []
    for tracking in (HOOK, OBSERVER):
        collector.forget()
        results.append(drivers.run(WORK + CUT_OFF + source, dict(
            tracking, display_errors=0, log_errors=0, **{
                "kaq.track_zend_execute_internal": 0, "kaq.track_errors": 1})))
        payloads.append(collector.payload)
    assert results[0].outcome == results[1].outcome and results[1].status >= 0
    created = [span for span in spans(payloads[0]) if span[0] == "g"][:1]
    if created:  # with the hook a generator's creation is a span
        assert [span[0] for span in spans(payloads[0])].count("g") == 3
        assert [span[0] for span in spans(payloads[1])].count("g") == 2
    else:
        assert spans(payloads[1]) == spans(payloads[0])


@pytest.mark.parametrize("tracking", [HOOK, OBSERVER], ids=["hook", "observer"])
def test_calls_that_a_fatal_error_cuts_off_end_with_the_request(
        wire, collector, engine, tracking):
    """The engine ends them for its observers before the shutdown functions run."""
    if not engine.memory_limit_is_a_bailout:
        pytest.skip("the memory limit unwinds here")
    wire.cli("function late() { usleep(30000); } register_shutdown_function('late');"
             "function outer() { dies(); } function dies() { ini_set('memory_limit', '4M');"
             "return str_repeat('x', 64 << 20); } outer();",
             settings=dict(KEEP_ALL, display_errors=0, **tracking))
    payload = collector.payload
    assert payload.tree() == ("main", [("outer", [("dies", [("late", [])])])])
    late = payload.span("late")
    assert late["et"] - late["st"] >= 29
    assert all(payload.span(name)["et"] >= late["et"] for name in ("outer", "dies"))


def test_request_that_is_not_monitored_records_nothing(wire, collector, observing):
    collector.reply = DISABLED
    assert wire.same_as_bare(wire.cli, source=WORK + "echo down(3);",
                             settings=dict(KEEP_ALL, **OBSERVER)).stdout == b"1"
    assert collector.payloads == []


@pytest.mark.parametrize("kind", ["builtin", "fpm"])
def test_each_request_is_recorded_or_not_for_itself(wire, collector, observing, kind):
    from conftest import Worker
    monitored = {"instance.id": "i-1", "instance.status": 920}
    collector.replies.extend([DISABLED, monitored, DISABLED, monitored])
    page = Worker(wire, kind).open(WORK + "echo down(1);", dict(KEEP_ALL, **OBSERVER))
    for _ in range(4):
        assert page.get() == b"1"
    assert [payload.names for payload in collector.payloads] == [["down", "down", "leaf"]] * 2


# What differs ------------------------------------------------------------------------------------

G = "function g($n) { for ($i = 0; $i < $n; $i++) { leaf(); yield $i; } leaf(); } "
G_SPAN, LEAF, DOWN = ("g", [("leaf", [])]), ("leaf", []), ("down", [("leaf", [])])


@pytest.mark.parametrize("source, tree", [
    ("foreach (g(2) as $v) down(0);", [G_SPAN, DOWN, G_SPAN, DOWN, G_SPAN]),
    ("foreach (g(3) as $v) { leaf(); break; }", [G_SPAN, LEAF]),
    ("$g = g(1); unset($g); leaf();", [LEAF]),
    ("$g = g(5); $g->current(); $g->next(); leaf();", [G_SPAN, G_SPAN, LEAF]),
    ("function f() { try { yield 1; yield 2; } finally { leaf(); } }"
     "foreach (f() as $v) break; leaf();", [("f", []), ("f", [LEAF]), LEAF]),
    ("function t() { leaf(); yield 1; throw new Exception('x'); }"
     "try { foreach (t() as $v) leaf(); } catch (Exception $e) { leaf(); }",
     [("t", [LEAF]), LEAF, ("t", []), LEAF]),
    ("function t() { try { yield 1; } catch (Exception $e) { leaf(); } yield 2; } $t = t();"
     "$t->current(); $t->throw(new Exception('x')); leaf();", [("t", []), ("t", [LEAF]), LEAF]),
    ("function d() { yield from g(1); leaf(); } foreach (d() as $v) down(0);",
     [("d", []), G_SPAN, DOWN, G_SPAN, ("d", [LEAF])]),
    ("function r($n) { if ($n) yield from r($n - 1); leaf(); yield $n; }"
     "foreach (r(1) as $v) down(0);",
     [("r", []), ("r", [LEAF]), DOWN, ("r", []), ("r", [LEAF]), DOWN, ("r", [])]),
    ("$g = g(2); $g->current(); function dies() { exit; } dies();", [G_SPAN, ("dies", [])]),
], ids=lambda item: item[:40] if isinstance(item, str) else "")
def test_generator_has_a_span_for_each_time_it_runs_and_none_for_its_creation(
        wire, collector, observing, source, tree):
    wire.same_as_bare(wire.cli, source=WORK + G + source, settings=dict(KEEP_ALL, **OBSERVER))
    assert collector.payload.tree() == ("main", tree)


def test_magic_call_has_no_span_of_the_name_that_was_called(wire, collector, observing):
    wire.cli("class A { function __call($n, $a) { leaf(); } static function __callStatic($n, $a)"
             "{} } (new A)->x(); A::y();" + WORK, settings=dict(KEEP_ALL, **OBSERVER))
    assert collector.payload.tree() == ("main", [
        ("A::__call", [LEAF]), ("A::__callStatic", [])])


def test_destructors_of_local_variables_come_after_their_function(wire, collector, observing):
    wire.cli(WORK + "class D { function __destruct() { leaf(); } }"
             "function f() { $d = new D; leaf(); } f();", settings=dict(KEEP_ALL, **OBSERVER))
    assert collector.payload.tree() == ("main", [
        ("f", [LEAF]), ("D::__destruct", [LEAF])])


# What it is for ----------------------------------------------------------------------------------

JIT = """
    function work($n) { $x = 0; for ($i = 0; $i < $n; $i++) { $x += add($i, 1); } return $x; }
    function add($a, $b) { return $a + $b; }
    echo work(5000), ' ', json_encode(opcache_get_status(false)['jit']['on']);
"""


@pytest.mark.parametrize("jit", ["tracing", "function"])
def test_jit_stays_on_without_a_word(wire, collector, observing, jit):
    if not observing.opcache:
        pytest.skip("this engine has no opcache")
    settings = dict(observing.opcache, display_startup_errors=1, display_errors=1, **{
        "opcache.jit": jit, "opcache.jit_buffer_size": "16M"})
    bare = wire.cli(JIT, settings=settings, loaded=False)
    assert (bare.stdout, bare.stderr) == (b"12502500 true", b"")
    watched = wire.cli(JIT, settings=dict(KEEP_ALL, **settings, **OBSERVER))
    assert watched.outcome == bare.outcome
    assert collector.payload.tree() == ("main", [("work", [("add", [])] * 5000)])
    hooked = wire.cli(JIT, settings=dict(settings, **HOOK))
    assert b"JIT is incompatible" in hooked.stdout and hooked.stdout.endswith(b" false")


def test_recursion_ends_with_the_memory_as_without_us(wire, collector, observing):
    deep = "function down($n) { return $n ? 1 + down($n - 1) : 0; } echo down(2000000);"
    settings = {"memory_limit": -1}
    watched = wire.same_as_bare(wire.cli, source=deep, settings=dict(settings, **OBSERVER))
    assert (watched.stdout, watched.status) == (b"2000000", 0)
    hooked = wire.cli(deep, settings=dict(settings, **HOOK))
    assert b"Maximum call stack size" in hooked.stdout and hooked.status == 255


def test_value_means_the_hook_where_there_is_no_fit_observer(wire, collector, engine):
    if engine.can_observe_calls:
        pytest.skip("this engine observes calls")
    wire.cli("class A { function __call($n, $a) {} } (new A)->x();",
             settings=dict(KEEP_ALL, **OBSERVER))
    assert collector.payload.tree() == ("main", [("A::x", [("A::__call", [])])])
