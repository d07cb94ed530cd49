"""PDO with its three drivers: the same calls give the same spans."""
import pytest
from expected import CREATE, ERRORS, INSERT, WRAPPED_ONLY, call
from server_processes import DATABASE, PASSWORD, USER

SELECT = "SELECT id, name FROM t ORDER BY id"
ONE = "SELECT name FROM t WHERE id = ?"


def _dsn(driver, port):
    return {"mysql": "mysql:host=127.0.0.1;port=%d;dbname=%s" % (port, DATABASE),
            "pgsql": "pgsql:host=127.0.0.1;port=%d;dbname=postgres" % port,
            "sqlite": "sqlite::memory:"}[driver]


@pytest.fixture(params=["mysql", "pgsql", "sqlite"])
def pdo(request, watch):
    servers = {"mysql": "mariadb", "pgsql": "postgresql"}
    loaded = watch.load("pdo_" + request.param)
    port = request.getfixturevalue(servers[request.param]).port if request.param in servers else 0
    loaded.driver, loaded.dsn = request.param, _dsn(request.param, port)
    loaded.connected = call("PDO::__construct", hn=loaded.dsn)
    return loaded.load("pdo_" + request.param, dsn=loaded.dsn, user=USER, password=PASSWORD)


@pytest.fixture
def sqlite(watch):
    return watch.load("pdo_sqlite", dsn="sqlite::memory:")


OPEN = "$p = new PDO($dsn, $user, $password, [PDO::ATTR_ERRMODE => PDO::ERRMODE_EXCEPTION]);"
TABLE = OPEN + "$p->exec('%s'); $p->exec(\"%s\");" % (CREATE, INSERT)


def test_statements_run_at_once(pdo):
    pdo.calls(TABLE + """
        echo $p->exec("UPDATE t SET name = 'deux' WHERE id = 2"), "\\n";
        $s = $p->query('SELECT id, name FROM t ORDER BY id', PDO::FETCH_NUM);
        while ($row = $s->fetch()) echo json_encode(array_map('strval', $row)), "\\n";
        """,
        pdo.connected, call("PDO::exec", qs=CREATE), call("PDO::exec", qs=INSERT),
        call("PDO::exec", qs="UPDATE t SET name = 'deux' WHERE id = 2"),
        call("PDO::query", qs=SELECT),
        call("PDOStatement::fetch"), call("PDOStatement::fetch"), call("PDOStatement::fetch"),
        output='1\n["1","one"]\n["2","deux"]\n')


def test_prepared_statements(pdo):
    pdo.calls(TABLE + """
        $s = $p->prepare('SELECT name FROM t WHERE id = ?');
        var_dump($s->execute([2]));
        echo json_encode($s->fetch(PDO::FETCH_ASSOC)), "\\n";
        $s->closeCursor();
        $s = $p->prepare('SELECT name FROM t WHERE id = :id',
                         [PDO::ATTR_CURSOR => PDO::CURSOR_FWDONLY]);
        $id = 1;
        $s->bindParam(':id', $id, PDO::PARAM_INT);
        $s->execute();
        echo json_encode($s->fetchAll(PDO::FETCH_COLUMN)), "\\n";
        """,
        pdo.connected, call("PDO::exec", qs=CREATE), call("PDO::exec", qs=INSERT),
        call("PDO::prepare", qs=ONE), call("PDOStatement::execute"), call("PDOStatement::fetch"),
        call("PDO::prepare", qs="SELECT name FROM t WHERE id = :id"),
        call("PDOStatement::execute"),
        output='bool(true)\n{"name":"two"}\n["one"]\n')


def test_calls_without_a_wrapper_give_no_span(pdo):
    pdo.calls(TABLE + """
        $p->beginTransaction();
        $p->rollBack();
        foreach ($p->query('SELECT id, name FROM t ORDER BY id') as $row) echo $row['name'];
        echo $p->query('SELECT 5')->fetchColumn();
        """,
        pdo.connected, call("PDO::exec", qs=CREATE), call("PDO::exec", qs=INSERT),
        call("PDO::query", qs=SELECT), call("PDO::query", qs="SELECT 5"),
        output="onetwo5")


def test_fetch_mode_arguments_of_query_do_not_hide_its_text(pdo):
    pdo.calls(OPEN + """
        class Row { public $x; }
        echo get_class($p->query('SELECT 1 AS x', PDO::FETCH_CLASS, 'Row', [])->fetch());
        echo $p->query('SELECT 2 AS x', PDO::FETCH_COLUMN, 0)->fetch();
        $into = new Row;
        $p->query('SELECT 3 AS x', PDO::FETCH_INTO, $into)->fetch();
        echo $into->x;
        """,
        pdo.connected,
        call("PDO::query", qs="SELECT 1 AS x"), call("PDOStatement::fetch"),
        call("PDO::query", qs="SELECT 2 AS x"), call("PDOStatement::fetch"),
        call("PDO::query", qs="SELECT 3 AS x"), call("PDOStatement::fetch"),
        output="Row23")


def test_exceptions_pass_through_and_spans_keep_their_text(pdo):
    pdo.calls(OPEN + """
        foreach (['exec', 'query'] as $how) {
            try { $p->$how('SELECT FROM WHERE'); }
            catch (PDOException $e) { echo $how, $e->getLine(), gettype($e->getCode()), "\\n"; }
        }
        $p->query('SELECT BY');
        echo 'not reached';
        """,
        pdo.connected, call("PDO::exec", qs="SELECT FROM WHERE"),
        call("PDO::query", qs="SELECT FROM WHERE"), call("PDO::query", qs="SELECT BY"),
        besides=ERRORS)


def test_warnings_and_silence_are_as_before(pdo):
    pdo.calls("""
        $p = new PDO($dsn, $user, $password, [PDO::ATTR_ERRMODE => PDO::ERRMODE_WARNING]);
        var_dump($p->exec('SELECT FROM WHERE'));
        $p->setAttribute(PDO::ATTR_ERRMODE, PDO::ERRMODE_SILENT);
        var_dump($p->query('SELECT FROM WHERE'), $p->errorCode());
        """,
        pdo.connected, call("PDO::exec", qs="SELECT FROM WHERE"),
        call("PDO::query", qs="SELECT FROM WHERE"))


@pytest.mark.parametrize("driver", ["mysql", "pgsql"])
def test_a_failing_connect_keeps_the_whole_source_name(watch, driver, closed_port):
    dsn = _dsn(driver, closed_port)
    watch.load("pdo_" + driver, dsn=dsn, user=USER).calls("""
        try { new PDO($dsn, $user, 'x'); }
        catch (PDOException $e) { echo $e->getMessage(), "\\n"; }
        new PDO($dsn, $user, 'x');
        """,
        call("PDO::__construct", hn=dsn), call("PDO::__construct", hn=dsn),
        besides=ERRORS)


def test_a_source_name_without_a_driver_is_kept(sqlite):
    sqlite.calls("""
        try { new PDO('oracle:x'); } catch (PDOException $e) { echo $e->getMessage(); }
        try { new PDO('no colon'); } catch (PDOException $e) { echo $e->getMessage(); }
        """,
        call("PDO::__construct", hn="oracle:x"), call("PDO::__construct", hn="no colon"),
        besides=ERRORS)


def test_null_credentials_and_options_are_fine(pdo):
    pdo.calls("""
        error_reporting(-1);
        try { $p = new PDO($dsn, $user, $password, null); } catch (PDOException $e) { echo 'no'; }
        try { $p = new PDO($dsn, null, null, null); } catch (PDOException $e) { echo 'no'; }
        """, pdo.connected, pdo.connected, besides=ERRORS)


UNFIT = """
    error_reporting(-1);
    $p = new PDO($dsn);
    $p->setAttribute(PDO::ATTR_ERRMODE, PDO::ERRMODE_SILENT);
    function told($run) {
        try { var_dump(gettype($run())); }
        catch (Throwable $e) { echo get_class($e), $e->getMessage(), "\\n"; }
    }
    told(function () use ($p) { return $p->query(); });
    told(function () use ($p) { return $p->query([]); });
    told(function () use ($p) { return $p->query(null); });
    told(function () use ($p) { return $p->exec(); });
    told(function () use ($p) { return $p->exec([]); });
    told(function () use ($p) { return $p->exec(null); });
    told(function () use ($p) { return $p->prepare(); });
    told(function () use ($p) { return $p->prepare([]); });
    told(function () use ($p) { return $p->prepare(null); });
    told(function () use ($p) { return $p->query('SELECT 1', null); });
    told(function () use ($p) { return $p->query(7); });
    told(function () { return new PDO([]); });
    told(function () { return new PDO(); });
    told(function () { return new PDO(null); });
"""


@pytest.mark.parametrize("strict", [False, True], ids=["weak", "strict"])
def test_unfit_arguments_are_reported_once_and_by_the_driver(sqlite, strict):
    """A null is a text to a caller of PHP 7 that is not strict, and a text with a deprecation to
    one of PHP 8."""
    null_source = call("PDO::__construct", hn="localhost")
    sqlite.calls(
        UNFIT,
        call("PDO::__construct", hn="sqlite::memory:"),
        call("PDO::query"), call("PDO::query", qs=""), call("PDO::query", qs=""),
        call("PDO::exec", qs=""), call("PDO::exec", qs=""), call("PDO::exec", qs=""),
        call("PDO::prepare", qs=""), call("PDO::prepare", qs=""), call("PDO::prepare", qs=""),
        call("PDO::query", qs="SELECT 1"), call("PDO::query", qs="" if strict else "7"),
        call("PDO::__construct"), call("PDO::__construct"),
        call("PDO::__construct") if strict else null_source,
        strict=strict, settings=WRAPPED_ONLY, besides=ERRORS)


def test_methods_that_a_class_of_the_script_inherits_are_its_parent_s(sqlite):
    payload = sqlite.payload("""
        class Shop extends PDO {
            function __construct() { parent::__construct('sqlite::memory:'); }
            function total() { return $this->query('SELECT 42')->fetchColumn(); }
        }
        class Row extends PDOStatement {
            #[ReturnTypeWillChange]
            function fetch($how = null, $where = null, $offset = null) {
                return parent::fetch(PDO::FETCH_NUM);
            }
        }
        $shop = new Shop;
        echo $shop->total();
        $shop->setAttribute(PDO::ATTR_STATEMENT_CLASS, ['Row']);
        echo @$shop->query('SELECT 43')->fetch()[0];
        """, settings={"kaq.method_threshold": 0}, output="4243")
    assert payload.tree() == ("main", [
        ("Shop::__construct", [("PDO::__construct", [])]),
        ("Shop::total", [("PDO::query", [])]),
        ("PDO::query", []),
        ("Row::fetch", [("PDOStatement::fetch", [])])])


def test_calls_within_a_callback_of_the_driver_are_children_of_its_call(sqlite):
    payload = sqlite.payload("""
        $p = new PDO($dsn);
        $q = new PDO($dsn);
        function doubled($x) { return $GLOBALS['q']->query("SELECT $x * 2")->fetchColumn(); }
        $p->sqliteCreateFunction('doubled', 'doubled');
        echo $p->query('SELECT doubled(4)')->fetchColumn();
        """, settings={"kaq.method_threshold": 0}, output="8")
    assert payload.tree() == ("main", [
        ("PDO::__construct", []), ("PDO::__construct", []),
        ("PDO::query", [("doubled", [("PDO::query", [])])])])


def test_an_exception_of_a_callback_passes_through_the_driver(sqlite):
    sqlite.calls("""
        $p = new PDO($dsn);
        $p->sqliteCreateFunction('fail', function () { throw new LogicException('inner'); });
        try { $p->query('SELECT fail()'); } catch (LogicException $e) { echo $e->getMessage(); }
        """,
        call("PDO::__construct", hn="sqlite::memory:"),
        call("PDO::query", qs="SELECT fail()"), besides=ERRORS,
        settings=WRAPPED_ONLY)


def test_a_capture_setting_turned_off_leaves_the_driver_alone(sqlite):
    sqlite.calls("$p = new PDO($dsn); echo $p->query('SELECT 6')->fetchColumn();",
                 output="6", settings={"kaq.capture_pdo": 0})
