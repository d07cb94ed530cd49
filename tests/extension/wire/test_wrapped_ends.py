"""Calls that do not simply return: exits, fatal errors, used-up memory, exceptions."""
import pytest
from fake_collector import DISABLED

pytestmark = pytest.mark.usefixtures("limit_holds")

ENDS = {
    "fatal error": "fatal", "memory limit": "memory", "bailout": "bailout",
    "fatal error in a callback": "function () { trigger_error('dies', E_USER_ERROR); }",
    "memory limit in a callback": "function () { str_repeat('x', 200 << 20); }",
    "undefined function in a callback": "function () { missing_function(); }",
    "exit in a callback": "function () { exit(3); }",
    "exit with text in a callback": "function () { exit('bye'); }",
}
LIMIT = {"memory_limit": "32M"}


def plan(name, what):
    return "kaq_standin_plan('%s', %s);" % (name, what if what.startswith("function") else
                                            "'%s'" % what)


def is_bailout(end, engine):
    """Whether that end unwinds as a bailout, and not as an exception or like one."""
    if end.startswith("exit"):
        return engine.exit_is_a_bailout
    if end.startswith("memory"):
        return engine.memory_limit_is_a_bailout
    return not end.startswith("undefined")


@pytest.mark.parametrize("end", list(ENDS))
def test_request_that_ends_in_a_recorded_call_ends_as_without_us(drivers, collector, end):
    drivers.same_as_bare(plan("mysql_query", ENDS[end]) + """
        function outer() { mysql_query('select 1'); echo 'never'; }
        register_shutdown_function(function () { echo 'shutdown'; });
        outer(); echo 'never';
    """, LIMIT)
    payload = collector.payload
    query = payload.span("mysql_query")
    assert query["qs"] == "select 1", "what is stored after the call is there too"
    assert payload.parent_of(query)["fn"] == "outer"
    assert query["et"] >= query["st"]


@pytest.mark.parametrize("end", list(ENDS))
def test_connection_that_ends_the_request_keeps_its_target(drivers, collector, end):
    drivers.same_as_bare(plan("mysqli_connect", ENDS[end]) +
                         "mysqli_connect('db1', 'u', 'p', 'shop', 3307);", LIMIT)
    span = collector.payload.span("mysqli_connect")
    assert list(span.items())[-3:] == [("hn", "db1"), ("pn", 3307), ("dn", "shop")]


@pytest.mark.parametrize("end", list(ENDS))
@pytest.mark.parametrize("call,data", [
    ("mysqli_select_db($object, 'shop')", {"dn": "shop"}), ("mysqli_init()", {}),
    ("$made['cassandra\\\\defaultsession']->execute('cql')", {"qs": "cql"}),
    ("$made['cassandra\\\\cluster\\\\builder']->withContactPoint('h1,h2')", {"hn": "h1,h2"}),
    ("mysqli_prepare([])", {}),
], ids=lambda item: str(item)[:40])
def test_call_of_every_kind_that_ends_the_request(drivers, collector, end, call, data):
    names = ["mysqli_select_db", "mysqli_init", "cassandra\\\\defaultsession::execute",
             "cassandra\\\\cluster\\\\builder::withcontactpoint", "mysqli_prepare"]
    drivers.same_as_bare("".join(plan(name, ENDS[end]) for name in names) + call + ";", LIMIT)
    span = collector.payload.spans[1]
    assert {key: span[key] for key in ("qs", "hn", "pn", "dn") if key in span} == data


THREE_DEEP = """
    kaq_standin_plan('mysql_query', function ($sql) { return second(); });
    kaq_standin_plan('pg_query', function ($sql) { return third(); });
    function second() { $r = pg_query('two'); echo 'after two '; return $r; }
    function third() { $r = mysqli_query($GLOBALS['object'], 'three'); echo 'after three ';
                       return $r; }
    function late() { mysql_close(); }
    register_shutdown_function('late');
    echo mysql_query('one'), ' after one';
"""


@pytest.mark.parametrize("end", list(ENDS))
def test_three_wrapped_calls_deep(drivers, collector, end):
    drivers.same_as_bare(plan("mysqli_query", ENDS[end]) + THREE_DEEP, LIMIT)
    payload = collector.payload
    chain = [span for span in payload.spans if "qs" in span]
    assert [(span["fn"], span["qs"]) for span in chain] == [
        ("mysql_query", "one"), ("pg_query", "two"), ("mysqli_query", "three")]
    assert payload.parent_of(chain[2])["fn"] == "third"
    assert payload.parent_of(payload.parent_of(chain[2]))["psi"] == chain[1]["si"]
    assert chain[0]["et"] >= chain[1]["et"] >= chain[2]["et"]
    assert payload.parent_of(payload.span("mysql_close"))["fn"] == "late"
    assert len({span["mo"] for span in payload.spans}) == len(payload.spans)


NOT_RECORDING = {
    "unmonitored": ({}, True),
    "internal calls not tracked": ({"kaq.track_zend_execute_internal": 0}, False),
    "span limit 0": ({"kaq.span_limit": 0}, False),
}


def run_unrecorded(drivers, collector, how, source):
    settings, disabled = NOT_RECORDING[how]
    if disabled:
        collector.reply = DISABLED
    return drivers.run(source, dict(LIMIT, **settings))


@pytest.mark.parametrize("how", list(NOT_RECORDING))
@pytest.mark.parametrize("end", list(ENDS))
def test_bailout_in_an_unrecorded_call_ends_there_and_the_script_goes_on_which_is_meant(
        drivers, collector, engine, end, how):
    source = plan("mysql_query", ENDS[end]) + """
        function outer() { mysql_query('select 1'); echo ' inner goes on'; }
        outer(); echo ' script goes on';
    """
    result = run_unrecorded(drivers, collector, how, source)
    bare = drivers.run(source, LIMIT, loaded=False)
    assert b"goes on" not in bare.stdout
    if is_bailout(end, engine):
        assert result.stdout == bare.stdout + b" inner goes on script goes on"
        assert result.stderr == bare.stderr
    else:
        assert result.outcome == bare.outcome


@pytest.mark.parametrize("how", list(NOT_RECORDING))
@pytest.mark.parametrize("end", list(ENDS))
def test_bailout_three_unrecorded_calls_deep_ends_at_the_innermost_which_is_meant(
        drivers, collector, engine, end, how):
    source = plan("mysqli_query", ENDS[end]) + THREE_DEEP
    result = run_unrecorded(drivers, collector, how, source)
    bare = drivers.run(source, LIMIT, loaded=False)
    if is_bailout(end, engine):
        assert result.stdout == bare.stdout + b"after three after two  after one"
    else:
        assert result.outcome == bare.outcome


@pytest.mark.parametrize("how", ["internal calls not tracked", "span limit 0"])
def test_spans_of_what_a_swallowed_bailout_cut_off_are_complete(drivers, collector, how):
    run_unrecorded(drivers, collector, how, plan("mysql_query", "function () { cut(); }") + """
        function cut() { deeper(); } function deeper() { trigger_error('dies', E_USER_ERROR); }
        function before() {} function after() {}
        before(); mysql_query('q'); after();
    """)
    payload = collector.payload
    if how == "span limit 0":
        assert payload.names == []
        return
    names = payload.names
    assert names.count("before") == names.count("after") == names.count("deeper") == 1
    assert "mysql_query" not in names
    assert [span["mo"] for span in payload.spans] == list(range(len(payload.spans)))
    assert all(span["et"] >= span["st"] for span in payload.spans)


def test_hundred_swallowed_bailouts_in_one_request(drivers, collector):
    collector.reply = DISABLED
    result = drivers.run(plan("mysql_query", "function () { cut(5); }") + """
        function cut($n) { $n ? cut($n - 1) : @trigger_error('dies', E_USER_ERROR); }
        for ($i = 0; $i < 100; $i++) { mysql_query('q'); } echo 'done';
    """, dict(LIMIT, display_errors=0))
    assert result.stdout == b"done"


def test_requests_after_one_with_a_swallowed_bailout_are_fine(
        drivers, collector, worker, standins_so):
    worker.wire.options = _with_module(worker.wire.options, standins_so)
    collector.reply = DISABLED
    worker.open("""
        kaq_standin_plan('mysql_query', function () { if ($_GET['q'] == 'die') {
            trigger_error('dies', E_USER_ERROR); } return 'fine'; });
        function f() { return mysql_query('select'); } echo f(), ' on';
    """, {"display_errors": 0, "kaq.method_threshold": 0})
    for _ in range(3):
        assert worker.get("/die?q=die") == b" on"
        assert worker.get("/fine?q=") == b"fine on"
    collector.forget()
    collector.reply = {"instance.id": "i-1", "instance.status": 920,
                       "transaction.trace.sql.stacktrace.threshold": 1000}
    assert worker.get("/fine?q=") == b"fine on"
    assert collector.payload.span("mysql_query")["qs"] == "select"
    assert collector.payload.parent_of(collector.payload.span("mysql_query"))["fn"] == "f"


def _with_module(options, so):
    return lambda *arguments, **more: options(*arguments, **more) + ["-d", "extension=" + so]


# Exceptions --------------------------------------------------------------------------------------

THROWS = {"thrown by the function": "throw",
          "thrown by a callback": "function () { throw new LogicException('from inside', 3); }"}


@pytest.mark.parametrize("monitored", [True, False], ids=["monitored", "unmonitored"])
@pytest.mark.parametrize("how", list(THROWS))
@pytest.mark.parametrize("name,call", [
    ("mysql_query", "mysql_query('q')"), ("mysqli_connect", "mysqli_connect('h')"),
    ("mysqli_init", "mysqli_init()"), ("mysqli_prepare", "mysqli_prepare([])"),
    ("pdo::__construct", "new PDO('dsn')"), ("redis::get", "(new Redis)->get('k')"),
    ("mysqli_select_db", "mysqli_select_db($object, 'd')"),
])
def test_exception_of_a_wrapped_call_passes_through(drivers, collector, name, call, how, monitored):
    if not monitored:
        collector.reply = DISABLED
    drivers.same_as_bare(plan(name, THROWS[how]) + """
        function outer($made, $object) { try { %s; echo 'never'; } finally { echo 'finally '; } }
        try { outer($made, $object); } catch (Exception $e) {
            echo get_class($e), $e->getMessage(), $e->getCode(), $e->getTraceAsString();
            var_dump($e->getPrevious());
        }
        function after() {} after();
    """ % call)
    if monitored:
        payload = collector.payload
        wrapped = payload.spans[2]
        assert payload.parent_of(wrapped)["fn"] == "outer"
        assert payload.parent_of(payload.span("after"))["fn"] == "main", "all was closed"


def test_uncaught_exception_of_a_wrapped_call(drivers, collector):
    drivers.same_as_bare(plan("mysql_query", "throw") + "mysql_query('q'); echo 'never';")
    assert collector.payload.span("mysql_query")["qs"] == "q"


def test_exception_three_wrapped_calls_deep_closes_all_of_them(drivers, collector):
    drivers.same_as_bare(plan("mysqli_query", "throw") + """
        kaq_standin_plan('mysql_query', function () { return pg_query('two'); });
        kaq_standin_plan('pg_query', function () {
            return mysqli_query($GLOBALS['object'], 'three'); });
        try { mysql_query('one'); } catch (Exception $e) { echo $e->getMessage(); }
        mysql_close();
    """)
    payload = collector.payload
    assert [(span["fn"], span["qs"]) for span in payload.spans if "qs" in span] == [
        ("mysql_query", "one"), ("pg_query", "two"), ("mysqli_query", "three")]
    assert payload.parent_of(payload.span("mysql_close"))["fn"] == "main"
