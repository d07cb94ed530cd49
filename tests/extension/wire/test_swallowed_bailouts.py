"""Calls that are not recorded end a bailout. After one the engine is as after a return: whatever was
cut off, the script goes on with sound frames, variables, errors and output."""
import pytest
from fake_collector import DISABLED

# deep() dies at the bottom; again() needs as many frames, and returns their number.
CALLS = """
    function deep($n) { return $n ? deep($n - 1) : %s; }
    function again($n) { $a = [$n]; return $n ? again($n - 1) + count($a) : 0; }
"""
DEATHS = {"fatal error": "trigger_error('dies', E_USER_ERROR)", "exit": "exit(0)"}


@pytest.fixture(params=list(DEATHS))
def go_on(request, drivers, collector, engine):
    """Runs a script in an unmonitored request; the stand-in mysql_query does as planned."""
    if request.param == "exit" and not engine.exit_is_a_bailout:
        pytest.skip("exit unwinds")
    collector.reply = DISABLED
    dies = DEATHS[request.param]

    def run(plan, source, settings=None):
        given = {"display_errors": 0, "log_errors": 0, "memory_limit": "256M"}
        given.update(settings or {})
        result = drivers.run(CALLS % dies + "kaq_standin_plan('mysql_query', %s);" % plan + source,
                             given)
        assert result.status >= 0, "no signal at the end either"
        return result.stdout
    return run


def test_frames_that_were_cut_off_do_not_get_in_the_way_of_later_ones(go_on):
    assert go_on("function () { deep(5000); }", """
        for ($i = 0; $i < 3; $i++) { mysql_query('q'); echo again(5000), ' '; }
        function within() { $kept = 'kept'; mysql_query('q'); again(5000); return $kept; }
        echo within();
    """) == b"5000 5000 5000 kept"


def test_frames_that_were_cut_off_give_their_memory_back(go_on):
    assert go_on("function () { deep(5000); }", """
        for ($i = 0; $i < 5; $i++) { mysql_query('q'); }
        $before = memory_get_usage(true);
        for ($i = 0; $i < 95; $i++) { mysql_query('q'); }
        echo memory_get_usage(true) - $before < 8 << 20 ? 'given back' : 'kept';
    """) == b"given back"


def test_generator_that_was_cut_off(go_on):
    assert go_on("function () { foreach (rows() as $row) { again(3000); } }", """
        function rows() { yield 1; again(3000); yield deep(5000); }
        for ($i = 0; $i < 3; $i++) { mysql_query('q'); echo again(5000), ' '; }
    """) == b"5000 5000 5000 "


def test_generator_that_was_cut_off_amid_a_call_is_left_alone(go_on):
    assert go_on("function () { $GLOBALS['rows']->next(); }", """
        function rows() { $local = str_repeat('x', 9); yield 1;
                          max(str_repeat('x', 9), again(9), deep(5000), $local); }
        $rows = rows(); $rows->current();
        mysql_query('q'); echo again(5000);
        unset($rows); echo ' ', again(5000);
    """) == b"5000 5000"


def test_generator_that_makes_the_call(go_on):
    assert go_on("function () { deep(5000); }", """
        function rows() { for ($i = 0; $i < 3; $i++) { mysql_query('q'); yield again(3000 + $i); } }
        foreach (rows() as $row) { echo $row, ' ', again(5000), ' '; }
    """) == b"3000 5000 3001 5000 3002 5000 "


def test_private_members_of_the_caller_stay_in_reach(go_on):
    assert go_on("function () { Dies::now(); }", """
        class Dies { static function now() { deep(3); } }
        class Caller {
            private $property = 'property';
            private function method() { return 'method'; }
            function call() { mysql_query('q'); return $this->property . ' ' . $this->method(); }
        }
        echo (new Caller)->call();
    """) == b"property method"


def test_error_level_is_that_of_before(go_on):
    assert go_on("function () { @deep(3); }", """
        error_reporting(E_ALL & ~E_NOTICE);
        mysql_query('q'); echo error_reporting() === (E_ALL & ~E_NOTICE) ? 'same ' : 'another ';
        @mysql_query('q'); echo error_reporting() === (E_ALL & ~E_NOTICE) ? 'same' : 'another';
    """) == b"same same"


def test_warnings_stay_warnings(go_on):
    assert go_on("function () { new SplFileObject('cut://off'); }", """
        class Cut { public $context; function url_stat() { return [1]; }
                    function stream_open() { return deep(3); } }
        stream_wrapper_register('cut', 'Cut');
        mysql_query('q');
        try { var_dump(@filesize('/does/not/exist')); } catch (Exception $e) { echo 'thrown'; }
    """) == b"bool(false)\n"


def test_error_handler_that_was_cut_off_is_the_scripts_again(go_on):
    assert go_on("function () { trigger_error('first', E_USER_WARNING); }", """
        set_error_handler(function () {
            static $calls = 0; echo 'handled '; $calls++ || deep(3);
        });
        mysql_query('q');
        trigger_error('second', E_USER_WARNING);
        restore_error_handler();
        echo set_error_handler('strlen') === null ? 'none below' : 'one below';
    """) == b"handled handled none below"


@pytest.mark.parametrize("change,left", [
    ("set_error_handler(null)", b"none"), ("restore_error_handler()", b"below"),
    ("set_error_handler('other')", b"other"),
    ("restore_error_handler(); restore_error_handler()", b"none")])
def test_error_handler_that_the_call_has_changed_stays_changed(go_on, change, left):
    # An error that no handler is asked about.
    assert go_on("function () { %s; eval('function deep() {}'); }" % change, """
        function below() {}
        function other() {}
        set_error_handler('below'); set_error_handler(function () {});
        mysql_query('q'); again(100);
        echo set_error_handler('strlen') ?: 'none';
    """) == left


def test_output_handler_that_was_cut_off_does_not_keep_the_script_from_writing(go_on):
    assert go_on("function () { ob_start('handle'); echo 'one '; ob_flush(); }", """
        function handle($text) { static $calls = 0; return $calls++ ? $text : deep(3); }
        mysql_query('q'); echo 'two';
    """).endswith(b"two")


@pytest.mark.parametrize("caller", ["%s", "function f() { global $again; %s } f();"],
                         ids=["main script", "function"])
def test_variables_that_an_included_file_had_are_the_callers_again(go_on, wire, caller):
    wire.script("$fresh = 'fresh'; $changed .= ' and changed'; unset($removed); %s;" %
                DEATHS["fatal error"], "absent.php")
    assert go_on("'class_exists'", """
        set_include_path(__DIR__); spl_autoload_extensions('.php'); spl_autoload_register();
    """ + caller % """
        $changed = str_repeat('set', 1); $kept = str_repeat('kept', 1); $removed = $later = 'here';
        mysql_query('Absent');
        again(5000);
        $later = str_repeat('later', 1); ${'by' . 'name'} = 'by name';
        echo json_encode([$changed, $kept, isset($removed), $fresh, $later, ${'ch' . 'anged'}]);
        echo ' ', implode(' ', array_intersect(
            ['changed', 'fresh', 'removed', 'byname'], array_keys(get_defined_vars())));
    """) == (b'["set and changed","kept",false,"fresh","later","set and changed"]'
             b" changed fresh byname")


FIBERS = "if (!class_exists('Fiber')) { echo 'no fibers'; exit; }"


@pytest.mark.parametrize("plan,source", [
    ("function () { (new Fiber(function () { deep(5000); }))->start(); }", """
        for ($i = 0; $i < 3; $i++) { mysql_query('q'); echo again(5000), ' '; }
    """),
    ("function () { deep(5000); }", """
        $fiber = new Fiber(function () {
            for ($i = 0; $i < 3; $i++) { mysql_query('q'); Fiber::suspend(again(5000)); }
        });
        for ($row = $fiber->start(); $row; $row = $fiber->resume()) { again(4000); echo $row, ' '; }
    """),
    ("function () { Fiber::suspend(7); deep(5000); }", """
        $fiber = new Fiber(function () { mysql_query('q'); return again(5000); });
        $fiber->start(); echo again(5000), ' '; $fiber->resume();
        echo $fiber->getReturn(), ' ', again(5000), ' ';
    """),
    ("function () { (new Fiber(function () { deep(5000); }))->start(); }", """
        $fiber = new Fiber(function () {
            for ($i = 0; $i < 3; $i++) { mysql_query('q'); Fiber::suspend(again(5000)); }
        });
        for ($row = $fiber->start(); $row; $row = $fiber->resume()) { echo $row, ' '; }
    """),
    ("function () { new Dies; }", """
        class Dies { function __destruct() { deep(5000); } }
        for ($i = 0; $i < 3; $i++) {
            mysql_query('q');
            $fiber = new Fiber(function () { Fiber::suspend(again(5000)); });
            echo $fiber->start(), ' ';
        }
    """),
], ids=["cut off", "makes the calls", "suspended in the call", "cut off in another fiber",
        "cut off in a destructor"])
def test_fiber(go_on, plan, source):
    told = go_on(plan, FIBERS + source)
    if told == b"no fibers":
        pytest.skip("no fibers in this engine")
    assert told == b"5000 5000 5000 "


def test_observers_of_calls_are_told_that_those_cut_off_have_ended(go_on):
    told = go_on("function () { deep(5000); }", """
        echo kaq_standin_observed(), ' ';
        function caller() { mysql_query('q'); again(5000); }
        for ($i = 0; $i < 3; $i++) { caller(); echo kaq_standin_observed(), ' '; }
    """, {"kaq_standins.observe": 1})
    if told.startswith(b"-1"):
        pytest.skip("no observers in this engine")
    assert told == b"0 0 0 0 "
