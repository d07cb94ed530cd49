"""The settings: their table, how values are read, and where each shows on the wire."""
import json

import engines
import pytest
from engines import DROP_SHORT, KEEP_ALL
from fake_collector import DISABLED_NOTICE, NO_URI_NOTICE, FakeCollector

# name: default, in the order of registration
DEFAULTS = {
    "kaq.status_port": "20021", "kaq.data_port": "20022", "kaq.method_threshold": "10",
    "kaq.capture_clirequest": "1", "kaq.application_name": "PHP-Application",
    "kaq.stack_depth": "15", "kaq.capture_cassandra": "1", "kaq.capture_http": "1",
    "kaq.capture_httpcall_metadata": "1", "kaq.capture_mssql": "1", "kaq.capture_mysql": "1",
    "kaq.capture_oracle": "1", "kaq.capture_pdo": "1", "kaq.capture_postgres": "1",
    "kaq.capture_redis": "1", "kaq.capture_memcached": "1",
    "kaq.capture_distributed_trace": "0", "kaq.enable_auto_rum": "1",
    "kaq.remote_exporter_hostname": "", "kaq.remote_exporter_ip": "", "kaq.track_errors": "1",
    "kaq.track_exceptions": "1", "kaq.track_zend_execute": engines.TRACKING,
    "kaq.track_zend_execute_internal": "1", "kaq.application_group": "",
    "kaq.span_limit": "10000", "kaq.prune_intermediate_spans": "0", "kaq.exclude_ports": "",
    "kaq.include_ports": "", "kaq.use_static_port": "",
}

SHORT_CALLS = "function f() {} f(); f();"

assert len(DEFAULTS) == 30


def told(wire, expression):
    return json.loads(wire.cli("echo json_encode(%s);" % expression).stdout)


def given(wire):
    """The values that php.ini is told to hold: the defaults, but for the collector's ports."""
    return dict(DEFAULTS, **{"kaq.status_port": str(wire.collector.status_port),
                             "kaq.data_port": str(wire.collector.data_port)})


def test_all_thirty_settings_have_their_defaults_and_may_be_changed_everywhere(wire):
    listed = told(wire, "ini_get_all('kaq')")
    assert {name: entry["global_value"] or "" for name, entry in listed.items()} == given(wire)
    assert {entry["access"] for entry in listed.values()} == {7}


def test_settings_are_registered_in_the_order_of_the_table(wire):
    listed = told(wire, "array_keys((new ReflectionExtension('kaq'))->getINIEntries())")
    assert listed == list(DEFAULTS)


@pytest.mark.parametrize("name", list(DEFAULTS))
def test_each_setting_may_be_set_at_run_time_and_restored(wire, name):
    wire.collector.reply = {}
    out = told(wire, "[ini_set('%s', '7'), ini_get('%s'), ini_restore('%s'), ini_get('%s')]" % (
        (name,) * 4))
    assert [value or "" for value in out] == [
        given(wire)[name], "7", "", given(wire)[name]]


def free_loopback_collector():
    """A collector on the two default ports at a loopback address where they are free."""
    for last in range(2, 250):
        try:
            return FakeCollector("127.91.7.%d" % last, 20021, 20022)
        except OSError:
            continue
    pytest.skip("the default ports are taken on every loopback address that was tried")


@pytest.mark.parametrize("value", [None, ""], ids=["not given", "empty"])
def test_default_ports_hold_when_the_settings_are_not_given_or_empty(wire, value):
    elsewhere = free_loopback_collector()
    try:
        wire.cli(settings={"kaq.status_port": value, "kaq.data_port": value,
                           "kaq.remote_exporter_ip": elsewhere.address})
        elsewhere.settle()
        assert elsewhere.events == ["status", "data"]
        assert elsewhere.payload.application["application_name"] == "PHP-Application"
    finally:
        elsewhere.close()


# Integer values ------------------------------------------------------------------------------

@pytest.mark.parametrize("value", [
    "0", "-1", "no number", "0x64", "-100", " 0", "0 100", "abc100", ".5", "4294967296",
    "99999999999999999999999"])
def test_threshold_text_that_strtol_and_an_int_make_zero_or_less_keeps_every_span(
        wire, collector, value):
    wire.cli(SHORT_CALLS, settings={"kaq.method_threshold": value})
    assert collector.payload.names == ["f", "f"]


@pytest.mark.parametrize("value", [
    "10000", "+10000", " 10000", "10000ms", "10000.9", "10000 0", "010000", "\t10000",
    "2147483647", "4294977296"])
def test_threshold_text_that_strtol_and_an_int_make_large_drops_short_spans(wire, collector, value):
    wire.cli(SHORT_CALLS, settings={"kaq.method_threshold": value})
    assert collector.payload.names == []


def test_empty_threshold_changes_nothing(wire, collector, still_clock):
    wire.cli("function short() { usleep(9000); } function long() { usleep(10000); }"
             "short(); long();", settings={"kaq.method_threshold": ""}, env=still_clock)
    assert collector.payload.names == ["long"]


@pytest.mark.parametrize("value,monitored", [
    (None, True), ("", True), ("1", True), ("-1", True), ("0", False), ("off", False)])
def test_capture_of_command_line_runs(wire, collector, value, monitored):
    wire.cli(settings={"kaq.capture_clirequest": value})
    if monitored:
        assert collector.payload.transaction["transaction_type"] == 0
    else:
        assert collector.notices == [NO_URI_NOTICE, DISABLED_NOTICE]


def test_capture_of_command_line_runs_does_not_concern_web_requests(wire, collector):
    wire.cgi("", settings={"kaq.capture_clirequest": 0})
    assert collector.payload.transaction["transaction_type"] == 1


@pytest.mark.parametrize("value", [None, "", "0"])
def test_pruning_is_off_by_default_when_empty_and_at_zero(wire, collector, value):
    wire.cli("""
        function leaf() {}
        function chain() { ini_set('kaq.method_threshold', '0'); leaf();
                           ini_set('kaq.method_threshold', '99999'); }
        chain();
    """, settings={"kaq.prune_intermediate_spans": value})
    assert collector.payload.names == ["chain", "leaf"]


@pytest.mark.parametrize("value,hooked", [("1", True), ("", True), ("0", False), ("x", False)])
def test_hook_on_user_code_follows_the_start_up_value(wire, collector, value, hooked):
    wire.cli(SHORT_CALLS, settings=dict(KEEP_ALL, **{"kaq.track_zend_execute": value}))
    assert collector.payload.names == (["f", "f"] if hooked else [])


@pytest.mark.parametrize("at_start,later,spans", [("0", "1", []), ("1", "0", ["f", "f"])])
def test_run_time_value_neither_installs_nor_removes_the_hook(
        wire, collector, at_start, later, spans):
    wire.cli("ini_set('kaq.track_zend_execute', '%s'); %s" % (later, SHORT_CALLS),
             settings=dict(KEEP_ALL, **{"kaq.track_zend_execute": at_start}))
    assert collector.payload.names == spans


# String values -------------------------------------------------------------------------------

def test_application_name_and_group_stand_in_request_and_payload(wire, collector):
    wire.cli(settings={"kaq.application_name": "Shop", "kaq.application_group": "Sales"})
    agent_info = collector.request.document["connect_info"]
    assert agent_info["agent_info"]["application.name"] == "Shop"
    assert agent_info["agent_specific_info"] == {"application.group.name": "Sales"}
    assert collector.payload.application["application_name"] == "Shop"
    assert collector.payload.application["application_group"] == "Sales"


def test_application_name_empty_in_php_ini_stays_unset(wire, collector):
    wire.cli(settings={"kaq.application_name": ""})
    assert '"application.name":"",' in collector.request.text
    assert collector.payload.application["application_name"] == ""


def test_application_name_set_by_the_script_does_not_change_the_running_request(wire, collector):
    wire.cli("ini_set('kaq.application_name', 'Late'); ini_set('kaq.application_group', 'Late');")
    assert collector.payload.application["application_name"] == "PHP-Application"
    assert collector.payload.application["application_group"] == ""


# Scope ---------------------------------------------------------------------------------------

def test_integer_set_by_the_script_lasts_for_its_request_only(wire, collector, worker):
    worker.open("if ($_GET['q'] == 'set') ini_set('kaq.method_threshold', '0'); " + SHORT_CALLS,
              DROP_SHORT)
    for query in ("plain", "set", "plain"):
        worker.get("/?q=" + query)
    assert [payload.names for payload in collector.payloads] == [[], ["f", "f"], []]


def test_data_port_set_by_the_script_receives_this_payload_only(
        wire, collector, other_collector, worker):
    worker.open("if ($_GET['q'] == 'set') ini_set('kaq.data_port', '%d');"
              % other_collector.data_port)
    for query in ("a", "set", "b"):
        worker.get("/%s?q=%s" % (query, query))
    assert [payload.transaction["t_name"] for payload in collector.payloads] == ["/a", "/b"]
    assert other_collector.payload.transaction["t_name"] == "/set"


def test_application_name_set_by_the_script_does_not_reach_later_requests(wire, collector, worker):
    worker.open("ini_set('kaq.application_name', 'Mine' . str_repeat('x', 500));")
    for _ in range(3):
        worker.get()
    assert {payload.application["application_name"] for payload in collector.payloads} == {
        "PHP-Application"}


def test_string_that_is_empty_in_php_ini_keeps_its_last_text_which_is_meant(
        wire, collector, worker):
    worker.open("if ($_GET['q'] == 'set') ini_set('kaq.application_group', 'Kept');"
                "$fill = str_repeat('y', 1 << 16);")
    for query in ("plain", "set", "plain", "plain"):
        worker.get("/?q=" + query)
    assert [payload.application["application_group"] for payload in collector.payloads] == [
        "", "", "Kept", "Kept"]


def test_empty_value_set_by_the_script_changes_nothing(wire, collector, worker):
    worker.open("ini_set('kaq.application_name', ''); ini_set('kaq.method_threshold', ''); "
              + SHORT_CALLS, DROP_SHORT)
    for _ in range(2):
        worker.get()
    assert [(payload.names, payload.application["application_name"])
            for payload in collector.payloads] == [([], "PHP-Application")] * 2


def test_values_of_a_directory_hold_from_request_start_and_only_there(wire, collector):
    server = wire.cgi_server(DROP_SHORT)
    inside = wire.script(SHORT_CALLS, "inside/page.php")
    outside = wire.script(SHORT_CALLS, "outside/page.php")
    (inside.parent / ".user.ini").write_text(
        'kaq.application_name = "Inside"\nkaq.method_threshold = 0\nkaq.use_static_port = 81\n')
    for script in (outside, inside, outside):
        server.request(script, DOCUMENT_ROOT=str(wire.directory))
    collector.settle()
    names = [request.document["connect_info"]["agent_info"]["application.name"]
             for request in collector.status_requests]
    assert names == ["PHP-Application", "Inside", "PHP-Application"]
    assert [payload.names for payload in collector.payloads] == [[], ["f", "f"], []]


def test_values_of_a_path_section_of_php_ini_hold_from_request_start(wire, collector):
    inside = wire.script(SHORT_CALLS, "inside/page.php")
    ini = "[PATH=%s]\nkaq.application_name = Inside\nkaq.method_threshold = 0\n" % inside.parent
    wire.cgi(inside, ini=ini)
    assert collector.payload.application["application_name"] == "Inside"
    assert collector.payload.names == ["f", "f"]


# Odd values ----------------------------------------------------------------------------------

ODD_SCRIPT = """
function f($n) { return $n ? f($n - 1) : 0; }
class C { static function s() { return 1; } }
f(3); echo C::s(), json_last_error(); var_dump(error_get_last()); exit(5);
"""


@pytest.mark.parametrize("value", ["", "-7", "99999999999999999999", "text", "x" * 5000],
                         ids=["empty", "negative", "huge", "text", "long"])
@pytest.mark.parametrize("name", list(DEFAULTS))
def test_odd_value_of_any_setting_leaves_the_script_alone(wire, name, value):
    settings = {name: value}
    if name == "kaq.remote_exporter_hostname":
        settings["kaq.remote_exporter_ip"] = "127.0.0.1"
    result = wire.cli(ODD_SCRIPT, settings=settings)
    assert result.outcome == (b"10NULL\n", b"", 5)


@pytest.mark.parametrize("value", ["", "-7", "99999999999999999999", "text"])
def test_odd_value_set_at_run_time_leaves_the_script_alone(wire, value):
    sets = "".join("ini_set('%s', '%s');" % (name, value) for name in DEFAULTS)
    result = wire.cli(sets + ODD_SCRIPT)
    assert result.outcome == (b"10NULL\n", b"", 5)
