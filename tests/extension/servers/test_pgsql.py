"""The pgsql functions against a PostgreSQL server. Links are resources in PHP 7 and objects
later; the spans are the same."""
import pytest
from expected import CREATE, ERRORS, INSERT, WRAPPED_ONLY, call
from server_processes import USER


@pytest.fixture
def pgsql(watch, postgresql):
    target = "host=127.0.0.1 port=%d user=%s dbname=postgres" % (postgresql.port, USER)
    loaded = watch.load("pgsql", target=target)
    loaded.target, loaded.connected = target, call("pg_connect", hn=target)
    return loaded


OPEN = "$c = pg_connect($target);"


def test_queries(pgsql):
    pgsql.calls(OPEN + """
        pg_query($c, '%s');
        echo pg_affected_rows(pg_query($c, "%s")), "\\n";
        echo json_encode(pg_fetch_all(pg_query($c, 'SELECT name FROM t ORDER BY id'))), "\\n";
        var_dump(pg_close($c));
        """ % (CREATE, INSERT),
        pgsql.connected, call("pg_query", qs=CREATE), call("pg_query", qs=INSERT),
        call("pg_query", qs="SELECT name FROM t ORDER BY id"), call("pg_close"),
        output='2\n[{"name":"one"},{"name":"two"}]\nbool(true)\n')


def test_queries_with_parameters(pgsql):
    pgsql.calls(OPEN + """
        $how = [4, 'x'];
        $r = pg_query_params($c, 'SELECT $1::int + 1, $2::text', $how);
        echo json_encode(pg_fetch_row($r)), json_encode($how);
        """,
        pgsql.connected, call("pg_query_params", qs="SELECT $1::int + 1, $2::text"),
        output='["5","x"][4,"x"]')


def test_prepared_statements(pgsql):
    pgsql.calls(OPEN + """
        pg_prepare($c, 'sum', 'SELECT $1::int + $2::int');
        echo pg_fetch_result(pg_execute($c, 'sum', [2, 3]), 0, 0);
        """,
        pgsql.connected, call("pg_prepare", qs="SELECT $1::int + $2::int"), call("pg_execute"),
        output="5")


def test_the_default_link(pgsql):
    """Reading it is deprecated from PHP 8.1 on, and said once."""
    pgsql.calls(OPEN + """
        echo pg_fetch_result(pg_query('SELECT 1'), 0, 0);
        echo pg_fetch_result(pg_query_params('SELECT $1::int', [2]), 0, 0);
        pg_prepare('three', 'SELECT 3');
        echo pg_fetch_result(pg_execute('three', []), 0, 0);
        """,
        pgsql.connected, call("pg_query", qs="SELECT 1"),
        call("pg_query_params", qs="SELECT $1::int"), call("pg_prepare", qs="SELECT 3"),
        call("pg_execute"))


def test_queries_that_are_not_waited_for(pgsql):
    pgsql.calls(OPEN + """
        var_dump((bool) pg_send_query($c, 'SELECT 21; SELECT 22'));
        while ($r = pg_get_result($c)) echo pg_fetch_result($r, 0, 0), "\\n";
        """,
        pgsql.connected, call("pg_send_query", qs="SELECT 21; SELECT 22"),
        output="bool(true)\n21\n22\n")


def test_a_persistent_connection(pgsql):
    pgsql.calls("""
        $c = pg_pconnect($target, PGSQL_CONNECT_FORCE_NEW);
        echo pg_fetch_result(pg_query($c, 'SELECT 31'), 0, 0);
        """,
        call("pg_pconnect", hn=pgsql.target), call("pg_query", qs="SELECT 31"), output="31")


def test_names_without_a_wrapper_give_no_span(pgsql):
    pgsql.calls(OPEN + "$r = pg_exec($c, 'SELECT 5'); echo pg_fetch_row($r)[0], pg_host($c);",
                pgsql.connected, output="5127.0.0.1")


def test_a_failing_connect_keeps_the_whole_connection_string(pgsql, closed_port):
    target = "host=127.0.0.1 port=%d user=%s connect_timeout=5" % (closed_port, USER)
    pgsql.calls(
        "var_dump(@pg_connect('%s')); var_dump(pg_pconnect('%s'));" % (target, target),
        call("pg_connect", hn=target), call("pg_pconnect", hn=target))


def test_an_empty_or_unfit_connection_string_reads_as_localhost(pgsql):
    pgsql.calls("""
        var_dump(@pg_connect(''));
        foreach (['pg_connect', 'pg_pconnect'] as $connect) {
            try { var_dump($connect([])); } catch (TypeError $e) { echo $e->getMessage(), "\\n"; }
        }
        """,
        call("pg_connect", hn="localhost"), call("pg_connect", hn="localhost"),
        call("pg_pconnect", hn="localhost"), besides=ERRORS)


def test_failing_queries_warn_as_before_and_keep_their_text(pgsql):
    pgsql.calls(OPEN + """
        var_dump(pg_query($c, 'SELECT FROM WHERE'));
        var_dump(pg_query_params($c, 'SELECT $9', []));
        var_dump(pg_prepare($c, 'x', 'SELECT BY'));
        var_dump(pg_execute($c, 'missing', []));
        """,
        pgsql.connected, call("pg_query", qs="SELECT FROM WHERE"),
        call("pg_query_params", qs="SELECT $9"), call("pg_prepare", qs="SELECT BY"),
        call("pg_execute"))


def test_a_closed_link_is_still_a_link(pgsql):
    pgsql.calls(OPEN + """
        pg_close($c);
        try { var_dump(pg_query($c, 'SELECT 1')); } catch (Throwable $e) { echo $e->getMessage(); }
        """,
        pgsql.connected, call("pg_close"), call("pg_query", qs="SELECT 1"), besides=ERRORS)


UNFIT = OPEN + """
    function told($run) {
        try { var_dump($run()); }
        catch (Throwable $e) { echo get_class($e), $e->getMessage(), "\\n"; }
    }
    told(function () use ($c) { return gettype(pg_query($c, 9)); });
    told(function () use ($c) { return gettype(pg_query('x', 'SELECT 1')); });
    told(function () use ($c) { return gettype(pg_query($c, [])); });
    told(function () use ($c) { return gettype(pg_send_query($c)); });
    told(function () use ($c) { return gettype(pg_query_params($c, 'SELECT 1', 'no array')); });
    told(function () use ($c) { return gettype(pg_prepare($c, 'a', 'SELECT 1', 'b')); });
    told(function () use ($c) { return gettype(pg_prepare('a')); });
"""


@pytest.mark.parametrize("strict", [False, True], ids=["weak", "strict"])
def test_unfit_arguments_are_reported_once_and_by_the_driver(pgsql, strict):
    pgsql.calls(
        UNFIT,
        pgsql.connected, call("pg_query", qs="" if strict else "9"), call("pg_query", qs=""),
        call("pg_query", qs=""), call("pg_send_query", qs=""), call("pg_query_params", qs=""),
        call("pg_prepare"), call("pg_prepare"),
        strict=strict, settings=WRAPPED_ONLY, besides=ERRORS)


def test_null_texts_are_reported_as_the_driver_does_and_read_as_empty(pgsql):
    pgsql.calls(OPEN + """
        error_reporting(-1);
        var_dump(gettype(pg_query($c, null)));
        var_dump(gettype(pg_prepare($c, null, 'SELECT 5')));
        var_dump(gettype(pg_execute($c, null, [])));
        """,
        pgsql.connected, call("pg_query", qs=""), call("pg_prepare", qs="SELECT 5"),
        call("pg_execute"))
