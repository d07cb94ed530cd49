"""mysqli against a MariaDB server, as functions and as methods."""
import pytest
from expected import CREATE, ERRORS, INSERT, LOOPBACK, WRAPPED_ONLY, call
from server_processes import DATABASE, PASSWORD, USER

SELECT = "SELECT name FROM t WHERE id = ?"


@pytest.fixture
def mysqli(watch, mariadb):
    return watch.load("mysqli", host=LOOPBACK, port=mariadb.port, user=USER, password=PASSWORD,
                      database=DATABASE, socket=mariadb.socket, create=CREATE, select=SELECT)


def connected(name, mariadb):
    return call(name, hn=LOOPBACK, pn=mariadb.port, dn=DATABASE)


CONNECT = "mysqli_report(MYSQLI_REPORT_OFF);" \
          "$l = mysqli_connect($host, $user, $password, $database, $port);"


def test_functions_of_a_session(mysqli, mariadb):
    mysqli.calls(CONNECT + """
        var_dump(mysqli_query($l, $create));
        mysqli_real_query($l, "INSERT INTO t VALUES (1, 'one'), (2, 'two')");
        echo mysqli_affected_rows($l), "\\n";
        $r = mysqli_query($l, 'SELECT name FROM t ORDER BY id');
        echo json_encode(mysqli_fetch_all($r)), "\\n";
        mysqli_multi_query($l, 'SELECT 11; SELECT 12');
        do {
            echo mysqli_fetch_row(mysqli_store_result($l))[0], "\\n";
        } while (mysqli_more_results($l) && mysqli_next_result($l));
        var_dump(mysqli_commit($l), mysqli_close($l));
        """,
        connected("mysqli_connect", mariadb),
        call("mysqli_query", qs=CREATE),
        call("mysqli_real_query", qs=INSERT),
        call("mysqli_query", qs="SELECT name FROM t ORDER BY id"),
        call("mysqli_multi_query", qs="SELECT 11; SELECT 12"),
        call("mysqli_commit"),
        call("mysqli_close"),
        output='bool(true)\n2\n[["one"],["two"]]\n11\n12\nbool(true)\nbool(true)\n')


def test_functions_of_statements(mysqli, mariadb):
    mysqli.calls(CONNECT + """
        mysqli_query($l, $create);
        mysqli_query($l, "INSERT INTO t VALUES (1, 'one'), (2, 'two')");
        $id = 2; $name = 'before';
        $s = mysqli_prepare($l, $select);
        mysqli_stmt_bind_param($s, 'i', $id);
        mysqli_stmt_execute($s);
        mysqli_stmt_bind_result($s, $name);
        var_dump(mysqli_stmt_fetch($s), $name, $id);
        mysqli_stmt_close($s);
        $s = mysqli_stmt_init($l);
        var_dump(mysqli_stmt_prepare($s, 'SELECT 5'), mysqli_stmt_execute($s));
        """,
        connected("mysqli_connect", mariadb),
        call("mysqli_query", qs=CREATE),
        call("mysqli_query", qs=INSERT),
        call("mysqli_prepare", qs=SELECT),
        call("mysqli_stmt_bind_param"),
        call("mysqli_stmt_execute"),
        call("mysqli_stmt_init"),
        call("mysqli_stmt_prepare", qs="SELECT 5"),
        call("mysqli_stmt_execute"),
        output='bool(true)\nstring(3) "two"\nint(2)\nbool(true)\nbool(true)\n')


def test_functions_of_a_link_made_in_steps(mysqli, mariadb):
    mysqli.calls("""
        $l = mysqli_init();
        mysqli_options($l, MYSQLI_OPT_CONNECT_TIMEOUT, 5);
        var_dump(mysqli_real_connect($l, $host, $user, $password, $database, $port, null,
                                     MYSQLI_CLIENT_FOUND_ROWS));
        var_dump(mysqli_select_db($l, $database));
        """,
        call("mysqli_init"),
        call("mysqli_options"),
        connected("mysqli_real_connect", mariadb),
        call("mysqli_select_db", dn=DATABASE),
        output="bool(true)\nbool(true)\n")


def test_methods_of_a_session(mysqli, mariadb):
    mysqli.calls("""
        $m = new mysqli($host, $user, $password, $database, $port);
        $m->query($create);
        $m->real_query("INSERT INTO t VALUES (1, 'one'), (2, 'two')");
        echo $m->affected_rows, "\\n";
        echo json_encode($m->query('SELECT name FROM t', MYSQLI_STORE_RESULT)->fetch_all()), "\\n";
        $m->multi_query('SELECT 11; SELECT 12');
        do {
            echo $m->store_result()->fetch_row()[0], "\\n";
        } while ($m->more_results() && $m->next_result());
        var_dump($m->commit(), $m->close());
        """,
        connected("mysqli::__construct", mariadb),
        call("mysqli::query", qs=CREATE),
        call("mysqli::real_query", qs=INSERT),
        call("mysqli::query", qs="SELECT name FROM t"),
        call("mysqli::multi_query", qs="SELECT 11; SELECT 12"),
        call("mysqli::commit"),
        call("mysqli::close"),
        output='2\n[["one"],["two"]]\n11\n12\nbool(true)\nbool(true)\n')


def test_methods_of_statements(mysqli, mariadb):
    mysqli.calls("""
        $m = new mysqli($host, $user, $password, $database, $port);
        $id = 4; $answer = 0;
        $s = $m->prepare('SELECT ? + 1');
        $s->bind_param('i', $id);
        $s->execute();
        $s->bind_result($answer);
        var_dump($s->fetch(), $answer == 5);
        $s->close();
        $s = $m->stmt_init();
        var_dump($s->prepare('SELECT 6'), $s->execute());
        $s->close();
        $s = new mysqli_stmt($m, 'SELECT 7');
        var_dump($s->execute());
        """,
        connected("mysqli::__construct", mariadb),
        call("mysqli::prepare", qs="SELECT ? + 1"),
        call("mysqli_stmt::bind_param"),
        call("mysqli_stmt::execute"),
        call("mysqli::stmt_init"),
        call("mysqli_stmt::prepare", qs="SELECT 6"),
        call("mysqli_stmt::execute"),
        call("mysqli_stmt::__construct"),
        call("mysqli_stmt::execute"),
        output="bool(true)\nbool(true)\nbool(true)\nbool(true)\nbool(true)\n")


def test_methods_of_a_link_made_in_steps(mysqli, mariadb):
    mysqli.calls("""
        $m = mysqli_init();
        $m->options(MYSQLI_OPT_CONNECT_TIMEOUT, 5);
        var_dump($m->real_connect($host, $user, $password, $database, $port));
        $m = mysqli_init();
        $m->connect($host, $user, $password, $database, $port);
        echo $m->server_info ? 'connected' : 'not';
        """,
        call("mysqli_init"),
        call("mysqli::options"),
        connected("mysqli::real_connect", mariadb),
        call("mysqli_init"),
        connected("mysqli::connect", mariadb),
        output="bool(true)\nconnected")


def test_select_db_of_an_object_gives_names_only_which_is_meant(mysqli, mariadb):
    mysqli.calls("""
        $m = new mysqli($host, $user, $password, $database, $port);
        var_dump($m->select_db($database));
        """,
        connected("mysqli::__construct", mariadb),
        call("mysqli::select_db"),
        output="bool(true)\n")


def test_a_socket_is_reached_through_a_host_without_a_port(mysqli):
    mysqli.calls("""
        $l = mysqli_connect('localhost', $user, $password, $database, 0, $socket);
        echo mysqli_fetch_row(mysqli_query($l, 'SELECT DATABASE()'))[0];
        """,
        call("mysqli_connect", hn="localhost", dn=DATABASE),
        call("mysqli_query", qs="SELECT DATABASE()"),
        output=DATABASE)


def test_a_persistent_link_keeps_the_mark_before_its_host(mysqli, mariadb):
    mysqli.calls("""
        $m = new mysqli('p:' . $host, $user, $password, $database, $port);
        echo $m->query('SELECT 3')->fetch_row()[0];
        """,
        call("mysqli::__construct", hn="p:127.0.0.1", pn=mariadb.port, dn=DATABASE),
        call("mysqli::query", qs="SELECT 3"),
        output="3")


FAILING = """
    mysqli_report(MYSQLI_REPORT_OFF);
    var_dump(mysqli_connect($host, $user, $password, $database, $closed));
    $m = @new mysqli($host, $user, $password, $database, $closed);
    echo $m->connect_errno, "\\n";
    $l = mysqli_init();
    var_dump(@mysqli_real_connect($l, $host, $user, 'wrong', $database, $port));
    echo mysqli_connect_errno(), "\\n";
"""


def test_a_failing_connect_keeps_its_target(mysqli, mariadb, closed_port):
    mysqli.calls(
        "$closed = %d;" % closed_port + FAILING,
        call("mysqli_connect", hn=LOOPBACK, pn=closed_port, dn=DATABASE),
        call("mysqli::__construct", hn=LOOPBACK, pn=closed_port, dn=DATABASE),
        call("mysqli_init"),
        connected("mysqli_real_connect", mariadb))


THROWING = """
    mysqli_report(MYSQLI_REPORT_ERROR | MYSQLI_REPORT_STRICT);
    function told($run) {
        try { $run(); echo 'nothing'; }
        catch (mysqli_sql_exception $e) { echo get_class($e), $e->getCode(), $e->getLine(), "\\n"; }
    }
    told(function () use ($host, $user, $closed) { new mysqli($host, $user, 'x', 'y', $closed); });
    $l = mysqli_connect($host, $user, $password, $database, $port);
    told(function () use ($l) { mysqli_query($l, 'SELECT FROM'); });
    told(function () use ($l) { $l->prepare('SELECT WHERE'); });
    told(function () use ($l) { $l->multi_query('SELECT BY'); });
"""


def test_exceptions_pass_through_and_spans_keep_their_data(mysqli, mariadb, closed_port):
    mysqli.calls(
        "$closed = %d;" % closed_port + THROWING,
        call("mysqli::__construct", hn=LOOPBACK, pn=closed_port, dn="y"),
        connected("mysqli_connect", mariadb),
        call("mysqli_query", qs="SELECT FROM"),
        call("mysqli::prepare", qs="SELECT WHERE"),
        call("mysqli::multi_query", qs="SELECT BY"),
        besides=ERRORS, settings=WRAPPED_ONLY)


def test_an_uncaught_exception_ends_the_script_as_before(mysqli, mariadb):
    mysqli.calls("""
        mysqli_report(MYSQLI_REPORT_ERROR | MYSQLI_REPORT_STRICT);
        $l = mysqli_connect($host, $user, $password, $database, $port);
        mysqli_query($l, 'SELECT FROM');
        echo 'not reached';
        """,
        connected("mysqli_connect", mariadb),
        call("mysqli_query", qs="SELECT FROM"),
        besides=ERRORS)


UNFIT = """
    function told($run) {
        try { var_dump($run()); }
        catch (Throwable $e) { echo get_class($e), $e->getMessage(), "\\n"; }
    }
    told(function () use ($l) { return mysqli_query($l, 5); });
    told(function () use ($l) { return mysqli_query($l, []); });
    told(function () use ($l) { return mysqli_real_query($l); });
    told(function () use ($l) { return mysqli_query(new stdClass, 'SELECT 1'); });
    told(function () use ($l) { return mysqli_query(3, 'SELECT 1'); });
    told(function () use ($l) { return mysqli_prepare($l, []); });
    told(function () use ($l) { return mysqli_select_db($l, []); });
    told(function () use ($l) { return $l->query([]); });
    told(function () use ($l) { return $l->prepare([]); });
    told(function () use ($l) { return $l->multi_query(); });
"""
UNFIT_SPANS = [
    call("mysqli_query", qs=""), call("mysqli_real_query", qs=""),
    call("mysqli_query", qs="SELECT 1"), call("mysqli_query", qs=""), call("mysqli_prepare"),
    call("mysqli_select_db"), call("mysqli::query", qs=""), call("mysqli::prepare"),
    call("mysqli::multi_query", qs=""),
]


@pytest.mark.parametrize("strict", [False, True], ids=["weak", "strict"])
def test_unfit_arguments_are_reported_once_and_by_the_driver(mysqli, mariadb, strict):
    mysqli.calls(
        CONNECT + UNFIT,
        connected("mysqli_connect", mariadb),
        call("mysqli_query", qs="" if strict else "5"),
        *UNFIT_SPANS,
        strict=strict, besides=ERRORS, settings=WRAPPED_ONLY)


def test_null_arguments_are_reported_as_the_driver_does_and_read_as_empty(mysqli, mariadb):
    mysqli.calls("""
        mysqli_report(MYSQLI_REPORT_OFF);
        set_error_handler(function ($number, $text) { echo $number, $text, "\\n"; });
        var_dump(mysqli_connect(null, null, null, null, null, null));
        $m = mysqli_init();
        var_dump($m->real_connect(null, $user, null, null, 0, '/nonexistent/x', 0));
        var_dump(mysqli_real_connect($m, null));
        $l = mysqli_connect($host, $user, $password, $database, $port);
        try { mysqli_query($l, null); } catch (Throwable $e) { echo $e->getMessage(); }
        try { $l->query(null); } catch (Throwable $e) { echo $e->getMessage(); }
        try { mysqli_select_db($l, null); } catch (Throwable $e) { echo $e->getMessage(); }
        """,
        call("mysqli_connect", hn="localhost", dn=""),
        call("mysqli_init"),
        call("mysqli::real_connect", hn="localhost", dn=""),
        call("mysqli_real_connect", hn="localhost"),
        connected("mysqli_connect", mariadb),
        call("mysqli_query", qs=""),
        call("mysqli::query", qs=""),
        call("mysqli_select_db", dn=""),
        settings=WRAPPED_ONLY, besides=ERRORS)


def test_a_connect_without_arguments_goes_to_localhost(mysqli):
    mysqli.calls(
        "mysqli_report(MYSQLI_REPORT_OFF); var_dump(@mysqli_connect()); $m = new mysqli;",
        call("mysqli_connect", hn="localhost"),
        call("mysqli::__construct", hn="localhost"))


def test_a_strict_caller_s_port_text_leaves_the_names_only(mysqli):
    mysqli.calls("""
        try { mysqli_connect($host, $user, $password, $database, '1'); }
        catch (TypeError $e) { echo $e->getMessage(); }
        """, call("mysqli_connect"), strict=True, besides=ERRORS)


def test_methods_that_a_class_of_the_script_inherits_are_its_parent_s(mysqli, mariadb):
    mysqli.calls("""
        class Shop extends mysqli {
            function __construct(...$how) { parent::__construct(...$how); }
            function total() { return $this->query('SELECT 41 + 1')->fetch_row()[0]; }
        }
        $shop = new Shop($host, $user, $password, $database, $port);
        echo $shop->total(), $shop->real_query('DO 0');
        """,
        connected("mysqli::__construct", mariadb),
        call("mysqli::query", qs="SELECT 41 + 1"),
        call("mysqli::real_query", qs="DO 0"),
        output="421", settings=WRAPPED_ONLY)


def test_a_text_of_a_megabyte_and_one_with_odd_bytes_are_kept_whole(mysqli):
    payload = mysqli.payload(CONNECT + """
        mysqli_query($l, 'SELECT ' . str_repeat('1+', 500000) . "0");
        echo bin2hex(mysqli_fetch_row(mysqli_query($l, "SELECT '\\xe9\\t\\"\\\\/'"))[0]);
    """)
    long, odd = [span["qs"] for span in payload.spans[2:]]
    assert long == "SELECT " + "1+" * 500000 + "0"
    assert odd == "SELECT '\udce9\t\"\\/'"
