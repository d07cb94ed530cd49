"""Where the account key comes from, what travels of it, and where it must not be seen."""
import json
import os
import re
import subprocess

import engines
import pytest
import services
from services import KEY

ORIGIN = '{"flow":"a1;"}'
CALL = """
$call = curl_init('%s');
curl_setopt($call, CURLOPT_RETURNTRANSFER, true);
curl_setopt($call, CURLOPT_TIMEOUT, 20);
echo curl_exec($call);
"""
# A file at the key's place that only the process sees: a file system of its own over /opt.
PRIVATE = ('mount -t tmpfs tmpfs /opt && mkdir -p /opt/kaq/conf &&'
           ' cat >/opt/kaq/conf/account_key && '
           'exec "$@" </dev/null')


@pytest.fixture
def calling(wire, engine):
    """Options of a run that loads curl and the extension and adds trace headers."""
    return [*wire.options({"kaq.capture_distributed_trace": 1}), *services.curl_options(engine)]


@pytest.fixture
def sent(wire, engine, echo, calling):
    """sent(KAQ_ACCOUNT_KEY=...): the headers of a call made with this environment."""
    script = wire.script(CALL % echo.url)

    def run(**environment):
        result = engines.run([engine.php, *calling, str(script)], env=environment)
        assert result.status == 0 and not result.stderr, result
        headers = json.loads(result.stdout)
        assert re.match("00-[0-9a-f]{32}-[0-9a-f]{16}-01$", headers["traceparent"])
        return headers
    return run


@pytest.fixture
def with_key_file(engine):
    """with_key_file(text, command, environment): runs it where the file holds the text."""
    if any(path.startswith("/opt/") for path in (engine.php, engine.so, str(engines.REPOSITORY))):
        pytest.skip("the engine lies where the key's file is put")
    able = subprocess.run(
        ["unshare", "-m", "sh", "-c", PRIVATE, "sh", "true"], input=b"", capture_output=True,
        timeout=20)
    if able.returncode != 0:
        pytest.skip("no file system of its own: %s" % able.stderr.decode("utf-8", "replace"))

    def run(text, command, env=None):
        return engines.run(["unshare", "-m", "sh", "-c", PRIVATE, "sh", *command], env=env,
                           stdin=text)
    return run


# From the environment ----------------------------------------------------------------------------

IDENTIFIERS = [
    (KEY, KEY[-12:]), ("exactly-12ch", "exactly-12ch"), ("xexactly-12ch", "exactly-12ch"),
    ("k" * 5000 + "exactly-12ch", "exactly-12ch"), ("  %s \t" % KEY, KEY[-12:]),
    ("\t\n" + KEY + "\r\n", KEY[-12:]), ("with blanks in it", "blanks in it"),
    ("elevenchars", None), ("    elevenchars    ", None), ("x", None), ("", None),
    ("                    ", None)]


@pytest.mark.parametrize("key,identifier", IDENTIFIERS, ids=lambda text: repr(text)[:30])
def test_last_12_characters_of_the_key_travel_if_it_has_as_many(sent, key, identifier):
    assert sent(KAQ_ACCOUNT_KEY=key).get("X-Skelvor-Id") == identifier


def test_without_a_key_no_account_travels(sent):
    if os.path.exists("/opt/kaq/conf/account_key"):
        pytest.skip("this machine has a key of its own")
    assert "X-Skelvor-Id" not in sent()


@pytest.mark.parametrize("key,identifier", IDENTIFIERS, ids=lambda text: repr(text)[:30])
def test_caller_is_compared_with_the_same_characters(wire, collector, key, identifier):
    received = identifier or key.strip()
    wire.cgi("", KAQ_ACCOUNT_KEY=key, HTTP_X_SKELVOR_ID=received, HTTP_X_SKELVOR_ORIGIN=ORIGIN)
    assert collector.payload.transaction["origin"].get("flow") == ("a1;" if identifier else None)


def test_caller_that_sends_nothing_is_not_taken_for_the_account_of_an_extension_without_one(
        wire, collector):
    wire.cgi("", HTTP_X_SKELVOR_ID="", HTTP_X_SKELVOR_ORIGIN=ORIGIN)
    assert "flow" not in collector.payload.transaction["origin"]


def test_key_is_read_once_when_the_process_starts(engine, echo, tmp_path):
    service = services.Service(engine, tmp_path, "builtin", """
        echo getenv('KAQ_ACCOUNT_KEY'), "\\n";
        putenv('KAQ_ACCOUNT_KEY=the-key-that-came-too-late');
        $_ENV['KAQ_ACCOUNT_KEY'] = $_SERVER['KAQ_ACCOUNT_KEY'] = 'the-key-that-came-too-late';
        """ + CALL % echo.url, app_id="a", key=KEY)
    try:
        for _ in range(3):
            answer = service.get().decode().split("\n")
            assert json.loads(answer[1])["X-Skelvor-Id"] == KEY[-12:]
        assert answer[0] == KEY, "the script's own view of its environment was changed"
    finally:
        service.close()


# From the file -----------------------------------------------------------------------------------

@pytest.mark.parametrize("text,identifier", [
    (KEY, KEY[-12:]), (KEY + "\n", KEY[-12:]), (KEY + "\r\n", KEY[-12:]),
    ("  \t" + KEY + " \t\n", KEY[-12:]), (KEY + "\nanother-key-in-the-second-line\n", KEY[-12:]),
    ("exactly-12ch\n", "exactly-12ch"), ("elevenchars\n", None), ("elevenchars", None),
    ("short\nanother-key-in-the-second-line\n", None),
    ("\nanother-key-in-the-second-line\n", None), ("", None), ("\n", None)])
@pytest.mark.parametrize("environment", [{}, {"KAQ_ACCOUNT_KEY": ""}], ids=["unset", "empty"])
def test_first_line_of_the_file_is_the_key_where_the_environment_has_none(
        wire, engine, echo, calling, with_key_file, environment, text, identifier):
    script = wire.script(CALL % echo.url)
    result = with_key_file(text.encode(), [engine.php, *calling, str(script)], environment)
    assert result.status == 0 and not result.stderr, result
    assert json.loads(result.stdout).get("X-Skelvor-Id") == identifier


@pytest.mark.parametrize("key,identifier", [
    ("key-of-the-environment", "-environment"), ("short", None)])
def test_environment_wins_over_the_file(
        wire, engine, echo, calling, with_key_file, key, identifier):
    script = wire.script(CALL % echo.url)
    result = with_key_file(KEY.encode(), [engine.php, *calling, str(script)],
                           {"KAQ_ACCOUNT_KEY": key})
    assert json.loads(result.stdout).get("X-Skelvor-Id") == identifier


@pytest.mark.parametrize("maker", ["mkdir", "mkfifo", "ln -s nowhere", "ln -s /dev/urandom"])
def test_what_is_no_file_in_its_place_counts_as_no_key_and_is_not_waited_for(
        wire, engine, echo, calling, with_key_file, maker):
    script = wire.script(CALL % echo.url)
    place = "/opt/kaq/conf/account_key"
    turned = 'rm %s && %s %s && exec "$@"' % (place, maker, place)
    result = with_key_file(b"", ["sh", "-c", turned, "sh", engine.php, *calling, str(script)])
    assert result.status == 0 and not result.stderr, result
    assert "X-Skelvor-Id" not in json.loads(result.stdout)


# Where it must not be seen -----------------------------------------------------------------------

TELL_ALL = """
class Failure extends Exception {}
function failing() { throw new Failure('it went wrong'); }
try { failing(); } catch (Failure $caught) {}
trigger_error('a warning of the script', E_USER_WARNING);
kaq_missing_function();
"""


def texts_of(collector):
    """Everything that the collector was sent, payloads decoded."""
    collector.settle()
    assert collector.status_requests and collector.data_records
    return [request.raw for request in collector.status_requests] + [
        record.raw if record.is_notice else record.payload.bytes
        for record in collector.data_records]


def test_key_reaches_neither_the_collector_nor_the_log(wire, collector, engine, echo, calling):
    log = wire.directory / "errors.log"
    script = wire.script(CALL % echo.url + TELL_ALL)
    result = engines.run(
        [engine.php, *calling, "-d", "log_errors=1", "-d", "error_log=%s" % log,
         "-d", "kaq.capture_httpcall_metadata=1", str(script)], env={"KAQ_ACCOUNT_KEY": KEY})
    assert KEY[-12:].encode() in result.stdout, "no account was at work"
    told = [result.stdout, result.stderr, log.read_bytes(), *texts_of(collector)]
    assert not any(KEY[:-12].encode() in text for text in told)


def test_key_of_a_web_request_reaches_the_collector_in_no_form(engine, echo, tmp_path):
    service = services.Service(engine, tmp_path, "builtin", CALL % echo.url + TELL_ALL,
                               app_id="a", key=KEY, settings={"kaq.capture_httpcall_metadata": 1})
    try:
        body = service.get("/?q=1", [("X-Skelvor-Id", KEY[-12:]), ("X-Skelvor-Origin", ORIGIN)])
        assert KEY[-12:].encode() in body
        told = [body, service.server.log.encode(), *texts_of(service.collector)]
        assert not any(KEY[:-12].encode() in text for text in told)
    finally:
        service.close()


@pytest.mark.parametrize("html", [False, True], ids=["text", "html"])
def test_key_stands_in_phpinfo_only_where_the_engine_itself_shows_its_environment(
        wire, engine, html):
    script = wire.script("phpinfo();")
    binary = engine.cgi if html else engine.php
    wire.need(binary, "php-cgi")
    shown = []
    for loaded in (False, True):
        options = [*wire.options(loaded=loaded), "-d", "display_errors=0"]
        variables = {"KAQ_ACCOUNT_KEY": KEY}
        if html:
            variables.update(services.server_interfaces.cgi_variables(script))
        arguments = [] if html else [str(script)]
        result = engines.run([binary, *options, *arguments], env=variables)
        shown.append(result.stdout.decode("utf-8", "replace"))
        assert (("<table>" in shown[-1]) == html) and (("kaq.version" in shown[-1]) == loaded)
    bare, monitored = (text.count(KEY[-12:]) for text in shown)
    assert bare > 0 and monitored == bare


def test_key_of_the_file_is_in_no_phpinfo(wire, engine, with_key_file):
    script = wire.script("phpinfo();")
    result = with_key_file(KEY.encode(), [engine.php, *wire.options(), str(script)])
    assert b"kaq.version" in result.stdout and KEY[-12:].encode() not in result.stdout
