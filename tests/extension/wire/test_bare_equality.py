"""A script must not be able to tell that it is watched, whatever it does and however it ends."""
import pytest
from engines import KEEP_ALL
from fake_collector import DISABLED

SCRIPTS = {
    "plain text": "?>text <?php",
    "empty": "",
    "exit with text": "exit('text');",
    "exit with status": "exit(200);",
    "syntax error": "this is no php",
    "uncaught exception": "function f() { throw new LogicException('no', 5); } f();",
    "nested exceptions": "try { throw new Exception('a'); } finally { throw new Error('b'); }",
    "notice and warning": "echo $undefined; strlen(); 1 % 0;",
    "user handlers": "set_error_handler(function ($n, $m) { echo $m; return true; });"
                     "set_exception_handler(function ($e) { echo get_class($e); exit(8); });"
                     "echo $undefined; throw new Exception;",
    "last error": "@$undefined[1]; var_dump(error_get_last());",
    "memory limit": "ini_set('memory_limit', '3M'); $s = 'x'; while (true) $s .= $s;",
    "json state": "json_decode('{'); echo json_last_error(); function f() {} f();"
                  "echo json_last_error(), json_last_error_msg();",
    "objects and resources": "var_dump(new stdClass, new ArrayObject, fopen('php://memory', 'r'));",
    "object identities": "for ($i = 0; $i < 4; $i++) $o[] = new stdClass;"
                         "foreach ($o as $one) var_dump($one);",
    "output buffers": "ob_start(); echo 'a'; echo ob_get_level(); ob_end_flush(); echo 'b';",
    "output callback": "ob_start(function ($t) { return strrev($t); }); echo 'abc';",
    "constants and functions": "echo count(get_defined_functions()['user']);",
    "backtrace": "function a() { b(); } function b() { debug_print_backtrace(); } a();",
    "trace of an exception": "function a($x) { b($x); } function b($x) { echo (new Exception)->"
                             "getTraceAsString(); } a([1]);",
    "return values": "function f() { return [1, 2]; } function &r(array &$x) { return $x[0]; }"
                     "$x = [1]; $y = &r($x); $y = 9; var_dump(f(), $x);",
    "static variables": "function f() { static $n = 0; return ++$n; } f(); f(); echo f();",
    "generator": "function g() { $x = yield 1; echo $x; yield from [2, 3]; return 4; }"
                 "$g = g(); echo $g->current(); $g->send('s'); foreach ($g as $v) echo $v;"
                 "echo $g->getReturn();",
    "closures": "$f = function () { return func_get_args(); }; print_r($f(1, 2));",
    "deep recursion": "function f($n) { return $n ? f($n - 1) + 1 : 0; } echo f(5000);",
    "destructor order": "class D { public $n; function __construct($n) { $this->n = $n; }"
                        "function __destruct() { echo $this->n; } }"
                        "$a = new D('a'); $b = new D('b'); exit;",
    "shutdown order": "register_shutdown_function(function () { echo 'late'; exit(3); });"
                      "echo 'early'; exit(2);",
    "exit in a destructor": "class D { function __destruct() { exit(6); } } $d = new D; echo 1;",
    "exit in an output callback":
        "ob_start(function ($t) { return $t . '!'; }); echo 'x'; exit(1);",
    "exception in a destructor": "class D { function __destruct() { throw new Exception('d'); } }"
                                 "$d = new D;",
    "serialize": "class S { function __sleep() { return []; } } echo serialize(new S);",
    "sorting callbacks": "$a = range(5, 1); usort($a, function ($x, $y) { return $x - $y; });"
                         "print_r($a);",
    "standard streams": "fwrite(STDERR, 'err'); fwrite(STDOUT, 'out');",
    "session functions": "echo function_exists('kaq') ? 'y' : 'n';",
    "random numbers": "mt_srand(3); echo mt_rand(), ' ', mt_rand(1, 9);",
    "locale and time zone": "echo setlocale(LC_ALL, 0), date_default_timezone_get();",
    "signal dispositions": "echo count(array_filter(explode(\"\\n\", file_get_contents("
                           "'/proc/self/status')), function ($l) {"
                           "return strpos($l, 'SigIgn') === 0; }));",
    "warnings in included file": "include '/nowhere/file.php'; echo 'on';",
    "compile error in eval": "try { eval('('); } catch (ParseError $e) { echo $e->getLine(); }",
    "autoload failure": "spl_autoload_register(function ($c) { echo $c; }); new Missing;",
}


@pytest.mark.parametrize("monitored", [True, False], ids=["monitored", "unmonitored"])
@pytest.mark.parametrize("name", list(SCRIPTS))
def test_command_line_script(wire, collector, name, monitored):
    if not monitored:
        collector.reply = DISABLED
    wire.same_as_bare(wire.cli, source=SCRIPTS[name], settings=KEEP_ALL)
    collector.settle()
    assert collector.events == ["status", "data"]
    assert collector.data_records[0].is_notice != monitored


@pytest.mark.parametrize("name", list(SCRIPTS))
def test_web_page(wire, collector, name):
    wire.same_as_bare(wire.cgi, source=SCRIPTS[name].replace("STDERR", "fopen('php://stderr', 'w')")
                      .replace("STDOUT", "fopen('php://output', 'w')"), settings=KEEP_ALL)
    collector.settle()
    assert collector.events == ["status", "data"]
    assert collector.payload.transaction["transaction_type"] == 1


@pytest.mark.parametrize("name", list(SCRIPTS))
def test_script_while_no_collector_listens(wire, name):
    wire.same_as_bare(wire.cli, source=SCRIPTS[name], settings=dict(
        KEEP_ALL, **{"kaq.status_port": 0, "kaq.data_port": 0}))


# Large requests ----------------------------------------------------------------------------------

def test_ten_thousand_spans(wire, collector):
    wire.same_as_bare(wire.cli, source="function f() {} for ($i = 0; $i < 10000; $i++) f();"
                                       "echo 'done'; exit(2);", settings=KEEP_ALL)
    assert len(collector.payload.spans) == 10001


def whole_payload(collector, compare, **arguments):
    """The payload of a run, which is tried again: what the collector has not read after a second is
    lost, and on a busy machine that happens now and then."""
    for _ in range(5):
        collector.forget()
        compare(**arguments)
        collector.settle()
        if all(not one.is_notice and one.raw.endswith(b"\n") for one in collector.data_records):
            break
    return collector.payload


def test_payload_of_fifty_megabytes_under_the_default_memory_limit(wire, collector):
    name = "g" * 5000
    payload = whole_payload(
        collector, wire.same_as_bare, run=wire.cli, settings=KEEP_ALL,
        source="function %s() {} for ($i = 0; $i < 10000; $i++) %s(); echo 'done'; exit(2);" % (
            name, name))
    assert len(payload.bytes) > 50000000
    assert len(payload.spans) == 10001 and payload.spans[-1]["fn"] == name


def test_input_of_fifty_megabytes_under_the_default_memory_limit(wire, collector):
    payload = whole_payload(
        collector, wire.same_as_bare, run=wire.cgi,
        source="$_REQUEST = ['x' => str_repeat('/', 25000000)]; echo 'done';")
    assert len(payload.transaction["http_input_params"]["x"]) == 25000000
    assert len(payload.bytes) > 50000000


def test_script_that_nearly_fills_its_memory_limit_still_ends_as_it_would(wire, collector):
    source = ("function f() {} $keep = []; while (memory_get_usage() < 7500000)"
              " $keep[] = str_repeat('x', 1000); for ($i = 0; $i < 9000; $i++) f();"
              "echo 'done'; exit(4);")
    result = wire.same_as_bare(wire.cli, source=source,
                               settings=dict(KEEP_ALL, memory_limit="8M"))
    assert (result.stdout, result.status) == (b"done", 4)
    assert len(collector.payload.spans) == 9001


def test_script_that_dies_of_its_memory_limit_with_many_spans(wire, collector):
    source = ("function f() {} for ($i = 0; $i < 9000; $i++) f(); function deep($n) {"
              " if ($n) deep($n - 1); $keep = []; while (true) $keep[] = str_repeat('x', 1000); }"
              "deep(10);")
    wire.same_as_bare(wire.cli, source=source,
                      settings=dict(KEEP_ALL, memory_limit="8M"))
    assert collector.payload.names == ["f"] * 9000 + ["deep"] * 11


def test_later_requests_are_not_affected_by_one_that_died(wire, collector, worker):
    worker.open("""
        function f($n) {
            if ($n) { return f($n - 1); }
            if ($_GET['q'] == 'memory') { ini_set('memory_limit', '4M'); str_repeat('x', 9000000); }
            if ($_GET['q'] == 'exit') { exit('exit'); }
            if ($_GET['q'] == 'throw') { throw new Exception; }
            return 'fine';
        }
        echo f(10);
    """, dict(KEEP_ALL, display_errors=0))
    for query in ("memory", "exit", "throw"):
        worker.get("/died?q=" + query)
        assert worker.get("/fine?q=") == b"fine"
    seen = collector.payloads
    assert [payload.transaction["t_name"] for payload in seen] == ["/died", "/fine"] * 3
    assert [len(payload.spans) for payload in seen] == [12] * 6
