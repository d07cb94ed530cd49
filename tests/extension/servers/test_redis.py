"""phpredis against a Redis server. No key and no value is ever recorded."""
import pytest
from expected import ERRORS, LOOPBACK, WRAPPED_ONLY, call

OPEN = "$r = new Redis; $r->connect($host, $port);"


@pytest.fixture
def phpredis(watch, redis):
    loaded = watch.load("redis", host=LOOPBACK, port=redis.port, socket=redis.socket)
    loaded.connected = call("redis::connect", hn=LOOPBACK, pn=redis.port)
    return loaded


def commands(*names):
    return [call("redis::" + name) for name in names]


def test_commands_on_texts_and_numbers(phpredis, collector):
    phpredis.calls(OPEN + """
        var_dump($r->select(3), $r->set('secret-key', 'secret-value'), $r->get('secret-key'));
        var_dump($r->setex('k', 100, 'v'), $r->setnx('k', 'w'), $r->del('k', 'secret-key', 'n'));
        var_dump($r->incr('n'), $r->incrBy('n', 9), $r->decr('n'), $r->decrBy('n', 4));
        var_dump($r->del(['n']), $r->close());
        """,
        phpredis.connected,
        *commands("select", "set", "get", "setex", "setnx", "del", "incr", "incrby", "decr",
                  "decrby", "del", "close"))
    assert "secret" not in collector.payload.text


def test_commands_on_lists_and_hashes(phpredis):
    phpredis.calls(OPEN + """
        $r->del('l', 'h');
        $r->rPush('l', 'a', 'b', 'c');
        var_dump($r->lSet('l', 0, 'x'), $r->lIndex('l', 0), $r->lRem('l', 'x', 1));
        var_dump($r->hSet('h', 'a', '1'), $r->hSetNx('h', 'a', '2'), $r->hGet('h', 'a'));
        var_dump($r->hMSet('h', ['b' => '2', 'c' => '3']), $r->hMGet('h', ['a', 'c', 'z']));
        var_dump($r->hGetAll('h'), $r->del('l', 'h'));
        """,
        phpredis.connected,
        *commands("del", "lset", "lindex", "lrem", "hset", "hsetnx", "hget", "hmset", "hmget",
                  "del"))


def test_a_name_of_old_for_del(phpredis):
    if not phpredis.has_method("Redis", "delete"):
        pytest.skip("this driver has no Redis::delete")
    phpredis.calls(OPEN + "$r->set('k', 'v'); var_dump($r->delete('k'));",
                   phpredis.connected, *commands("set", "delete"))


@pytest.mark.parametrize("method", ["connect", "pconnect", "open", "popen"])
def test_every_way_to_connect_keeps_host_and_port(phpredis, redis, method):
    if not phpredis.has_method("Redis", method):
        pytest.skip("this driver has no Redis::" + method)
    phpredis.calls(
        "$r = new Redis; var_dump($r->%s($host, $port, 2.5, null, 100)); $r->get('k');" % method,
        call("redis::" + method, hn=LOOPBACK, pn=redis.port), *commands("get"))


def test_a_socket_path_is_the_host_and_there_is_no_port(phpredis, redis):
    phpredis.calls(
        "$r = new Redis; var_dump($r->connect($socket)); $r->set('k', 'v');",
        call("redis::connect", hn=redis.socket), *commands("set"))


def test_a_sixth_argument_of_connect_makes_the_host_localhost_which_is_meant(phpredis):
    phpredis.calls(
        "$r = new Redis; var_dump($r->connect($host, $port, 2.5, null, 100, 1.5));",
        call("redis::connect", hn="localhost"))


def test_a_failing_connect_keeps_its_target(phpredis, closed_port):
    phpredis.calls("""
        $r = new Redis;
        foreach (['connect', 'pconnect'] as $how) {
            try { var_dump($r->$how('127.0.0.1', %d, 2)); }
            catch (RedisException $e) { echo $e->getMessage(), $e->getLine(), "\\n"; }
        }
        try { $r->get('k'); } catch (RedisException $e) { echo $e->getMessage(), "\\n"; }
        $r->connect('127.0.0.1', %d);
        $r->set('k', 'not reached');
        """ % (closed_port, closed_port),
        call("redis::connect", hn=LOOPBACK, pn=closed_port),
        call("redis::pconnect", hn=LOOPBACK, pn=closed_port), *commands("get"),
        call("redis::connect", hn=LOOPBACK, pn=closed_port), besides=ERRORS)


@pytest.mark.parametrize("strict", [False, True], ids=["weak", "strict"])
def test_a_port_given_as_text(phpredis, redis, strict):
    phpredis.calls("""
        $r = new Redis;
        try { var_dump($r->connect($host, (string) $port)); }
        catch (TypeError $e) { echo $e->getMessage(); }
        """,
        call("redis::connect", hn="localhost") if strict else phpredis.connected,
        strict=strict, besides=ERRORS)


@pytest.mark.parametrize("strict", [False, True], ids=["weak", "strict"])
def test_unfit_arguments_are_reported_once_and_by_the_driver(phpredis, strict):
    phpredis.calls("""
        function told($run) {
            try { var_dump($run()); }
            catch (Throwable $e) { echo get_class($e), $e->getMessage(), "\\n"; }
        }
        $r = new Redis;
        told(function () use ($r) { return $r->connect(); });
        told(function () use ($r) { return $r->connect([]); });
        told(function () use ($r, $host) { return $r->connect($host, []); });
        $r->connect($host, $port);
        told(function () use ($r) { return $r->get(); });
        told(function () use ($r) { return $r->get([]); });
        told(function () use ($r) { return $r->hSet('h'); });
        """,
        *[call("redis::connect", hn="localhost")] * 3, phpredis.connected,
        *commands("get", "get", "hset"), strict=strict, settings=WRAPPED_ONLY, besides=ERRORS)


def test_null_arguments_are_reported_as_the_driver_does(phpredis, redis):
    phpredis.calls("""
        error_reporting(-1);
        $r = new Redis;
        try { var_dump($r->connect(null, $port)); } catch (Throwable $e) { echo get_class($e); }
        try { var_dump($r->connect($socket, null)); } catch (Throwable $e) { echo get_class($e); }
        var_dump($r->get(null));
        """,
        call("redis::connect", hn="localhost", pn=redis.port),
        call("redis::connect", hn=redis.socket), *commands("get"), besides=ERRORS)


def test_commands_queued_in_a_transaction(phpredis):
    phpredis.calls(OPEN + """
        $r->multi()->set('k', '1')->incr('k')->get('k')->del('k');
        var_dump($r->exec());
        """, phpredis.connected, *commands("set", "incr", "get", "del"))


def test_methods_that_a_class_of_the_script_inherits_are_its_parent_s(phpredis):
    phpredis.calls("""
        class Cache extends Redis {
            function get($key) { return parent::get($key) . '!'; }
        }
        $r = new Cache;
        $r->connect($host, $port);
        $r->set('k', 'v');
        echo $r->get('k');
        """, phpredis.connected, *commands("set", "get"), output="v!", settings=WRAPPED_ONLY)


def test_a_capture_setting_turned_off_leaves_the_driver_alone(phpredis):
    phpredis.calls(OPEN + "var_dump($r->get('missing'));", settings={"kaq.capture_redis": 0},
                   output="bool(false)\n")
