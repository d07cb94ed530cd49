"""The request on the status port: its text byte for byte, and where each member comes from."""
import behaviours
import hosts
import pytest
from payloads import escape

DEFAULT_MEMBERS = (
    '{"connect_info":{"agent_info":{"agent.version":"4.9","agent.version.info":"4.9.2.0",'
    '"application.name":"%(application)s","application.type":"PHP","fqdn":"%(fqdn)s",'
    '"hostname":"%(hostname)s","port":%(port)s,"host.type":"%(host_type)s",'
    '"rum.autoinjection":%(rum)s},'
    '"agent_specific_info":{"application.group.name":"%(group)s"},'
    '"environment":{"MachineName":"%(hostname)s","OS":"LINUX","OSArch":"amd64",'
    '"OSVersion":"%(release)s","IP": [%(addresses)s]}},'
    '"misc_info":{"txn.name":"%(uri)s"}}\n')


def expected(**changes):
    host_type, hostname = hosts.type_and_name()
    facts = {
        "application": "PHP-Application", "group": "", "port": "0", "rum": "true",
        "fqdn": escape(hosts.canonical_name(hostname)), "hostname": escape(hostname),
        "host_type": host_type, "release": escape(hosts.release()),
        "addresses": ",".join('"%s"' % address for address in hosts.addresses()),
    }
    facts.update(changes)
    return DEFAULT_MEMBERS % facts


def test_whole_request_of_a_command_line_run(wire, collector):
    script = wire.script("")
    wire.cli(script)
    assert collector.request.text == expected(uri=escape(str(script)))


def test_whole_request_of_a_web_request(wire, collector):
    wire.cgi("", REQUEST_URI="/shop/cart/?item=3", SERVER_PORT="8443")
    assert collector.request.text == expected(uri=escape("/shop/cart"), port="8443")


def test_whole_request_with_every_setting_changed(wire, collector):
    wire.cgi("", REQUEST_URI="/x", settings={
        "kaq.application_name": "Shop", "kaq.application_group": "Sales",
        "kaq.enable_auto_rum": 0, "kaq.use_static_port": "9000"})
    assert collector.request.text == expected(
        uri=escape("/x"), application="Shop", group="Sales", rum="false", port="9000")


def test_request_is_plain_json_and_ends_with_one_line_feed(wire, collector):
    wire.cli()
    raw = collector.request.raw
    assert raw.endswith(b"\n") and raw.count(b"\n") == 1
    assert collector.request.document["connect_info"]["agent_info"]["application.type"] == "PHP"


def test_nothing_follows_the_request_and_a_half_close_ends_the_answer(wire, collector):
    collector.reply = behaviours.answers_then_half_closes(
        b'{"instance.id":"i-1","instance.status":920}')
    result = wire.cli("echo 1;")
    assert collector.payload.application["instance_id"] == "i-1"
    assert collector.request.rest == b""
    assert result.stdout == b"1"


@pytest.mark.parametrize("name", [
    'quote " solidus / backslash \\ end', "tab\there", "caf\u00e9 \u4e2d", "raw \udcff\udcfe byte",
    "\x01\x1f\x7f"])
def test_application_name_and_group_are_escaped_and_other_bytes_go_raw(wire, collector, name):
    ini = "kaq.application_name='%s'\nkaq.application_group='g %s'\n" % (name, name)
    wire.cli(ini=ini.encode("utf-8", "surrogateescape"))
    text = collector.request.text
    assert '"application.name":"%s",' % escape(name) in text
    assert '{"application.group.name":"%s"}' % escape("g " + name) in text
    assert '"application_name":"%s","application_group":"%s",' % (
        escape(name), escape("g " + name)) in collector.payload.text


@pytest.mark.parametrize("value,written", [
    (1, "true"), (0, "false"), (2, "true"), (-1, "true"), ("no digits", "false")])
def test_rum_member_is_true_for_every_value_but_zero(wire, collector, value, written):
    wire.cli(settings={"kaq.enable_auto_rum": value})
    assert '"rum.autoinjection":%s}' % written in collector.request.text


@pytest.mark.parametrize("variable", [
    "KUBERNETES_SERVICE_HOST", "ECS_AGENT_URI", "WEBSITE_SITE_NAME"])
def test_container_platforms_are_reported_as_docker_with_the_system_host_name(
        wire, collector, variable):
    wire.cli(env={variable: "there"})
    document = collector.request.document["connect_info"]
    assert document["agent_info"]["host.type"] == "DOCKER"
    assert document["agent_info"]["hostname"] == hosts.system_name()
    assert document["environment"]["MachineName"] == hosts.system_name()


def test_container_variable_counts_even_when_it_is_empty(wire, collector):
    wire.cli(env={"KUBERNETES_SERVICE_HOST": ""})
    assert collector.request.document["connect_info"]["agent_info"]["host.type"] == "DOCKER"


# Port text -----------------------------------------------------------------------------------

@pytest.mark.parametrize("variables,port", [
    ({"SERVER_PORT": "8080"}, "8080"),
    ({"SERVER_PORT": "8080", "HTTP_X_FORWARDED_PORT": "443"}, "443"),
    ({"SERVER_PORT": "8080", "HTTP_X_FORWARDED_PORT": ""}, "8080"),
    ({"SERVER_PORT": "8080", "HTTP_X_FORWARDED_PORT": "1234567890"}, "8080"),
    ({"SERVER_PORT": "8080", "HTTP_X_FORWARDED_PORT": "123456789"}, "123456789"),
    ({"SERVER_PORT": "1234567890"}, "0"),
    ({"SERVER_PORT": ""}, "0"),
    ({"SERVER_PORT": None}, "0"),
    ({"SERVER_PORT": None, "HTTP_X_FORWARDED_PORT": "81"}, "81"),
], ids=str)
def test_port_of_a_web_request(wire, collector, variables, port):
    wire.cgi("", **variables)
    assert '"port":%s,"host.type"' % port in collector.request.text


@pytest.mark.parametrize("static,port", [
    ("9", "9"), ("123456789", "123456789"), ("1234567890", "443"), ("", "443")])
def test_static_port_of_one_to_nine_characters_wins(wire, collector, static, port):
    wire.cgi("", settings={"kaq.use_static_port": static}, HTTP_X_FORWARDED_PORT="443")
    assert '"port":%s,"host.type"' % port in collector.request.text


@pytest.mark.parametrize("static,written", [
    ("abc", "abc"), ("a/b", "a\\/b"), (" 80", " 80"), ('8"0', '8\\"0'), ("tab\t", "tab\\t")])
def test_static_port_that_is_no_number_is_written_bare_and_unchecked_which_is_meant(
        wire, collector, static, written):
    wire.cli(ini="kaq.use_static_port='%s'\n" % static)
    assert '"port":%s,"host.type"' % written in collector.request.text


def test_forwarded_port_text_is_written_bare_and_escaped(wire, collector):
    wire.cgi("", HTTP_X_FORWARDED_PORT='4"3')
    assert '"port":4\\"3,"host.type"' in collector.request.text


def test_txn_name_is_the_request_uri_in_both_kinds_of_runs(wire, collector):
    script = wire.script("")
    wire.cli(script)
    wire.cgi(script, REQUEST_URI="/a/b/?c", SCRIPT_NAME="/other.php")
    collector.settle()
    assert [request.document["misc_info"]["txn.name"] for request in collector.status_requests] == [
        str(script), "/a/b"]
