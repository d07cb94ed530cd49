"""Errors and exceptions are to the script what they are without the extension."""
import pytest
from fake_collector import DISABLED

SETTINGS = {"kaq.method_threshold": 0, "display_errors": 1, "log_errors": 1, "html_errors": 0}

SCRIPTS = {
    "handler sees every argument": """
        set_error_handler(function () { echo json_encode(array_slice(func_get_args(), 0, 4)); });
        trigger_error('a', E_USER_WARNING); $x = hex2bin('a'); echo $undefined; var_dump($x);
    """,
    "handler that returns false": """
        set_error_handler(function ($n, $text) { echo "[$text]"; return false; });
        trigger_error('a'); var_dump(error_get_last()['message']);
    """,
    "handler for some types": """
        set_error_handler(function ($n, $text) { echo "[$text]"; }, E_USER_WARNING);
        trigger_error('a'); trigger_error('b', E_USER_WARNING);
    """,
    "handlers stacked and restored": """
        set_error_handler(function ($n, $text) { echo "1 $text "; });
        var_dump(is_object(set_error_handler(function ($n, $text) { echo "2 $text "; })));
        trigger_error('a'); restore_error_handler(); trigger_error('b');
        restore_error_handler(); trigger_error('c'); var_dump(set_error_handler(null));
    """,
    "handler that throws": """
        set_error_handler(function ($n, $text, $file, $line) {
            throw new ErrorException($text, 3, $n, $file, $line); });
        function f() { return hex2bin('a'); }
        try { f(); } catch (ErrorException $e) { echo $e->getMessage(), $e->getSeverity(); }
        try { echo $none['x']['y']; } catch (ErrorException $e) { echo $e->getLine(); }
        f();
    """,
    "handler that raises errors of its own": """
        set_error_handler(function ($n, $text) { trigger_error("in $text", E_USER_WARNING);
            hex2bin('a'); echo $undefined; });
        trigger_error('outer'); var_dump(error_get_last()['type']);
    """,
    "handler that exits":
        "set_error_handler(function () { exit(7); }); trigger_error('a'); echo 1;",
    "handler that restores itself away": """
        set_error_handler(function ($n, $t) { restore_error_handler(); echo "[$t]"; });
        trigger_error('a'); trigger_error('b');
    """,
    "last error": """
        var_dump(error_get_last()); @hex2bin('a'); print_r(error_get_last());
        function f() { @trigger_error('later'); } f(); print_r(error_get_last());
        try { throw new Exception('not an error'); } catch (Exception $e) {}
        print_r(error_get_last()); error_clear_last(); var_dump(error_get_last());
    """,
    "suppressed": """
        @trigger_error('a'); echo @$none, @$none['x']; $l = @include 'nowhere.php'; var_dump($l);
        function f() { trigger_error('shown'); return 1; } echo @f(); echo error_reporting();
    """,
    "error reporting": """
        foreach ([0, E_ALL, E_ALL & ~E_USER_NOTICE, E_WARNING, -1] as $level) {
            error_reporting($level); echo $level; trigger_error('n'); hex2bin('a');
            echo error_reporting(); }
    """,
    "display to nowhere": "ini_set('display_errors', 0); trigger_error('a'); echo 'b';",
    "error text around the message": """
        ini_set('error_prepend_string', '<<'); ini_set('error_append_string', '>>');
        trigger_error('a'); ini_set('html_errors', 1); trigger_error('<b>'); hex2bin('a');
    """,
    "tracked message of the last error": """
        @ini_set('track_errors', 1); @hex2bin('a');
        echo isset($php_errormsg) ? $php_errormsg : 'none';
    """,
    "log file": """
        $log = tempnam(sys_get_temp_dir(), 'log'); ini_set('error_log', $log);
        for ($n = 0; $n < 15; $n++) trigger_error("n$n"); error_log('own');
        echo preg_replace('/^\\[.*?\\]/m', '', file_get_contents($log)); unlink($log);
    """,
    "storm of deprecations": """
        class Old { function run() {} } ini_set('display_errors', 0); ini_set('log_errors', 0);
        $count = 0; set_error_handler(function ($n) use (&$count) { $count++; return true; });
        for ($i = 0; $i < 20000; $i++) { trigger_error('d', E_USER_DEPRECATED); }
        restore_error_handler();
        for ($i = 0; $i < 20000; $i++) {
            if (PHP_VERSION_ID < 80000) { Old::run(); } else { $o = new Old; $o->p = 1; } }
        echo $count; print_r(error_get_last());
    """,
    "storm of warnings that are shown": "for ($i = 0; $i < 300; $i++) { hex2bin('a'); echo $i; }",
    "caught exception": """
        function f() { throw new LogicException('m', 5, new Exception('before')); }
        try { f(); } catch (LogicException $e) {
            echo $e, get_class($e->getPrevious()), $e->getCode(), count($e->getTrace()); }
    """,
    "uncaught exception": "function f($x) { throw new Exception('m'); } f([1, 'two']);",
    "uncaught error of the engine": "function f(int $i) {} f('no number');",
    "exception handler": """
        set_exception_handler(function ($e) { echo get_class($e), $e->getMessage(); exit(9); });
        register_shutdown_function(function () { echo 'shutdown'; print_r(error_get_last()); });
        throw new DomainException('handled');
    """,
    "exception handler that throws": """
        set_exception_handler(function ($e) { throw new Exception('again', 1, $e); });
        throw new Exception('first');
    """,
    "exception handler after an error handler": """
        set_error_handler(function ($n, $t) { throw new ErrorException($t); });
        set_exception_handler(function ($e) { echo get_class($e), $e->getMessage(); echo $none; });
        trigger_error('to an exception');
    """,
    "finally within finally": """
        function f() { try { try { throw new Exception('1'); } finally {
            try { throw new Exception('2'); } finally { echo 'inner '; } } }
            finally { echo 'outer '; } }
        try { f(); } catch (Exception $e) { while ($e) { echo $e->getMessage();
            $e = $e->getPrevious(); } }
    """,
    "finally that returns": """
        function f() { try { throw new Exception('lost'); } finally { return 'kept'; } } echo f();
        function g() { foreach ([1, 2] as $i) { try { throw new Exception('x'); } finally {
            continue; } } return 'done'; } echo g();
        function h() { try { return trigger_error('r'); } finally { trigger_error('f'); } } h();
    """,
    "exception in a destructor": """
        class D { public $n; function __construct($n) { $this->n = $n; }
                  function __destruct() { throw new Exception('d' . $this->n); } }
        try { new D(1); } catch (Exception $e) { echo $e->getMessage(); }
        function f() { $d = new D(2); throw new Exception('f'); }
        try { f(); } catch (Exception $e) { echo $e->getMessage();
            echo $e->getPrevious() ? $e->getPrevious()->getMessage() : 'alone'; }
        $left = new D(3); echo 'end';
    """,
    "destructor of an exception": """
        class E extends Exception { function __destruct() { echo 'gone ', $this->getMessage();
            trigger_error('while going'); } }
        function f() { try { throw new E('1'); } catch (E $e) {} echo 'in '; } f(); echo 'out ';
        try { throw new E('2'); } catch (E $e) { $e = null; echo 'after '; }
    """,
    "exceptions in generators": """
        function g() { try { yield 1; yield 2; } catch (Exception $e) { echo $e->getMessage();
            yield 3; } finally { echo 'end '; trigger_error('in finally'); } }
        $g = g(); $g->current(); echo $g->throw(new Exception('thrown')); $g->next();
        $g = g(); $g->current(); unset($g);
        function h() { yield 1; throw new Exception('from within'); }
        function d() { yield from h(); }
        try { foreach (d() as $v) echo $v; } catch (Exception $e) { echo $e->getLine(); }
        $g = g(); $g->next(); throw new Exception('leaves one behind');
    """,
    "shutdown functions": """
        register_shutdown_function(function () { trigger_error('late'); echo 'a'; });
        register_shutdown_function(function () { throw new Exception('late'); });
        register_shutdown_function(function () { echo 'never?'; });
        trigger_error('dead', E_USER_ERROR);
    """,
    "last error at shutdown": """
        register_shutdown_function(function () { print_r(error_get_last()); });
        function f() { trigger_error('dead', E_USER_ERROR); } f();
    """,
    "parse error in an include": """
        file_put_contents($f = tempnam(sys_get_temp_dir(), 'inc'), '<?php function ( {');
        try { include $f; } catch (ParseError $e) { echo basename($e->getFile()) == basename($f),
            $e->getLine(), $e->getMessage(); } unlink($f); var_dump(error_get_last());
        eval('this is no php');
    """,
    "compile error in an include": """
        file_put_contents($f = __DIR__ . '/inc.php', '<?php function strlen() {} echo 1;');
        register_shutdown_function(function () use ($f) { unlink($f); echo 'off'; });
        include $f; echo 'never';
    """,
    "compile warning": "eval('declare(unknown=1); echo 1;'); print_r(error_get_last());",
    "missing file": "require 'nowhere.php'; echo 'never';",
    "exception with magic members": """
        class Odd extends Exception {
            function __construct() { unset($this->message, $this->file, $this->line); }
            function __get($name) { echo "get $name "; return null; }
            function __isset($name) { echo "isset $name "; return true; }
            function __set($name, $value) { echo "set $name "; }
            function __unset($name) { echo "unset $name "; }
            function __call($name, $arguments) { echo "call $name "; } }
        function f() { throw new Odd; } try { f(); } catch (Odd $e) { echo 'caught '; }
        try { f(); } catch (Odd $e) { echo $e->nothing, count($e->getTrace()); }
    """,
    "exception whose message is an object": """
        class Text { function __toString() { echo 'asked '; throw new Exception('nested'); } }
        class Odd extends Exception { function __construct() { $this->message = new Text;
            $this->extra = [1]; } }
        function f() { throw new Odd; }
        try { f(); } catch (Odd $e) { echo 'caught ', get_class($e); }
        try { f(); } catch (Odd $e) { echo count((array)$e) > 6 ? 'whole' : 'less'; }
    """,
    "exception whose message is an array or a resource": """
        class Odd extends Exception { function __construct($m) { $this->message = $m; } }
        set_error_handler(function ($n, $t) { echo "[$t]"; });
        foreach ([[1, [2]], fopen('php://memory', 'r'), 1.5, null] as $m) {
            try { throw new Odd($m); } catch (Odd $e) { echo gettype($e), ' '; } }
        var_dump(error_get_last());
    """,
    "exception whose message is a reference": """
        class Odd extends Exception { function __construct(&$m) { $this->message = &$m; } }
        $m = 'a'; function f(&$m) { throw new Odd($m); }
        try { f($m); } catch (Odd $e) { $m = 'b'; echo $e->getMessage(); }
    """,
    "exceptions of classes without a name": """
        for ($i = 0; $i < 3; $i++) { try { throw new class("n$i") extends Exception {
            function __toString() { return 'text'; } }; } catch (Exception $e) {
            echo $e->getMessage(), $e, strlen(get_class($e)) > 10 ? 'l' : 's'; } }
    """,
    "exceptions of evaluated classes": """
        for ($i = 0; $i < 15; $i++) { eval("class Made$i extends Exception {}");
            try { $name = "Made$i"; throw new $name("m$i"); } catch (Exception $e) {
            echo get_class($e), $e->getMessage(); unset($e); } }
        throw new Made3('last');
    """,
    "errors in output callbacks": """
        ob_start(function ($text) { trigger_error('in the callback'); return strrev($text); });
        echo 'abc'; trigger_error('with the buffer'); ob_end_flush(); echo 'def';
    """,
    "exception in an output callback": """
        ob_start(function ($text) { throw new Exception('in the callback'); }); echo 'abc';
    """,
    "errors while sorting, walking and autoloading": """
        spl_autoload_register(function ($class) { trigger_error("load $class"); });
        class_exists('Missing'); $a = [3, 1, 2];
        usort($a, function ($x, $y) { trigger_error('cmp'); return $x - $y; });
        array_walk($a, function ($v) { if ($v == 2) throw new Exception("walk $v"); });
    """,
    "assignments that an error interrupts": """
        set_error_handler(function ($n, $t) { global $a; $a = 'changed'; });
        $a = []; $a['k'] = $undefined . 'x'; var_dump($a);
        $b = 'str'; $b .= $none; var_dump($b); $i = 1; $i += @$none['k']; var_dump($i);
    """,
    "backtrace in a handler": """
        set_error_handler(function () { debug_print_backtrace(); echo count(debug_backtrace()); });
        function f($x) { g(); } function g() { trigger_error('a'); } f(1);
    """,
    "trace of an exception is its own": """
        function f($x) { return new Exception('made'); }
        $e = f(new stdClass); function t($e) { throw $e; }
        try { t($e); } catch (Exception $e) { echo $e->getTraceAsString(); }
    """,
    "assertions": """
        ini_set('zend.assertions', 1); ini_set('assert.exception', 1);
        try { assert(false); } catch (AssertionError $e) { echo get_class($e); }
        @ini_set('assert.exception', 0); @assert(1 > 2); print_r(error_get_last());
    """,
    "exceptions out of internal callers": """
        class S implements JsonSerializable, Countable, IteratorAggregate, ArrayAccess {
            function fail() { throw new Exception('s'); }
            #[ReturnTypeWillChange]
            function jsonSerialize() { $this->fail(); }
            #[ReturnTypeWillChange]
            function count() { $this->fail(); }
            #[ReturnTypeWillChange]
            function getIterator() { $this->fail(); }
            #[ReturnTypeWillChange]
            function offsetGet($k) { $this->fail(); }
            #[ReturnTypeWillChange]
            function offsetSet($k, $v) { $this->fail(); }
            #[ReturnTypeWillChange]
            function offsetExists($k) { $this->fail(); }
            #[ReturnTypeWillChange]
            function offsetUnset($k) { $this->fail(); } }
        $s = new S;
        foreach (['json_encode', 'count', 'iterator_to_array'] as $f) {
            try { $f($s); } catch (Exception $e) { echo $f, get_class($e),
                $e->getPrevious() ? 1 : 0; } }
        try { $s['k'] = 1; } catch (Exception $e) { echo $e->getLine(); }
        try { isset($s['k']); } catch (Exception $e) { echo $e->getLine(); }
    """,
    "eleven classes and eleven errors and more": """
        for ($i = 0; $i < 25; $i++) { eval("class C$i extends Exception {}"); $n = "C$i";
            trigger_error("e$i"); try { throw new $n("x$i"); } catch (Exception $e) { echo $n; } }
    """,
    "recursion of ten thousand calls": """
        function f($n) { if ($n) return f($n - 1) + 1; trigger_error('at the bottom');
            throw new Exception('from the bottom'); }
        try { f(10000); } catch (Exception $e) { echo count($e->getTrace()); }
        ini_set('kaq.stack_depth', '0'); try { f(3000); } catch (Exception $e) { echo 'all'; }
    """,
    "exceptions that hold each other": """
        $e = null; for ($i = 0; $i < 200; $i++) { try { throw new Exception("$i", $i, $e); }
            catch (Exception $e) {} } $n = 0; while ($e) { $n++; $e = $e->getPrevious(); } echo $n;
    """,
    "objects freed by a failure": """
        class D { function __destruct() { echo 'freed '; } }
        function f($d) { throw new Exception('x'); }
        try { f(new D); } catch (Exception $e) { echo 'caught '; unset($e); echo 'unset '; }
        function g($d) { trigger_error('e'); } g(new D); echo 'end';
    """,
    "memory of many failures": """
        ini_set('display_errors', 0); ini_set('log_errors', 0);
        function round_() { for ($i = 0; $i < 200; $i++) { @trigger_error('e');
            try { throw new Exception('x'); } catch (Exception $e) {} } }
        round_(); $before = memory_get_usage(); round_(); round_();
        echo memory_get_usage() - $before;
    """,
}

FIBERS = {
    "exceptions in and out of fibers": """
        $f = new Fiber(function () { try { Fiber::suspend(1); } catch (Exception $e) {
            echo $e->getMessage(); trigger_error('in a fiber'); throw new Exception('out', 0, $e); }
        });
        $f->start();
        try { $f->throw(new Exception('in')); } catch (Exception $e) { echo $e->getMessage(),
            $e->getPrevious()->getMessage(); }
    """,
    "fiber left with a finally": """
        $f = new Fiber(function () { try { Fiber::suspend(); } finally { echo 'finally';
            trigger_error('late'); } }); $f->start(); echo 'end';
    """,
    "fiber started twice": """
        $f = new Fiber(function () {}); $f->start();
        try { $f->start(); } catch (FiberError $e) { echo $e->getMessage(); } $f->resume();
    """,
    "handler that suspends": """
        set_error_handler(function ($n, $t) { echo Fiber::suspend("[$t]"); });
        $f = new Fiber(function () { trigger_error('a'); echo 'after'; });
        echo $f->start(); $f->resume('resumed');
    """,
    "uncaught in a fiber": """
        function f() { throw new Exception('out of the fiber'); } (new Fiber('f'))->start();
    """,
}


@pytest.mark.parametrize("monitored", [True, False], ids=["monitored", "unmonitored"])
@pytest.mark.parametrize("name", list(SCRIPTS))
def test_script(wire, collector, name, monitored):
    if not monitored:
        collector.reply = DISABLED
    result = wire.same_as_bare(wire.cli, source=SCRIPTS[name], settings=SETTINGS)
    assert result.stdout or result.status
    collector.settle()
    assert collector.events == ["status", "data"]
    assert collector.data_records[0].is_notice != monitored


@pytest.mark.parametrize("name", list(SCRIPTS))
def test_page(wire, collector, name):
    wire.same_as_bare(wire.cgi, source=SCRIPTS[name], settings=SETTINGS)
    assert collector.payload.transaction["transaction_type"] == 1


@pytest.mark.parametrize("name", list(FIBERS))
def test_fibers(wire, collector, engine, name):
    if engine.version_id < 80100:
        pytest.skip("no fibers in this engine")
    result = wire.same_as_bare(wire.cli, source=FIBERS[name], settings=SETTINGS)
    assert result.stdout and collector.payload.names


# The memory limit --------------------------------------------------------------------------------

# Fills the memory until `room` bytes are left to the next chunk that the limit refuses.
NEARLY_FULL = """
    ini_set('display_errors', 1); $keep = [];
    function fill($room) { global $keep; $limit = 8 << 20;
        while ($limit - memory_get_usage() > $room) { $keep[] = str_repeat('x', 10000); } }
"""


@pytest.fixture
def limited(wire, collector, engine):
    """Runs a script under a limit of 8 MB with and without the extension."""
    if not engine.keeps_memory_limit:
        pytest.skip("memory of this engine has no limit")

    def run(source):
        settings = dict(SETTINGS, memory_limit="8M")
        bare = wire.cli(NEARLY_FULL + source, settings=settings, loaded=False)
        loaded = wire.cli(NEARLY_FULL + source, settings=settings)
        return bare, loaded, collector.payload
    return run


@pytest.mark.parametrize("failure", [
    "@trigger_error(str_repeat('long', 500));", "@hex2bin('a');",
    "try { throw new Exception(str_repeat('long', 500)); } catch (Exception $e) { unset($e); }"])
def test_failure_near_the_memory_limit_does_not_end_the_script(limited, failure):
    bare, loaded, payload = limited("""
        function fails() { %s return 1; } fill(400000); echo fails(), 'done'; exit(4);
    """ % failure)
    assert loaded.outcome == bare.outcome
    assert (loaded.stdout, loaded.status) == (b"1done", 4)
    assert payload.span("fails")["ei"] and len(payload.span("fails")["mst"]) >= 1


def test_failures_leave_the_memory_limit_standing(limited):
    """However full the memory was when a failure was recorded, the script still ends at it."""
    bare, loaded, payload = limited("""
        ini_set('kaq.stack_depth', '0');
        function rec($n) { if ($n) { rec($n - 1); return; } fill(400000);
            trigger_error('at the bottom');
            for ($n = 0; $n < 40; $n++) { $GLOBALS['keep'][] = str_repeat('y', 1 << 20); }
            echo 'without end'; }
        rec(1500);
    """)
    for result in (bare, loaded):
        assert result.status == 255 and b"at the bottom" in result.stdout, result
        assert b"Allowed memory size of 8388608 bytes exhausted" in result.stdout
    assert max(len(span.get("mst", [])) for span in payload.spans) > 1500


def test_memory_that_is_used_up_in_small_steps(limited):
    bare, loaded, payload = limited("""
        function eat() { global $keep; while (true) { @trigger_error('still there');
            $keep[] = str_repeat('x', 5000); } }
        eat();
    """)
    for result in (bare, loaded):
        assert result.status == 255
        assert b"Allowed memory size of 8388608 bytes exhausted" in result.stdout
    assert [record["str"] for record in payload.span("eat")["ei"]] == ["still there"] * 10


def test_end_by_the_memory_limit_is_recorded_and_shown_alike(limited):
    bare, loaded, payload = limited("""
        function eat() { return str_repeat('x', 64 << 20); } eat();
    """)
    assert loaded.outcome == bare.outcome and loaded.status == 255
    record, = payload.span("eat")["ei"]
    assert record["level"] == "Error" and record["str"].startswith("Allowed memory size of 8388608")
