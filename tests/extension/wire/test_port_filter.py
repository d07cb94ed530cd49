"""The lists of ports to monitor or to skip, decided before anything is asked."""
import pytest
from fake_collector import DISABLED_NOTICE
from payloads import escape

INCLUDE = "kaq.include_ports"
EXCLUDE = "kaq.exclude_ports"


def notice(directive, port, name='"PHP-Application"'):
    return ("message:\tTracking disabled for instance with application name %s and port %s"
            " due to %s ini directive\n" % (name, port, directive))


def assert_passes(collector):
    collector.settle()
    assert collector.events == ["status", "data"]
    assert not collector.data_records[0].is_notice


def assert_filtered(collector, directive, port, **more):
    assert collector.notices == [notice(directive, port, **more), DISABLED_NOTICE]
    assert collector.status_connections == 0 and collector.data_connections == 2


@pytest.mark.parametrize("listed,port", [
    ("443", "443"), ("80,443", "443"), ("443,80", "443"), (",,443,,", "443"), ("80,443,", "443"),
    ("081,81", "81"), ("0", None), ("0,1", None)])
def test_port_in_the_include_list_passes(wire, collector, listed, port):
    wire.cgi("", settings={INCLUDE: listed}, SERVER_PORT=port)
    assert_passes(collector)


@pytest.mark.parametrize("listed,port", [
    ("80", "443"), ("80, 443", "443"), ("443 ,80", "443"), ("0443", "443"), ("443", "0443"),
    ("44", "443"), ("4433", "443"), ("443;80", "443"), (",", "443"), ("80", None),
    ("443.0", "443")])
def test_port_missing_from_the_include_list_is_compared_byte_for_byte_and_filtered(
        wire, collector, listed, port):
    wire.cgi("", settings={INCLUDE: listed}, SERVER_PORT=port)
    assert_filtered(collector, INCLUDE, port or "0")


@pytest.mark.parametrize("listed", ["443", "80,443", ",,443", "443,"])
def test_port_in_the_exclude_list_is_filtered(wire, collector, listed):
    wire.cgi("", settings={EXCLUDE: listed}, SERVER_PORT="443")
    assert_filtered(collector, EXCLUDE, "443")


@pytest.mark.parametrize("listed", ["80", "80, 443", "0443", "4433", "44", ",", ""])
def test_port_missing_from_the_exclude_list_passes(wire, collector, listed):
    wire.cgi("", settings={EXCLUDE: listed}, SERVER_PORT="443")
    assert_passes(collector)


def test_with_both_lists_only_the_include_list_counts_for_a_match(wire, collector):
    wire.cgi("", settings={INCLUDE: "443", EXCLUDE: "443"}, SERVER_PORT="443")
    assert_passes(collector)


def test_with_both_lists_only_the_include_list_is_named_for_a_miss(wire, collector):
    wire.cgi("", settings={INCLUDE: "80", EXCLUDE: "443"}, SERVER_PORT="443")
    assert_filtered(collector, INCLUDE, "443")


def test_empty_include_list_counts_as_not_set(wire, collector):
    wire.cgi("", settings={INCLUDE: "", EXCLUDE: "443"}, SERVER_PORT="443")
    assert_filtered(collector, EXCLUDE, "443")


def test_forwarded_port_is_the_one_that_is_filtered(wire, collector):
    wire.cgi("", settings={INCLUDE: "80,443"}, SERVER_PORT="8080", HTTP_X_FORWARDED_PORT="443")
    assert_passes(collector)


def test_static_port_is_the_one_that_is_filtered(wire, collector):
    wire.cgi("", settings={EXCLUDE: "9000", "kaq.use_static_port": "9000"}, SERVER_PORT="80")
    assert_filtered(collector, EXCLUDE, "9000")


def test_command_line_run_has_port_zero(wire, collector):
    wire.cli(settings={EXCLUDE: "0"})
    assert_filtered(collector, EXCLUDE, "0")


def test_notice_holds_the_escaped_application_name_in_quotes(wire, collector):
    name = 'a "quoted" / back\\slash'
    wire.cli(ini="kaq.application_name='%s'\n" % name, settings={INCLUDE: "80"})
    assert_filtered(collector, INCLUDE, "0", name='"%s"' % escape(name))


def test_notice_with_no_application_name_holds_two_quotes(wire, collector):
    wire.cli(settings={INCLUDE: "80", "kaq.application_name": ""})
    assert_filtered(collector, INCLUDE, "0", name='""')


def test_filtered_request_leaves_the_script_alone(wire, collector):
    wire.same_as_bare(wire.cli, source="function f() { exit(7); } echo 'x'; f();",
                      settings={INCLUDE: "80"})
    assert collector.notices == [notice(INCLUDE, "0"), DISABLED_NOTICE]


def test_long_list_is_searched_to_its_end(wire, collector):
    wire.cgi("", settings={INCLUDE: ",".join(str(p) for p in range(1, 4000))}, SERVER_PORT="3999")
    assert_passes(collector)


def test_skipped_request_is_not_filtered(wire, collector):
    wire.cli(settings={INCLUDE: "80", "kaq.capture_clirequest": 0})
    assert collector.notices == ["message:\tNo request URI Found\n", DISABLED_NOTICE]
