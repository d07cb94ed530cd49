"""The Memcached driver against a memcached server. No key and no value is ever recorded."""
import pytest
from expected import ERRORS, LOOPBACK, WRAPPED_ONLY, call

OPEN = "$m = new Memcached; $m->setOption(Memcached::OPT_COMPRESSION, false);" \
       "$m->addServer($host, $port); $m->flush();"


@pytest.fixture
def client(watch, memcached):
    loaded = watch.load("memcached", host=LOOPBACK, port=memcached.port)
    loaded.connected = call("memcached::addServer", hn=LOOPBACK, pn=memcached.port)
    return loaded


def commands(*names):
    return [call("memcached::" + name) for name in names]


def test_commands(client, collector):
    client.calls(OPEN + """
        var_dump($m->add('secret-key', 'secret-value'), $m->set('k', 'b'), $m->append('k', 'c'));
        var_dump($m->prepend('k', 'a'), $m->get('k'), $m->replace('k', 5), $m->get('missing'));
        var_dump($m->increment('k', 3), $m->decrement('k'), $m->delete('k'), $m->getResultCode());
        """,
        client.connected,
        *commands("add", "set", "append", "prepend", "get", "replace", "get", "increment",
                  "decrement", "delete"))
    assert "secret" not in collector.payload.text


def test_commands_by_key(client):
    client.calls(OPEN + """
        var_dump($m->addByKey('s', 'k', 'a'), $m->setByKey('s', 'k', 'b'));
        var_dump($m->appendByKey('s', 'k', 'c'), $m->prependByKey('s', 'k', 'a'));
        var_dump($m->getByKey('s', 'k'), $m->replaceByKey('s', 'k', 'r'));
        var_dump($m->deleteByKey('s', 'k'));
        """,
        client.connected,
        *commands("addByKey", "setByKey", "appendByKey", "prependByKey", "getByKey",
                  "replaceByKey", "deleteByKey"))


def test_commands_on_several_keys(client):
    client.calls(OPEN + """
        var_dump($m->setMulti(['a' => 1, 'b' => [2]]), $m->getMulti(['a', 'b', 'c']));
        var_dump($m->setMultiByKey('s', ['d' => 1.5]), $m->getMultiByKey('s', ['d']));
        var_dump($m->getDelayed(['a']), $m->fetchAll());
        var_dump($m->getDelayedByKey('s', ['d']), $m->fetch());
        """,
        client.connected,
        *commands("setMulti", "getMulti", "setMultiByKey", "getMultiByKey", "getDelayed",
                  "getDelayedByKey"))


def test_compare_and_swap(client):
    client.calls(OPEN + """
        $m->set('k', 1);
        $cas = $m->get('k', null, Memcached::GET_EXTENDED)['cas'];
        var_dump($m->cas($cas, 'k', 2), $m->cas($cas, 'k', 3), $m->get('k'));
        $cas = $m->get('k', null, Memcached::GET_EXTENDED)['cas'];
        var_dump($m->casByKey($cas, 's', 'k', 4));
        """,
        client.connected,
        *commands("set", "get", "cas", "cas", "get", "get", "casByKey"))


def test_a_callback_s_calls_are_children_of_the_call_that_missed(client):
    payload = client.payload(OPEN + """
        function make($m, $key, &$value) { $value = $m->get('other') ?: 'made'; return true; }
        echo $m->get('missing', 'make'), $m->get('missing');
        """, settings={"kaq.method_threshold": 0}, output="mademade")
    assert payload.tree() == ("main", [
        ("memcached::addServer", []),
        ("memcached::get", [("make", [("memcached::get", [])])]),
        ("memcached::get", [])])


def test_add_server_with_a_weight(client, memcached):
    client.calls(
        "$m = new Memcached; var_dump($m->addServer('localhost', $port, 33));"
        "var_dump($m->addServers([[$host, $port]]), count($m->getServerList()));",
        call("memcached::addServer", hn="localhost", pn=memcached.port))


def test_a_server_that_is_not_there_is_recorded_when_it_is_added(client, closed_port):
    client.calls(
        "$m = new Memcached; $m->addServer($host, %d); var_dump($m->get('k'));"
        "echo $m->getResultCode() === Memcached::RES_SUCCESS;" % closed_port,
        call("memcached::addServer", hn=LOOPBACK, pn=closed_port), *commands("get"))


ADD_UNFIT = """
    $m = new Memcached;
    foreach ([[], [[], 1], ['h', 'no'], ['h', 1, 2, 3]] as $arguments) {
        try { var_dump($m->addServer(...$arguments)); }
        catch (Throwable $e) { echo get_class($e), $e->getMessage(), "\\n"; }
    }
"""


def test_unfit_arguments_of_add_server_are_reported_twice_where_they_warn_which_is_meant(client):
    """Once for the wrapper and once for the driver; where they throw, once."""
    bare, monitored = client.both(ADD_UNFIT)
    assert (monitored.stderr, monitored.status) == (bare.stderr, bare.status)
    report = b"Memcached::addServer()"
    times = 1 if client.engine.version_id >= 80000 else 2
    assert bare.stdout.count(report) == 4
    assert monitored.stdout.count(report) == 4 * times
    assert client.collector.payload.names == ["memcached::addServer"] * 4
    assert all("hn" not in span for span in client.collector.payload.spans)


@pytest.mark.parametrize("strict", [False, True], ids=["weak", "strict"])
def test_unfit_arguments_of_commands_are_reported_once_and_by_the_driver(client, strict):
    client.calls(OPEN + """
        function told($run) {
            try { var_dump($run()); }
            catch (Throwable $e) { echo get_class($e), $e->getMessage(), "\\n"; }
        }
        told(function () use ($m) { return $m->get(); });
        told(function () use ($m) { return $m->get([]); });
        told(function () use ($m) { return $m->set('k'); });
        told(function () use ($m) { return $m->getMulti('no array'); });
        told(function () use ($m) { return $m->get(5); });
        """,
        client.connected, *commands("get", "get", "set", "getMulti", "get"),
        strict=strict, settings=WRAPPED_ONLY, besides=ERRORS)


def test_null_arguments_are_reported_as_the_driver_does(client):
    client.calls("""
        error_reporting(-1);
        $m = new Memcached;
        var_dump($m->addServer(null, 1), $m->addServer($host, null));
        var_dump($m->addServer($host, $port, null));
        var_dump($m->get(null));
        """,
        call("memcached::addServer", hn="localhost", pn=1),
        call("memcached::addServer", hn=LOOPBACK), client.connected, *commands("get"))


def test_a_strict_caller_s_port_text_leaves_the_names_only(client):
    """The engine throws for a strict caller whatever its version."""
    client.calls("""
        $m = new Memcached;
        try { $m->addServer($host, '11211'); } catch (TypeError $e) { echo $e->getMessage(); }
        """, call("memcached::addServer"), strict=True, besides=ERRORS)


def test_a_capture_setting_turned_off_leaves_the_driver_alone(client):
    client.calls(OPEN + "var_dump($m->get('k'));", settings={"kaq.capture_memcached": 0},
                 output="bool(false)\n")
