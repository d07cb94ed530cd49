"""What a script gets from a wrapped call is what it would have got without us."""
import base64

import pytest
from engines import DROP_SHORT
from fake_collector import DISABLED
import wrapped_calls

VALUES = {
    "null": "null", "false": "false", "integer": "7", "float": "0.5", "text": "'text' . 1",
    "array": "[1, 'k' => [2]]", "object": "$GLOBALS['object']",
    "resource": "$GLOBALS['resource']", "closure": "function () { return 1; }",
}

@pytest.mark.parametrize("monitored", [True, False], ids=["monitored", "unmonitored"])
@pytest.mark.parametrize("kind", list(VALUES))
@pytest.mark.parametrize("name,call", [
    ("mysql_query", "mysql_query('q')"), ("mysqli_connect", "mysqli_connect('h')"),
    ("mysqli_prepare", "mysqli_prepare([])"), ("mysqli_init", "mysqli_init()"),
    ("redis::get", "(new Redis)->get('k')"),
    ("cassandra\\defaultsession::execute", "$made['cassandra\\\\defaultsession']->execute('q')"),
])
def test_return_value(drivers, collector, name, call, kind, monitored):
    if not monitored:
        collector.reply = DISABLED
    result = drivers.same_as_bare("""
        function report($value) { var_dump(tell($value)); }
        kaq_standin_plan(%s, function () { return %s; });
        report(%s); $kept = %s; report($kept); unset($kept); %s;
        report(%s === %s);
    """ % ("'%s'" % name.replace("\\", "\\\\"), VALUES[kind], call, call, call, call, call))
    assert result.stdout


@pytest.mark.parametrize("monitored", [True, False], ids=["monitored", "unmonitored"])
def test_outputs_by_reference(drivers, collector, monitored):
    if not monitored:
        collector.reply = DISABLED
    result = drivers.same_as_bare("""
        $flags = 1; $alias = &$flags; memcache_get('k', $flags); var_dump($flags, $alias);
        (new Memcached)->get('k', null, $cas); var_dump($cas);
        $running = null; curl_multi_exec($resource, $running); var_dump($running);
        $a = [1]; $b = 'b'; mysqli_stmt_bind_param($made['mysqli_stmt'], 'ss', $a, $b);
        $a[] = 2; var_dump($a, $b); $copy = $a; $made['mysqli_stmt']->bind_param('s', $a);
        $a = 'changed'; var_dump($copy, $a);
        $in = [1]; $ref = &$in[0]; memcache_set('k', $in); $ref = 2; var_dump($in);
        $o = new ArrayObject; memcache_set($o, $o); $o[] = 1; var_dump(count($o));
        foreach (kaq_standin_calls() as $call) { echo json_encode($call[2]); }
    """)
    assert b"output 2" in result.stdout


def test_variable_that_is_read_as_a_text_keeps_its_type(drivers):
    drivers.same_as_bare("$n = 5; $f = 1.5; $y = true; $z = null; mysqli_query($object, $n);"
                         "mysqli_query($object, $f); mysql_query($y); mysql_connect($z);"
                         "var_dump($n, $f, $y, $z);")


def test_object_that_is_a_text_is_turned_into_one_once(drivers, collector):
    result = drivers.run("""
        class Text { function __toString() { echo 'once '; return 'select 1'; } }
        $text = new Text; mysqli_query($object, $text); echo get_class($text);
    """)
    assert result.stdout == b"once Text"
    assert collector.payload.span("mysqli_query")["qs"] == "select 1"


@pytest.mark.parametrize("call,name", [
    ("mysqli_query($object, $text)", "mysqli_query"), ("mysqli_prepare($object, $text)",
                                                       "mysqli_prepare"),
    ("pg_prepare('n', $text)", "pg_prepare"), ("mysqli_connect($text)", "mysqli_connect"),
    ("(new Redis)->connect($text)", "redis::connect"), ("mysql_connect('h', $text)",
                                                        "mysql_connect"),
    ("mysqli_select_db($object, $text)", "mysqli_select_db")])
def test_function_is_not_called_with_an_object_whose_text_cannot_be_had(
        drivers, collector, engine, call, name):
    if engine.version_id < 70400:
        pytest.skip("an exception from there is a fatal error here")
    result = drivers.run("""
        class Text { function __toString() { echo 'asked '; throw new Exception('no text'); } }
        $text = new Text;
        try { %s; echo 'never'; }
        catch (Exception $e) { echo $e->getMessage(); var_dump($e->getPrevious()); }
        echo count(kaq_standin_calls());
    """ % call)
    assert result.stdout == b"asked no textNULL\n0"
    assert collector.payload.names.count(name) == 1


def test_call_under_an_exception_that_is_being_thrown_still_happens(drivers, collector):
    """Such as one from a destructor that runs while the script unwinds."""
    drivers.same_as_bare("""
        class Last { function __destruct() { echo mysql_query('last'); mysqli_prepare([]); } }
        function f() { $last = new Last; throw new Exception('first'); }
        try { f(); } catch (Exception $e) { echo $e->getMessage(); }
        echo count(kaq_standin_calls());
    """)
    assert collector.payload.span("mysql_query")["qs"] == "last"


@pytest.mark.parametrize("end", ["exit('text')", "trigger_error('dies', E_USER_ERROR)"])
def test_request_that_ends_while_an_argument_becomes_a_text(drivers, collector, end):
    result = drivers.run("""
        class Text { function __toString() { %s; return ''; } }
        function late() { mysql_query('late'); } register_shutdown_function('late');
        mysqli_query($object, new Text); echo 'never';
    """ % end)
    assert b"never" not in result.stdout
    payload = collector.payload
    assert payload.span("mysqli_query")["psi"] == payload.root["si"]
    assert payload.span("mysql_query")["qs"] == "late"


def test_error_handler_that_throws_at_the_memcache_warning(drivers, collector, engine):
    result = drivers.run("""
        set_error_handler(function ($n, $text) { throw new Exception('thrown'); });
        try { memcache_connect([]); } catch (Exception $e) {
            echo $e->getMessage(); var_dump($e->getPrevious()); }
        echo count(kaq_standin_calls());
    """)
    assert result.stdout == (b"1" if engine.failed_parses_throw else b"thrownNULL\n0")
    assert collector.payload.names[0] == "memcache_connect"


STRICT = "declare(strict_types=1); "


def test_strict_caller_gets_no_error_from_us(drivers, collector):
    drivers.same_as_bare("""
        echo mysqli_query($object, 5), mysql_query(5), mysqli_connect('h', 'u', 'p', 'd', '3306'),
             (new Redis)->connect('h', '6379'), pg_connect(5), mysql_query('q');
    """, prelude=STRICT + "$object = new ArrayObject;")
    spans = collector.payload.spans[1:]
    assert [(span["fn"], span.get("qs"), span.get("hn")) for span in spans] == [
        ("mysqli_query", "", None), ("mysql_query", None, None), ("mysqli_connect", None, None),
        ("redis::connect", None, "localhost"), ("pg_connect", None, "localhost"),
        ("mysql_query", "q", None)]


@pytest.mark.parametrize("call", [
    "memcache_connect(5)", "(new Memcache)->connect('h', '1')",
    "(new Memcached)->addServer('h', '1')", "(new Memcache)->addserver('h', 1, 1)"])
def test_strict_caller_gets_no_error_from_the_parses_that_warn(drivers, call):
    drivers.same_as_bare("echo %s;" % call, prelude=STRICT)


@pytest.mark.parametrize("call", [
    "mysqli_connect('h', 'u', 'p', 'd', '3306abc')", "(new Redis)->connect('h', '6379abc')",
    "mysqli_connect('h', 'u', 'p', 'd', 1.5)", "mysqli_connect('h', 'u', 'p', 'd', '1.5')",
    "mysqli_connect('h', 'u', 'p', 'd', NAN)", "mysqli_connect('h', 'u', 'p', 'd', 1e30)",
    "mysql_connect(null, null, null, null)", "mysqli_connect(null, null, null, null, null)",
    "pg_query('select', null)", "mysqli_query($object, null)", "mysqli_query($object)",
    "(new PDO(null))->query(null)", "mysqli_query($object, [])", "mysql_query(1, 2, 3, 4, 5, 6)"])
def test_engine_says_nothing_about_arguments_because_of_us(drivers, call):
    drivers.same_as_bare("error_reporting(-1); echo 'begin '; %s; echo 'end';" % call)


def test_error_handler_is_not_called_because_of_us(drivers, collector):
    drivers.same_as_bare("set_error_handler(function ($n, $m) { echo $m; });"
                         "mysqli_query([], []); mysqli_connect([]); pg_prepare();"
                         "var_dump(error_get_last());")


def test_warning_of_a_memcache_connect_reaches_the_handler_once(drivers, collector, engine):
    result = drivers.run("set_error_handler(function ($n, $m) { echo '[', $m, ']'; });"
                         "memcache_connect([]); (new Memcached)->addServer('h');"
                         "(new Memcache)->addserver();")
    if engine.failed_parses_throw:
        assert result.stdout == b"", "there the engine would throw: it is asked quietly"
    else:
        assert result.stdout == (
            b"[memcache_connect() expects parameter 1 to be string, array given]"
            b"[Memcached::addServer() expects at least 2 parameters, 1 given]"
            b"[Memcache::addServer() expects at least 1 parameter, 0 given]")
    assert {tuple(span)[-2:] for span in collector.payload.spans if span["cn"] != "PHP"} == {
        ("si", "psi")}


# Memory ------------------------------------------------------------------------------------------

CALLS = """
    mysql_query('select ' . $i); mysqli_connect('h' . $i, 'u', 'p', 'd' . $i, $i);
    mysqli_query($object, 5 + $i); mysqli_prepare([]); (new Redis)->get('k'); pg_prepare('a');
    $made['cassandra\\\\defaultsession']->execute('q' . $i); memcache_get('k', $flags);
"""


@pytest.mark.parametrize("settings,reply", [
    ({}, None), ({"kaq.span_limit": 100}, None), ({}, DISABLED)],
    ids=["recorded", "beyond the limit", "unmonitored"])
def test_calls_leave_no_memory_of_the_script_s_behind(drivers, collector, settings, reply):
    collector.reply = reply or collector.reply
    result = drivers.run("""
        kaq_standin_recording(false);
        function loop($count, $object, $made) { for ($i = 0; $i < $count; $i++) { %s } }
        loop(10, $object, $made); $flags = null; $before = memory_get_usage();
        loop(2000, $object, $made); echo memory_get_usage() - $before;
    """ % CALLS, dict({"kaq.span_limit": 100000}, **settings))
    assert result.stdout == b"0"


def growth_script():
    """Prints for each row by how much the script's memory grew while all its calls ran again."""
    source = "kaq_standin_recording(false);\n"
    rows = {}
    for case in wrapped_calls.all_cases():
        rows.setdefault(case.row.key, []).append(wrapped_calls.call_source(case.row, case.values))
    for at, (key, calls) in enumerate(rows.items()):
        tries = "".join("try { (function () use ($object, $resource, $made) { %s })(); }"
                        " catch (Throwable $e) { $e = null; }\n" % call for call in calls)
        source += """
            function rows%d($object, $resource, $made) { %s }
            for ($i = 0; $i < 3; $i++) @rows%d($object, $resource, $made);
            $before = memory_get_usage(); $grown = 0;
            for ($i = 0; $i < 20; $i++) @rows%d($object, $resource, $made);
            $grown = memory_get_usage() - $before;
            echo '%s ', $grown, "\\n";
        """ % (at, tries, at, at, key.replace("\\", "\\\\"))
    return source, list(rows)


def test_no_wrapped_function_leaves_memory_of_the_script_s_behind(drivers):
    source, keys = growth_script()
    told = drivers.run(source, {"kaq.span_limit": 1000000}).stdout.decode().splitlines()
    assert told == ["%s 0" % key for key in keys]
    assert len(keys) == 146


def test_script_s_peak_of_memory_is_the_same(drivers):
    drivers.same_as_bare("kaq_standin_recording(false); for ($i = 0; $i < 100; $i++) { %s }"
                         "echo memory_get_peak_usage() >> 12;" % CALLS)


def test_process_keeps_its_size_over_many_requests(drivers, collector, wire, standins_so):
    plain = wire.options
    wire.options = lambda *arguments, **more: plain(*arguments, **more) + [
        "-d", "extension=" + standins_so]
    page = wire.script("""
        kaq_standin_recording(false); $object = new ArrayObject; $made = [];
        $text = str_repeat('x', 3000);
        for ($i = 0; $i < 20; $i++) { mysql_query($text); mysqli_connect($text, '', '', $text, 1);
            (new Redis)->connect($text, 1); mysqli_query($object, $text . $i); }
        kaq_standin_plan('mysql_query', function () { exit('end'); }); mysql_query($text);
    """, "page.php")
    server = wire.cgi_server({"kaq_standins.take_over": 1, **DROP_SHORT})
    for _ in range(30):
        assert server.request(page).body == b"end"
    memory = server.resident_kib()
    for _ in range(100):
        server.request(page)
    if not server.keeps_freed_memory:
        assert server.resident_kib() - memory < 1024
    assert len(collector.payloads[-1].spans) == 82


# What is stored of a text ------------------------------------------------------------------------

@pytest.mark.parametrize("text", [
    "select \"a\" from 'b'\n\twhere c = '\\\\'", "", " ", "sélect ☃ 😀", "x" * 100000,
    "select /* <script> */ 1", "\u007f\u0080"], ids=lambda text: repr(text[:12]))
def test_text_is_stored_as_passed(drivers, collector, text):
    drivers.run("mysql_query(base64_decode('%s'));" % base64.b64encode(text.encode()).decode())
    assert collector.payload.span("mysql_query")["qs"] == text


def test_text_ends_at_its_nul_byte_which_is_meant(drivers, collector):
    drivers.run("mysql_query(\"select\\0 1\"); mysqli_connect(\"h\\0x\", 'u', 'p', \"d\\0x\");")
    query, connect = collector.payload.spans[1:]
    assert (query["qs"], connect["hn"], connect["dn"]) == ("select", "h", "d")


@pytest.mark.parametrize("port", [1, 65535, 65536, -1, 9223372036854775807])
def test_port_is_any_number(drivers, collector, port):
    drivers.run("mysqli_connect('h', 'u', 'p', 'd', %d);" % port)
    assert collector.payload.span("mysqli_connect")["pn"] == port


def test_passwords_keys_and_values_are_nowhere_in_the_payload(drivers, collector):
    drivers.run("mysqli_connect('h', 'user-secret', 'secret', 'd'); new PDO('dsn', 'u', 'secret');"
                "(new Redis)->set('secret', 'secret'); mysql_connect('h', 'u', 'secret');"
                "(new Memcached)->add('secret', 'secret'); memcache_set('secret', 'secret');"
                "(new Redis)->select('secret'); mysql_db_query('secret', 'q');",
                {"kaq.capture_clirequest": 1})
    assert len(collector.payload.spans) == 9
    assert "secret" not in collector.payload.text


def test_query_is_what_was_passed_even_if_the_function_releases_its_argument(drivers, collector):
    drivers.run("kaq_standin_plan('mysql_query', 'change'); $n = 123456;"
                "mysql_query('select ' . $n . ' from t'); mysql_query('select 2');")
    assert [span["qs"] for span in collector.payload.spans[1:]] == [
        "select 123456 from t", "select 2"]


def test_cassandra_text_is_what_the_argument_holds_after_the_call(drivers, collector):
    drivers.run("kaq_standin_plan('cassandra\\\\defaultsession::execute', 'change');"
                "$made['cassandra\\\\defaultsession']->execute('passed');")
    assert collector.payload.spans[1]["qs"] == "changed by the call"
