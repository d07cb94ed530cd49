"""Which functions are wrapped, when, and what stays as the site has it."""

import pytest
from fake_collector import DISABLED
from wrapped_rows import GROUPS, ROWS

ALL = {row.key for row in ROWS}
SLOW_QUERIES_ONLY = {"transaction.trace.sql.stacktrace.threshold": 1000}
MONITORED = dict({"instance.id": "i-1", "instance.status": 920}, **SLOW_QUERIES_ONLY)

TELL_WRAPPED = """
    foreach (kaq_standin_list() as $name => $bare) { if (!$bare) echo strtolower($name), "\n"; }
"""


def wrapped(drivers, settings=None, **arguments):
    result = drivers.run(TELL_WRAPPED, settings, prelude="", **arguments)
    assert (result.stderr, result.status) == (b"", 0), result
    return set(result.stdout.decode().split("\n")[:-1])


@pytest.fixture
def page(drivers, worker, standins_so):
    """Opens a page that has the stand-ins loaded."""
    plain = worker.wire.options
    worker.wire.options = lambda settings=None, *arguments, **more: plain(
        dict({"kaq.method_threshold": 0, "kaq_standins.take_over": 1}, **(settings or {})),
        *arguments, **more) + ["-d", "extension=" + standins_so]
    return worker


# At the first request of the process -------------------------------------------------------------

@pytest.mark.parametrize("first", [False, True], ids=["loaded after us", "loaded before us"])
def test_functions_of_an_extension_that_is(drivers, first):
    assert wrapped(drivers, first=first) == ALL


@pytest.mark.parametrize("group", list(GROUPS))
def test_group_that_is_off_at_startup_is_left_alone(drivers, collector, group):
    setting = "kaq.capture_" + group
    assert wrapped(drivers, {setting: 0}) == ALL - {row.key for row in GROUPS[group]}
    assert collector.payload.names == []


def test_capture_values_are_read_as_numbers(drivers):
    assert wrapped(drivers, {"kaq.capture_redis": "off", "kaq.capture_pdo": "2"}) == ALL - {
        row.key for row in GROUPS["redis"]}


@pytest.mark.parametrize("value", [0, 1])
def test_oracle_connects_are_never_wrapped_which_is_meant(drivers, collector, value):
    result = drivers.run("echo oci_connect('u', 'p', 'db'), oci_pconnect('u', 'p', 'db');"
                         "oci_parse($resource, 'select 1'); oci_execute($resource);",
                         {"kaq.capture_oracle": value})
    assert result.stdout == b"result of oci_connectresult of oci_pconnect"
    assert collector.payload.names == (["oci_parse", "oci_execute"] if value else [])


@pytest.mark.parametrize("group,call,name", [
    ("redis", "(new Redis)->get('k')", "redis::get"), ("mysql", "mysql_close()", "mysql_close"),
    ("pdo", "$made->exec('q')", "PDO::exec")])
def test_group_follows_its_startup_value_whatever_a_script_sets_later(
        page, collector, group, call, name):
    collector.reply = MONITORED
    source = """
        $made = (new ReflectionClass('PDO'))->newInstanceWithoutConstructor();
        ini_set('kaq.capture_%s', $_GET['set']); echo ini_get('kaq.capture_%s'); %s;
    """ % (group, group, call)
    for at_start in ("0", "1"):
        page.open(source, {"kaq.capture_" + group: at_start})
        for value in ("0", "1", "0"):
            collector.forget()
            assert page.get("/?set=" + value) == value.encode()
            assert collector.payload.names == ([name] if at_start == "1" else [])


def test_first_request_may_be_one_that_is_not_monitored(page, collector):
    collector.replies.extend([DISABLED, b"", MONITORED, MONITORED])
    page.open("echo mysql_query('q'), count(kaq_standin_calls());")
    for _ in range(4):
        assert page.get() == b"result of mysql_query1"
    assert [payload.names for payload in collector.payloads] == [["mysql_query"]] * 2


def test_every_later_request_finds_each_function_wrapped_once(page, collector):
    collector.reply = MONITORED
    page.open("mysql_query('q'); (new Redis)->get('k'); echo count(kaq_standin_calls());")
    for _ in range(5):
        assert page.get() == b"2"
    assert [payload.names for payload in collector.payloads] == [["mysql_query", "redis::get"]] * 5


# What is missing, disabled or the user's own -----------------------------------------------------

@pytest.mark.parametrize("missing", [
    "mysql_query", "oci_parse", "cassandra\\defaultsession",
    "cassandra\\defaultsession::execute", "redis::get", "redis", "memcached,memcache"])
def test_what_is_not_there_is_skipped_without_a_word(drivers, missing):
    gone = {key for key in ALL for name in missing.split(",")
            if key == name or key.startswith(name + "::")}
    assert gone
    assert wrapped(drivers, {"kaq_standins.without": missing}) == ALL - gone


def test_contact_points_of_a_driver_with_the_plural_only_are_not_recorded_which_is_meant(
        drivers, collector):
    call = "$made['cassandra\\\\cluster\\\\builder']->%s('h1', 'h2');"
    drivers.run(call % "withContactPoints",
                {"kaq_standins.without": "cassandra\\cluster\\builder::withcontactpoint"})
    assert collector.payload.names == []
    collector.forget()
    drivers.run(call % "withContactPoint" + call % "withContactPoints")
    assert [(span["fn"], span["hn"]) for span in collector.payload.spans[1:]] == [
        ("Cassandra\\Cluster\\Builder::withContactPoints", "h1")]


@pytest.mark.parametrize("names", ["mysql_query", "mysqli_query,pg_connect", "curl_exec"])
def test_disabled_function_stays_disabled(drivers, collector, names):
    calls = "".join("try { var_dump(%s('x')); } catch (Error $e) { echo $e->getMessage(); }" % name
                    for name in names.split(","))
    drivers.same_as_bare(calls + "echo mysql_close();", {"disable_functions": names})
    assert collector.payload.names == ["mysql_close"]


def test_user_function_in_place_of_a_disabled_one(drivers, collector, engine):
    if not engine.disabled_functions_vanish:
        pytest.skip("a disabled function cannot be defined again here")
    drivers.same_as_bare("eval('function mysql_query($q) { return \"own\"; }');"
                         "echo mysql_query('q');", {"disable_functions": "mysql_query"})
    span, = collector.payload.spans[1:]
    assert (span["fn"], span["cn"]) == ("mysql_query", "PHP")


def test_disabled_class(drivers, collector, engine):
    if not engine.classes_can_be_disabled:
        pytest.skip("no class can be disabled in this engine")
    result = drivers.same_as_bare("""
        $redis = @new Redis; var_dump(method_exists($redis, 'get'));
        try { echo @$redis->get('k'); } catch (Error $e) { echo $e->getMessage(); }
    """, {"disable_classes": "Redis"}, prelude="")
    assert b"result" not in result.stdout
    assert collector.payload.names == []


def test_user_function_of_a_wrapped_name(drivers, collector):
    drivers.same_as_bare("function mysql_query($q) { return 'own ' . $q; }"
                         "echo mysql_query('select 1');",
                         {"kaq_standins.without": "mysql_query"})
    span, = collector.payload.spans[1:]
    assert list(span) == ["st", "et", "mo", "fn", "cn", "si", "psi"]
    assert (span["fn"], span["cn"]) == ("mysql_query", "PHP")


def test_user_class_of_a_wrapped_name(drivers, collector):
    drivers.same_as_bare("class Redis { function get($k) { return 'own'; } }"
                         "echo (new Redis)->get('k');", {"kaq_standins.without": "redis"},
                         prelude="")
    span, = collector.payload.spans[1:]
    assert (span["fn"], span["cn"]) == ("Redis::get", "PHP")


def test_user_function_of_a_wrapped_name_in_every_request(page, collector):
    collector.reply = MONITORED
    page.open("function mysql_query() { return 'own'; } echo mysql_query();",
              {"kaq_standins.without": "mysql_query"})
    for _ in range(3):
        assert page.get() == b"own"
    assert [[span["cn"] for span in payload.spans[1:]] for payload in collector.payloads] == [
        ["PHP"]] * 3


# Classes that inherit ----------------------------------------------------------------------------

def test_method_that_a_user_class_inherits_is_recorded(drivers, collector):
    drivers.same_as_bare("class Mine extends Redis {} class Further extends Mine {}"
                         "echo (new Mine)->get('k'), (new Further)->connect('h', 1);")
    assert [(span["fn"], span["cn"]) for span in collector.payload.spans[1:]] == [
        ("redis::get", "Redis"), ("redis::connect", "Redis")]


def test_method_that_a_user_class_overrides_is_a_user_call_around_the_recorded_one(
        drivers, collector):
    drivers.same_as_bare("class Mine extends Redis { function get(...$a) {"
                         "return 'mine ' . parent::get('k'); } } echo (new Mine)->get('k');")
    assert collector.payload.tree() == ("main", [("Mine::get", [("redis::get", [])])])


def test_constructor_that_a_user_class_inherits_or_calls(drivers, collector):
    drivers.same_as_bare("class A extends PDO {} class B extends PDO {"
                         "function __construct() { parent::__construct('b:dsn'); } }"
                         "new A('a:dsn'); new B; echo 'done';")
    assert collector.payload.tree() == ("main", [
        ("PDO::__construct", []), ("B::__construct", [("PDO::__construct", [])])])
    assert [span.get("hn") for span in collector.payload.spans[1:]] == ["a:dsn", None, "b:dsn"]


@pytest.mark.parametrize("first", [False, True], ids=["loaded after us", "loaded before us"])
def test_method_that_an_internal_class_inherited_at_startup(drivers, collector, first):
    """The engine copied it into that class, before the first request."""
    drivers.same_as_bare(
        "class Mine extends StandinRedisChild {}"
        "echo (new StandinRedisChild)->get('k'), (new StandinRedisGrandchild)->connect('h', 1),"
        "(new Mine)->get('k'), (new Redis)->get('k');", first=first)
    assert [(span["fn"], span.get("hn")) for span in collector.payload.spans[1:]] == [
        ("redis::get", None), ("redis::connect", "h"), ("redis::get", None), ("redis::get", None)]


def test_method_that_an_internal_class_has_of_its_own_is_left_alone(drivers, collector):
    result = drivers.same_as_bare("$other = new StandinRedisOther;"
                                  "echo $other->get('k'), ', ', $other->set('k', 1);")
    assert result.stdout == b"of its own, result of redis::set"
    assert collector.payload.names == ["redis::set"]


def test_inherited_method_of_a_group_that_is_off(drivers, collector):
    drivers.same_as_bare("echo (new StandinRedisChild)->get('k'), mysql_query('q');",
                         {"kaq.capture_redis": 0})
    assert collector.payload.names == ["mysql_query"]


def test_every_later_request_finds_an_inherited_method_wrapped_once(page, collector):
    collector.reply = MONITORED
    page.open("(new StandinRedisChild)->get('k'); echo count(kaq_standin_calls());")
    for _ in range(3):
        assert page.get() == b"1"
    assert [payload.names for payload in collector.payloads] == [["redis::get"]] * 3


# PDO's own subclasses ----------------------------------------------------------------------------

SQLITE = "sqlite::memory:"
USE_PDO = "$p->exec('create table t (n)'); $p->query('select 1'); $p->prepare('select 2'); echo 'done';"


@pytest.fixture
def pdo_subclasses(wire, collector, engine):
    """Runs a script on SQLite, bare and not, and gives its calls' names and what they say."""
    if not engine.has_pdo_subclasses:
        pytest.skip("PDO has no subclasses here")
    if b"pdo_sqlite" not in wire.php("-m", loaded=False).stdout.splitlines():
        pytest.skip("no PDO for SQLite here")
    def spans(source, settings=None):
        ran = wire.same_as_bare(wire.cli, source=source, settings=dict(
            {"kaq.method_threshold": 0, "kaq.track_zend_execute": 0}, **(settings or {})))
        assert (ran.stdout, ran.status) == (b"done", 0), ran
        return [(span["fn"], span.get("qs", span.get("hn"))) for span in collector.payload.spans[1:]]
    return spans


@pytest.mark.parametrize("way", [
    "new Pdo\\Sqlite('%s')", "new PDO('%s')", "Pdo\\Sqlite::connect('%s')", "PDO::connect('%s')"])
def test_connection_is_recorded_whichever_way_it_is_made(pdo_subclasses, way):
    """PDO::connect() does what the constructor does, without calling it."""
    assert pdo_subclasses("$p = %s; %s" % (way % SQLITE, USE_PDO)) == [
        ("PDO::__construct", SQLITE), ("PDO::exec", "create table t (n)"),
        ("PDO::query", "select 1"), ("PDO::prepare", "select 2")]


def test_connection_of_a_user_class_below_a_subclass(pdo_subclasses):
    assert pdo_subclasses("class Mine extends Pdo\\Sqlite {} $p = new Mine('%s'); %s" % (
        SQLITE, USE_PDO))[0] == ("PDO::__construct", SQLITE)


def test_connection_that_fails_is_recorded_and_throws_as_ever(pdo_subclasses):
    assert pdo_subclasses("try { PDO::connect('nothing:'); } catch (PDOException $e) {"
                          "echo 'done'; }") == [("PDO::__construct", "nothing:")]


def test_subclasses_follow_the_group_of_pdo(pdo_subclasses):
    assert pdo_subclasses("$p = PDO::connect('%s'); %s" % (SQLITE, USE_PDO),
                          {"kaq.capture_pdo": 0}) == []


def test_preloaded_class_that_inherits(drivers, collector, engine, wire):
    """The preload script runs in a request of its own, the first: what it declares is wrapped."""
    if not engine.has_preloading:
        pytest.skip("this engine has no preloading")
    preloaded = wire.script("class Mine extends Redis {}", "preload.php")
    result = drivers.run("echo (new Mine)->get('k');", dict(engine.opcache, **{
        "opcache.preload": str(preloaded), "opcache.preload_user": "root"}))
    assert result.stdout == b"result of redis::get", result
    assert collector.payloads[-1].names == ["redis::get"]


# Ways to call ------------------------------------------------------------------------------------

@pytest.mark.parametrize("call", [
    "call_user_func('mysql_query', 'q')", "call_user_func_array('mysql_query', ['q'])",
    "array_map('mysql_query', ['q'])", "(new ReflectionFunction('mysql_query'))->invoke('q')",
    "$f = 'MySQL_Query'; $f('q')", "\\mysql_query('q')", "mysql_query(...['q'])",
    "array_filter(['q'], 'mysql_query')",
    "(new ReflectionFunction('mysql_query'))->getClosure()->__invoke('q')",
    "register_shutdown_function('mysql_query', 'q')", "@mysql_query('q')",
    "iterator_to_array((function () { yield mysql_query('q'); })())",
])
def test_function_is_recorded_however_it_is_called(drivers, collector, call):
    drivers.same_as_bare(call + ";")
    found = [span for span in collector.payload.spans if span["cn"] == "MySQL"]
    assert [(span["fn"], span["qs"]) for span in found] == [("mysql_query", "q")]


@pytest.mark.parametrize("call", [
    "call_user_func([$redis, 'connect'], 'h', 1)", "$redis->{'CONNECT'}('h', 1)",
    "(new ReflectionMethod('Redis', 'connect'))->invoke($redis, 'h', 1)",
    "array_map([$redis, 'connect'], ['h'], [1])",
    "(new ReflectionMethod('Redis', 'connect'))->getClosure($redis)('h', 1)"])
def test_method_is_recorded_however_it_is_called(drivers, collector, call):
    drivers.same_as_bare("$redis = new Redis; %s;" % call)
    span, = [span for span in collector.payload.spans if span["cn"] == "Redis"]
    assert (span["fn"], span["hn"], span["pn"]) == ("redis::connect", "h", 1)


# Gates -------------------------------------------------------------------------------------------

@pytest.mark.parametrize("settings,names", [
    ({"kaq.track_zend_execute_internal": 0}, ["f"]),
    ({"kaq.track_zend_execute": 0}, ["mysql_query", "mysqli_init"]),
    ({"kaq.span_limit": 0}, []),
    ({"kaq.method_threshold": 100000}, ["f", "mysql_query", "mysqli_init"]),
], ids=lambda item: str(item)[:60])
def test_what_the_settings_let_through(drivers, collector, settings, names):
    result = drivers.run("function f() { mysql_query('q'); } f(); mysqli_init();"
                         "echo count(kaq_standin_calls());", settings)
    assert result.stdout == b"2"
    assert collector.payload.names == names


def test_pruning_keeps_recorded_calls(drivers, collector):
    drivers.run("function f() { g(); } function g() { mysql_query('q'); } f();", {
        "kaq.method_threshold": 100000, "kaq.prune_intermediate_spans": 1})
    assert collector.payload.tree() == ("main", [("mysql_query", [])])


def test_calls_beyond_the_span_limit_run_unrecorded(drivers, collector):
    result = drivers.run("for ($i = 0; $i < 10; $i++) echo mysql_query('q' . $i), $i, ' ';"
                         "echo count(kaq_standin_calls());", {"kaq.span_limit": 3})
    assert result.stdout.decode() == "".join(
        "result of mysql_query%d " % n for n in range(10)) + "10"
    assert [span["qs"] for span in collector.payload.spans[1:]] == ["q0", "q1", "q2"]


def test_tracking_of_internal_calls_may_be_switched_while_a_script_runs(drivers, collector):
    drivers.run("mysql_query('a'); ini_set('kaq.track_zend_execute_internal', '0');"
                "mysql_query('b'); ini_set('kaq.track_zend_execute_internal', '1');"
                "mysql_query('c');")
    assert [span["qs"] for span in collector.payload.spans[1:]] == ["a", "c"]


def test_unmonitored_request_runs_every_function(drivers, collector):
    collector.reply = DISABLED
    drivers.same_as_bare("echo mysql_query('q'), mysqli_connect('h'), (new Redis)->get('k');"
                         "print_r(tell(kaq_standin_calls()));")
    assert collector.payloads == []
