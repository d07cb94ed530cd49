"""Watching costs a script no memory that grows with its calls, and a process none that grows
with its requests."""
import pytest
from server_processes import DATABASE, PASSWORD, USER

# Each loop body makes calls that fit and one that does not.
BODIES = {
    "mysqli": (
        "$l = mysqli_connect($host, $user, $password, $database, $port);"
        "$m = new mysqli($host, $user, $password, $database, $port);"
        "mysqli_report(MYSQLI_REPORT_OFF);",
        "mysqli_free_result(mysqli_query($l, 'SELECT ' . $i)); $m->query('DO ' . $i);"
        "$s = $m->prepare('SELECT ?'); $s->bind_param('i', $i); $s->execute(); $s->close();"
        "try { @mysqli_query($l, []); } catch (TypeError $e) {}"),
    "pdo_sqlite": (
        "$p = new PDO('sqlite::memory:'); $s = $p->prepare('SELECT ?');",
        "$p->query('SELECT ' . $i)->fetch(); $s->execute([$i]); $p->exec('BEGIN; END');"
        "new PDO('sqlite::memory:'); try { @$p->exec([]); } catch (TypeError $e) {}"),
    "pgsql": (
        "$c = pg_connect($target); pg_prepare($c, 'one', 'SELECT $1::int');",
        "pg_query($c, 'SELECT ' . $i); pg_query_params($c, 'SELECT $1::int', [$i]);"
        "pg_execute($c, 'one', [$i]); try { @pg_query($c, []); } catch (TypeError $e) {}"),
    "redis": (
        "$r = new Redis; $r->connect($host, $port);",
        "$r->set('k', 'value ' . $i); $r->get('k'); $r->hSet('h', 'k', 'v'); $r->select(0);"
        "try { @$r->get([]); } catch (TypeError $e) {}"),
    "memcached": (
        "$m = new Memcached; $m->addServer($host, $port);",
        "$m->set('k', 'value ' . $i); $m->get('k'); $m->setMulti(['k' => $i]);"
        "try { @$m->get([]); } catch (TypeError $e) {}"),
    "memcache": (
        "$m = new Memcache; $m->connect($host, $port);",
        "$m->set('k', 'value ' . $i); memcache_get($m, 'k');"
        "try { @$m->get(); } catch (ArgumentCountError $e) {}"),
}
SERVERS = {"mysqli": "mariadb", "pgsql": "postgresql", "redis": "redis", "memcached": "memcached",
           "memcache": "memcached"}

# Prints by how much the memory in use grew with about a thousand calls and with ten thousand more.
# Some drivers need more with every call even when nobody watches.
NOISE = 1024
LOOP = """
    error_reporting(E_ALL & ~E_DEPRECATED);
    %s
    function used() { gc_collect_cycles(); return memory_get_usage(); }
    $begin = $short = $long = $i = 0;
    for (; $i < 100; $i++) { %s }
    $begin = used();
    for (; $i < 300; $i++) { %s }
    $short = used() - $begin;
    for (; $i < 2300; $i++) { %s }
    $long = used() - $begin;
    echo $short, ' ', $long;
"""


@pytest.mark.parametrize("settings", [
    {"kaq.span_limit": 100000}, {"kaq.span_limit": 500}, {"kaq.track_zend_execute_internal": 0},
], ids=["recorded", "limit reached", "not recorded"])
@pytest.mark.parametrize("driver", BODIES)
def test_memory_in_use_does_not_grow_with_calls(request, watch, collector, driver, settings):
    port, target = 0, ""
    watch.load(driver)
    if driver in SERVERS:
        port = request.getfixturevalue(SERVERS[driver]).port
        target = "host=127.0.0.1 port=%d user=%s dbname=postgres" % (port, USER)
    watch.load(driver, host="127.0.0.1", port=port, user=USER, password=PASSWORD,
               database=DATABASE, target=target)
    before, body = BODIES[driver]
    bare, monitored = watch.both(LOOP % (before, body, body, body), settings=settings)
    assert (bare.status, monitored.status, monitored.stderr) == (0, 0, b"")
    used, expected = ([int(text) for text in run.stdout.split()] for run in (monitored, bare))
    assert abs(used[0] - expected[0]) <= NOISE and abs(used[1] - expected[1]) <= NOISE
    recorded = len(collector.payload.spans)
    if "kaq.span_limit" not in settings:
        assert recorded == 1
    elif settings["kaq.span_limit"] == 500:
        assert recorded == 501
    else:
        assert recorded > 2300 * 3


def test_memory_of_the_process_does_not_grow_with_requests(watch, collector):
    """A thousand texts of a kilobyte a request: were they kept, 100 requests would take 100 MB."""
    server = watch.load("pdo_sqlite").server("""
        $p = new PDO('sqlite::memory:');
        $text = 'SELECT ' . str_repeat('1', 1000);
        for ($i = 0; $i < 1000; $i++) $p->exec($text);
        echo 'done';
    """)

    def ask(times):
        for _ in range(times):
            assert server.request().body == b"done"
            assert len(collector.payload.spans) == 1002
            collector.forget()
        return server.resident_kib()

    if server.keeps_freed_memory:
        pytest.skip("a sanitizer holds back what is freed")
    before = ask(20)
    assert ask(100) - before < 8 * 1024
