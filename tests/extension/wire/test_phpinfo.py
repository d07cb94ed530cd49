"""phpinfo: three rows and the settings with their values, as text and as HTML."""
import html
import re

import engines
import pytest

ROWS = [("kaq.version", "4.9"), ("kaq.version_info", "4.9.2.0"), ("kaq.date", "15 May 2026")]
DEFAULTS = {
    "application_group": "no value", "application_name": "PHP-Application",
    "capture_cassandra": "1", "capture_clirequest": "1", "capture_distributed_trace": "0",
    "capture_http": "1", "capture_httpcall_metadata": "1", "capture_memcached": "1",
    "capture_mssql": "1", "capture_mysql": "1", "capture_oracle": "1", "capture_pdo": "1",
    "capture_postgres": "1", "capture_redis": "1", "data_port": None, "enable_auto_rum": "1",
    "exclude_ports": "no value", "include_ports": "no value", "method_threshold": "10",
    "prune_intermediate_spans": "0", "remote_exporter_hostname": "no value",
    "remote_exporter_ip": "no value", "span_limit": "10000", "stack_depth": "15",
    "status_port": None, "track_errors": "1", "track_exceptions": "1", "track_zend_execute": engines.TRACKING,
    "track_zend_execute_internal": "1", "use_static_port": "no value"}


def defaults(collector):
    given = dict(DEFAULTS, data_port=str(collector.data_port),
                 status_port=str(collector.status_port))
    return [("kaq." + name, value, value) for name, value in given.items()]


def text_section(output):
    """Tuples of the lines below the module's name, up to the next one's."""
    section = re.search(r"\nkaq\n\n(.*?)\n\n(.*?)\n\n", output, re.S)
    return [[tuple(line.split(" => ")) for line in part.split("\n")] for part in section.groups()]


def html_section(output):
    """The same of both tables below the module's heading; cells as text."""
    section = re.split(r"<h[12]>", output.split(">kaq</a></h2>", 1)[1], maxsplit=1)[0]
    tables = re.findall(r"<table>(.*?)</table>", section, re.S)
    return [[tuple(html.unescape(re.sub("<.*?>", "", cell)).strip()
                   for cell in re.findall(r"<t[hd].*?>(.*?)</t[hd]>", row, re.S))
             for row in re.findall(r"<tr.*?>(.*?)</tr>", table, re.S)] for table in tables]


def check(sections, settings):
    assert sections == [
        [("key", "value")] + ROWS, [("Directive", "Local Value", "Master Value")] + settings]


def test_text(wire, collector):
    check(text_section(wire.cli("phpinfo(INFO_MODULES);").stdout.decode()), defaults(collector))


def test_html(wire, collector):
    body = wire.cgi("phpinfo(INFO_MODULES);").response.body.decode()
    assert body.count(">kaq</a></h2>") == 1
    check(html_section(body), defaults(collector))


@pytest.mark.parametrize("interface", ["cli", "cgi"])
def test_value_that_a_script_set_stands_beside_the_one_of_the_process(wire, collector, interface):
    source = "ini_set('kaq.application_name', 'a<b&c'); phpinfo(INFO_MODULES);"
    settings = {"kaq.application_name": "from-ini", "kaq.stack_depth": 3}
    if interface == "cli":
        sections = text_section(wire.cli(source, settings=settings).stdout.decode())
    else:
        body = wire.cgi(source, settings=settings).response.body.decode()
        assert "a<b" not in body
        sections = html_section(body)
    given = {"kaq.application_name": ("a<b&c", "from-ini"), "kaq.stack_depth": ("3", "3")}
    check(sections, [(name, *given.get(name, (local, master)))
                     for name, local, master in defaults(collector)])


def test_command_line_tells_the_same_without_a_script(wire, collector):
    check(text_section(wire.php("-i").stdout.decode()), defaults(collector))
    told = wire.php("--ri", "kaq").stdout.decode()
    assert all("%s => %s\n" % row in told for row in ROWS)


def test_version_of_the_extension(wire):
    assert wire.cli("echo phpversion('kaq');").stdout == b"4.9"
