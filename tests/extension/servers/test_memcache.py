"""The Memcache driver against a memcached server, as functions and as methods."""
import pytest
from expected import ERRORS, LOOPBACK, WRAPPED_ONLY, call


@pytest.fixture
def client(watch, memcached):
    loaded = watch.load("memcache", host=LOOPBACK, port=memcached.port)
    loaded.target = {"hn": LOOPBACK, "pn": memcached.port}
    return loaded


def commands(prefix, *names):
    return [call(prefix + name) for name in names]


NAMES = ("add", "set", "replace", "get", "increment", "decrement", "delete")


def test_functions(client, collector):
    client.calls("""
        $m = memcache_connect($host, $port);
        memcache_flush($m);
        var_dump(memcache_add($m, 'secret-key', 'secret-value'), memcache_set($m, 'k', 1));
        var_dump(memcache_replace($m, 'k', 2), memcache_get($m, 'k'));
        var_dump(memcache_increment($m, 'k', 3), memcache_decrement($m, 'k'));
        var_dump(memcache_delete($m, 'k'), memcache_close($m));
        """,
        call("memcache_connect", **client.target), *commands("memcache_", *NAMES))
    assert "secret" not in collector.payload.text


def test_methods(client):
    client.calls("""
        $m = new Memcache;
        var_dump($m->connect($host, $port));
        $m->flush();
        var_dump($m->add('a', 'v'), $m->set('k', 1), $m->replace('k', 2), $m->get(['k', 'z']));
        var_dump($m->increment('k', 3), $m->decrement('k'), $m->delete('k'), $m->close());
        """,
        call("memcache::connect", **client.target), *commands("memcache::", *NAMES))


def test_persistent_connections(client):
    client.calls("""
        $m = memcache_pconnect($host, $port, 2);
        $n = new Memcache;
        var_dump($n->pconnect($host, $port), $n->set('k', 'v'), memcache_get($m, 'k'));
        """,
        call("memcache_pconnect", **client.target), call("memcache::pconnect", **client.target),
        call("memcache::set"), call("memcache_get"))


def test_adding_servers(client):
    """The function reads no argument, the method does."""
    client.calls("""
        $m = new Memcache;
        var_dump($m->addServer($host, $port, false, 1, 1, 15, true));
        var_dump(memcache_add_server($m, 'localhost', $port));
        var_dump($m->set('k', 'v'));
        """,
        call("memcache::addserver", **client.target), call("memcache_add_server"),
        call("memcache::set"))


def test_a_failing_connect_keeps_its_target(client, closed_port):
    client.calls("""
        var_dump(memcache_connect($host, %d));
        $m = new Memcache;
        var_dump(@$m->connect($host, %d, 1));
        """ % (closed_port, closed_port),
        call("memcache_connect", hn=LOOPBACK, pn=closed_port),
        call("memcache::connect", hn=LOOPBACK, pn=closed_port))


def test_a_time_out_with_a_fraction_is_reported_as_the_driver_does(client):
    client.calls("""
        error_reporting(-1);
        $m = new Memcache;
        var_dump($m->connect($host, $port, 1.5));
        """, call("memcache::connect", **client.target))


UNFIT = """
    function told($run) {
        try { var_dump(gettype($run())); }
        catch (Throwable $e) { echo get_class($e), $e->getMessage(), "\\n"; }
    }
    $m = new Memcache;
    told(function () use ($m) { return memcache_connect([]); });
    told(function () use ($m) { return $m->connect(); });
    told(function () use ($m) { return $m->addServer([]); });
    told(function () use ($m) { return $m->get(); });
"""
UNFIT_NAMES = ["memcache_connect", "memcache::connect", "memcache::addserver", "memcache::get"]


def test_unfit_arguments_of_a_connect_are_reported_twice_where_they_warn_which_is_meant(client):
    """Once for the wrapper and once for the driver; where they throw, and for commands, once."""
    bare, monitored = client.both(UNFIT, settings=WRAPPED_ONLY)
    assert (monitored.stderr, monitored.status) == (bare.stderr, bare.status)
    twice = 1 if client.engine.version_id >= 80000 else 2
    for report, times in ((b"memcache_connect()", twice), (b"Memcache::connect()", twice),
                          (b"Memcache::addserver()", twice), (b"MemcachePool::get()", 1)):
        assert bare.stdout.lower().count(report.lower()) == 1
        assert monitored.stdout.lower().count(report.lower()) == times
    spans = client.collector.payload.spans
    assert [span["fn"] for span in spans[1:]] == UNFIT_NAMES
    assert all("hn" not in span for span in spans)


def test_unfit_arguments_of_a_strict_caller_are_reported_once_and_by_the_driver(client):
    client.calls(UNFIT, *[call(name) for name in UNFIT_NAMES], strict=True, settings=WRAPPED_ONLY,
                 besides=ERRORS)


def test_null_arguments_are_reported_as_the_driver_does(client):
    client.calls("""
        error_reporting(-1);
        $m = new Memcache;
        try { var_dump($m->connect($host, null)); } catch (Throwable $e) { echo get_class($e); }
        var_dump($m->addServer($host, $port, null, null));
        """,
        call("memcache::connect", hn=LOOPBACK), call("memcache::addserver", **client.target),
        besides=ERRORS)
