"""The browser snippet: which pages get it, where, and that all others pass byte for byte."""
import hashlib
import json

import pytest
import rum_pages
from fake_collector import DISABLED, ENABLED, FakeCollector
from rum_pages import HTML, PAGE, SNIPPET

CHUNK = 66560
GIVEN = dict(ENABLED, **{"webtransaction.rum.snippet": SNIPPET.decode()})
HANDLERS = "echo json_encode(ob_list_handlers());"
SHOW = "echo '%s';" % PAGE


def echo(text):
    return "echo '%s';" % text


@pytest.fixture(scope="module")
def rum_collector():
    collector = FakeCollector()
    yield collector
    collector.close()


@pytest.fixture(scope="module", params=["builtin", "cgi", "fpm"])
def started_site(request, engine, rum_collector, tmp_path_factory):
    kind = request.param
    if kind != "builtin" and not getattr(engine, kind):
        pytest.skip("this engine has no php-" + kind)
    site = rum_pages.Site(engine, rum_collector, kind, tmp_path_factory.mktemp("pages"))
    yield site
    site.close()


@pytest.fixture
def site(started_site):
    started_site.collector.reply = dict(GIVEN)
    started_site.collector.replies.clear()
    return started_site


# Pages that get it --------------------------------------------------------------------------------

WITH_SNIPPET = {
    "plain": HTML + SHOW,
    "inline": HTML + "?>" + PAGE,
    "capital tag": HTML + echo("<HEAD></HEAD><body>"),
    "mixed case": HTML + echo("<head></hEaD><body>"),
    "several heads": HTML + echo("<head></head><head></HEAD></head>"),
    "tag at the very start": HTML + echo("</head>rest"),
    "tag at the very end": HTML + echo("start</head>"),
    "only the tag": HTML + echo("</head>"),
    "beginnings of the tag": HTML + echo("<</<</h</head</HEA</<</head>d>"),
    "zero bytes": HTML + 'echo "a\\0b\\0</head>\\0c";',
    "bytes that are no text": HTML + 'echo "\\xff\\xfe</head>\\x80";',
    "header name in small letters": "header('content-type: text/html'); " + SHOW,
    "header name in capitals": "header('CONTENT-TYPE: text/html'); " + SHOW,
    "header without a blank": "header('Content-Type:text/html'); " + SHOW,
    "type replaced": "header('Content-Type: application/json'); " + HTML + SHOW,
    "html anywhere in the line": "header('Content-Type: text/x; was=text/html'); " + SHOW,
    "one html line of two": HTML + "header('Content-Type: text/plain', false);" + SHOW,
    "length withdrawn": HTML + "header('Content-Length: 5'); header_remove('Content-Length');"
                        + SHOW,
    "another length": HTML + "header('X-Content-Length: 5'); header('Content-Lengths: 5');" + SHOW,
    "error page": "http_response_code(404); " + HTML + SHOW,
    "server error page": "http_response_code(500); " + HTML + SHOW,
    "pieces": HTML + "foreach (str_split('%s') as $c) echo $c;" % PAGE,
    "later chunk": HTML + "echo '<head>'; ob_flush(); echo '</head>';",
    "later chunk after flushes": HTML + "echo '<head>'; ob_flush(); flush(); echo '</head>';",
    "heads in two chunks": HTML + SHOW + "ob_flush(); " + SHOW,
    "flush alone": HTML + "echo '<head>'; flush(); echo '</he'; flush(); echo 'ad>'; flush();",
    "implicit flush": HTML + "ob_implicit_flush(1); " + SHOW,
    "other ways to print": HTML + "print '<head>'; printf('%s', '</he');"
                           "fwrite(fopen('php://output', 'w'), 'ad>');",
    "buffer of the script": HTML + "ob_start(); " + SHOW + "ob_end_flush();",
    "buffer left open": HTML + "ob_start(); " + SHOW,
    "nested buffers": HTML + "ob_start(); echo '<head>'; ob_start(); echo '</head>';"
                      "ob_end_flush(); ob_flush(); echo 'x'; ob_end_flush();",
    "buffer fetched and printed": HTML + "ob_start(); " + SHOW + "$p = ob_get_clean(); echo $p;",
    "callback that makes the tag": HTML + "ob_start(function ($t) { return str_replace('@',"
                                   "'</head>', $t); }); echo '<head>@</head>';",
    "cleaned buffer of the script": HTML + "ob_start(); " + SHOW + "ob_clean(); " + SHOW,
    "chunked buffer of the script": HTML + "ob_start(null, 7); " + "echo '<head></head>';"
                                    "echo '</head>';",
    "exit": HTML + SHOW + "exit;",
    "shutdown function": HTML + "register_shutdown_function(function () { echo '</head>'; });"
                         "echo '<head>';",
    "destructor": HTML + "class D { function __destruct() { echo '</head>'; } } $d = new D;"
                  "echo '<head>';",
    "shown warning": "ini_set('display_errors', 1); ini_set('html_errors', 0); " + HTML +
                     "echo '<head>'; 1 + []['x']; " + SHOW,
    "large page": HTML + "echo '<head>', str_repeat('<p>', 100000), '</head></head>';",
    "ten megabytes at once": HTML + "echo str_repeat('<', 5 << 20), '</head>',"
                             "str_repeat('</head', 700000);",
    "ten megabytes in pieces": HTML + "for ($i = 0; $i < 10240; $i++) { echo str_repeat('x', 1023),"
                               "'<'; if ($i == 5000) echo '/head>'; }",
}


@pytest.mark.parametrize("name", list(WITH_SNIPPET))
def test_snippet_comes_before_the_first_closing_head_tag(site, name):
    answer = site.injected(WITH_SNIPPET[name])
    assert answer.body.count(SNIPPET) == 1


# What a script can do only as long as its output is in a buffer, as it is in the extension's.
LATE = {
    "type": SHOW + HTML,
    "exception": HTML + SHOW + "throw new Exception;",
    "fatal error": HTML + SHOW + "missing();",
    "memory limit": HTML + SHOW + "ini_set('memory_limit', '8M'); str_repeat('x', 1 << 24);",
}


@pytest.mark.parametrize("name", list(LATE))
def test_page_is_served_as_with_any_buffer_around_it_is_meant(site, name):
    source, buffered = LATE[name], {"output_buffering": "1000000"}
    bare, loaded = site.bare(source, settings=buffered), site.get(source)
    assert (loaded.status, loaded.headers) == (bare.status, bare.headers)
    # Some engines throw away what is in buffers when the memory limit is reached.
    kept = bare.body or name != "memory limit"
    assert loaded.body == (rum_pages.with_snippet(bare.body) if kept else b"")
    assert site.get(source, settings=buffered) == loaded


def test_each_response_of_a_process_gets_its_own(site):
    for _ in range(3):
        assert site.get(HTML + SHOW).body.count(SNIPPET) == 1


def test_snippet_is_the_one_that_the_collector_gave_for_this_request(site):
    for snippet in ("<b>1</b>", "<i>another %s %n \\0 \\ 'quoted' \u00e4\u20ac</i>",
                    "<script>" + "x" * 100000 + "</script>"):
        site.collector.reply = dict(GIVEN, **{"webtransaction.rum.snippet": snippet})
        site.injected(HTML + SHOW, snippet.encode())


def test_snippet_of_several_megabytes_arrives(site):
    snippet = ("<script>/* \u00e4\u20ac \"quoted\" " + "x" * 60 + " */</script>\n") * 30000
    site.collector.reply = dict(GIVEN, **{"webtransaction.rum.snippet": snippet})
    site.injected(HTML + SHOW, snippet.encode())


def test_closing_head_tag_in_the_snippet_is_no_place_for_it(site):
    snippet = "</head><head>"
    site.collector.reply = dict(GIVEN, **{"webtransaction.rum.snippet": snippet})
    answer = site.get(HTML + SHOW + "ob_flush();" + SHOW)
    assert answer.body.count(snippet.encode()) == 1


def test_tag_split_across_two_chunks_leaves_the_snippet_to_a_later_one(site):
    answer = site.get(HTML + "echo '<head></he'; ob_flush(); echo 'ad><i>'; ob_flush(); " + SHOW)
    page = PAGE.encode()
    assert answer.body == b"<head></head><i>" + rum_pages.with_snippet(page)


def test_type_in_the_default_header_counts_only_from_the_second_chunk_on_is_meant(site):
    source = SHOW + "ob_flush(); " + SHOW
    page = PAGE.encode()
    answer = site.get(source)
    assert answer.header("content-type").startswith("text/html")
    assert answer.body == page + rum_pages.with_snippet(page)


def test_type_counts_from_the_chunk_on_that_it_was_told_before(site):
    source = ("header('Content-Type: text/plain'); " + SHOW + "ob_flush(); " + HTML + SHOW)
    assert site.get(source).body == PAGE.encode() * 2, "once headers are sent none is added"


@pytest.mark.parametrize("more", [0, 2], ids=["at the limit", "below the limit"])
def test_page_near_the_memory_limit_does_not_end_the_script(site, more):
    """The page and the handler's buffer fit, the page with the snippet besides does not: it goes
    without."""
    source = HTML + ("$page = str_repeat('x', 8 << 20); ini_set('memory_limit', '%dM');"
                     "echo '</head>'; echo $page; echo 'end';" % (20 + more))
    body = site.get(source).body
    assert body.endswith(b"xend") and body.startswith(b"</head>x")


def test_room_for_a_page_is_not_room_for_the_script(site):
    """What the script cannot have without the snippet it cannot have with it, and is told so."""
    source = HTML + (
        "ini_set('display_errors', '1'); ini_set('memory_limit', '16M');"
        "$k = str_repeat('k', 4 << 20); ob_start();"
        "echo '<head></head>', str_repeat('x', 4 << 20); ob_end_flush(); ob_flush(); unset($k);"
        "for ($a = []; count($a) < 30; ) $a[] = str_repeat('y', 1 << 20);")
    assert b"size of 16777216 bytes" in site.get(source).body


def test_memory_limit_holds_again_after_the_snippet(site):
    source = HTML + ("ini_set('memory_limit', '8M'); echo '</head>'; ob_flush();"
                     "str_repeat('x', 16 << 20); echo 'end';")
    assert site.get(source).body == SNIPPET + b"</head>"


# Pages that pass as they are ----------------------------------------------------------------------

UNCHANGED = {
    "empty": "",
    "empty html": HTML,
    "no type told": SHOW,
    "json": "header('Content-Type: application/json'); " + SHOW,
    "plain text": "header('Content-Type: text/plain'); " + SHOW,
    "other markup": "header('Content-Type: application/xhtml+xml'); " + SHOW,
    "capital type": "header('Content-Type: Text/HTML'); " + SHOW,
    "charset alone": "header('Content-Type: charset=utf-8'); " + SHOW,
    "html in another header": "header('Content-Type: text/plain');"
                              "header('X-Content-Type: text/html');"
                              "header('Content-Types: text/html');" + SHOW,
    "html withdrawn": HTML + "header_remove('Content-Type'); header('Content-Type: text/plain');"
                      + SHOW,
    "length": HTML + "header('Content-Length: %d'); " % len(PAGE) + SHOW,
    "length told first": "header('Content-Length: %d'); " % len(PAGE) + HTML + SHOW,
    "length in small letters": HTML + "header('content-length: %d'); " % len(PAGE) + SHOW,
    "length in capitals": HTML + "header('CONTENT-LENGTH:%d'); " % len(PAGE) + SHOW,
    "length of a buffer": HTML + "ob_start(); " + SHOW +
                          "header('Content-Length: ' . ob_get_length()); ob_end_flush();",
    "no tag": HTML + echo("<html><body>text</body></html>"),
    "opening tag": HTML + echo("<head><head/>"),
    "tag with a blank": HTML + echo("<head></head ></ head>< /head>"),
    "tag cut off": HTML + echo("<head></head"),
    "longer tag": HTML + echo("<header></header></headx>"),
    "tag split by a flush": HTML + "echo '<head></he'; ob_flush(); echo 'ad>';",
    "redirection": "header('Location: /elsewhere');",
    "not modified": "http_response_code(304);",
    "not modified with a type": HTML + "http_response_code(304);",
    "no content": "http_response_code(204);",
    "buffer thrown away": HTML + "ob_start(); " + SHOW + "ob_end_clean();",
    "all buffers thrown away": HTML + "while (ob_get_level()) ob_end_clean(); " + SHOW,
    "ours ended": HTML + "while (ob_get_level()) ob_end_flush(); " + SHOW,
    "encoded by the script": HTML + "header('Content-Encoding: gzip'); echo gzencode('%s');" % PAGE,
    "deflated by the script": HTML + "header('Content-Encoding: deflate');"
                              "echo gzcompress('%s', 0);" % PAGE,
    "encoded in pieces": HTML + "header('content-encoding: gzip'); $page = gzencode('%s', 0);"
                         "echo substr($page, 0, 20); ob_flush(); echo substr($page, 20);" % PAGE,
    "ten megabytes": "header('Content-Type: text/plain'); for ($i = 0; $i < 10; $i++)"
                     "echo str_repeat('</head>', 150000);",
}


@pytest.mark.parametrize("name", list(UNCHANGED))
def test_page_passes_byte_for_byte(site, name):
    assert SNIPPET not in site.unchanged(UNCHANGED[name]).body


@pytest.mark.parametrize("name", list(UNCHANGED))
def test_page_passes_byte_for_byte_with_a_buffer_around_it(site, name):
    site.unchanged(UNCHANGED[name], settings={"output_buffering": "4096"})


def test_length_told_late_counts(site):
    source = HTML + SHOW + "header('Content-Length: %d');" % len(PAGE)
    answer = site.unchanged(source, settings={"output_buffering": "4096"})
    assert answer.body == PAGE.encode()


@pytest.mark.parametrize("name", ["plain", "later chunk", "exit", "ten megabytes at once"])
def test_head_request_has_no_body(site, name):
    answer = site.unchanged(WITH_SNIPPET[name], method="HEAD")
    assert answer.status == 200 and answer.body == b""


def test_not_modified_with_a_page_answers_as_without_us(site):
    source = HTML + "http_response_code(304); "
    assert site.unchanged(source).status == 304
    bare, loaded = site.bare(source + SHOW), site.get(source + SHOW)
    assert (loaded.status, loaded.headers) == (bare.status, bare.headers)
    if bare.body:
        assert loaded.body == rum_pages.with_snippet(bare.body)


# Pages that are longer than what the handler holds back -------------------------------------------

JSON = "header('Content-Type: application/json'); "
LONG = "echo '<head></head>'; echo str_repeat('x', 70000), 'end';"
LONG_PAGE = b"<head></head>" + b"x" * 70000 + b"end"
BUFFERED = {"output_buffering": "1000000"}
SAY_LENGTH = "header_register_callback(function () { header('Content-Length: %d'); });"
# Source, settings, the length that is told, the body that is sent.
LATE_LOOKS = {
    "length asked for": (JSON + LONG + "header('Content-Length: ' . ob_get_length());", BUFFERED,
                         "3", LONG_PAGE),
    "page fetched": (JSON + LONG + "echo strlen(ob_get_clean());", BUFFERED,
                     None, LONG_PAGE[:-3] + b"3"),
    "page cleaned": (JSON + LONG + "ob_clean(); echo 'new';", BUFFERED,
                     None, LONG_PAGE[:-3] + b"new"),
    "length told late": (HTML + LONG + "header('Content-Length: 70016');", BUFFERED,
                         "70016", rum_pages.with_snippet(LONG_PAGE)),
    "length told with the headers": (HTML + SAY_LENGTH % 70016 + LONG, BUFFERED,
                                     "70016", rum_pages.with_snippet(LONG_PAGE)),
    "length of a short page told with the headers": (
        HTML + SAY_LENGTH % len(PAGE) + SHOW, {}, str(len(PAGE)),
        rum_pages.with_snippet(PAGE.encode())),
}


@pytest.mark.parametrize("name", list(LATE_LOOKS))
def test_script_that_looks_back_too_late_answers_something_else_is_meant(site, name):
    source, settings, length, body = LATE_LOOKS[name]
    bare, loaded = (site.get(source, on, settings) for on in (False, True))
    assert bare.header("content-length") in (None, str(len(bare.body)))
    assert loaded.header("content-length") == length
    # A web server, or its client, cuts off what is beyond the length.
    kept = int(length) if site.kind == "builtin" and length else len(body)
    assert loaded.body == body[:kept] and loaded != bare
    assert site.get(source, settings={**settings, "kaq.enable_auto_rum": 0}) == bare


@pytest.mark.parametrize("type_", [HTML, JSON], ids=["html", "json"])
def test_headers_told_late_count_for_a_long_page_too(site, type_):
    source = type_ + LONG + "header('X-Late: 1'); http_response_code(404);"
    bare, loaded = (site.get(source, on, BUFFERED) for on in (False, True))
    assert (loaded.status, loaded.headers) == (bare.status, bare.headers)
    assert (loaded.status, loaded.header("x-late")) == (404, "1")
    assert loaded.body == (rum_pages.with_snippet(LONG_PAGE) if type_ == HTML else LONG_PAGE)


# A cleaned chunk ----------------------------------------------------------------------------------

@pytest.mark.parametrize("cleaning", ["ob_clean();", "ob_end_clean(); ob_start();",
                                      "ob_get_clean(); ob_start();"])
def test_cleaned_page_is_gone_and_leaves_the_snippet_to_the_next(site, cleaning):
    source = HTML + "ob_start(); " + SHOW + cleaning + "echo '<head>new</head>';"
    assert site.injected(source).body == b"<head>new" + SNIPPET + b"</head>"


def test_ours_can_be_cleaned_and_leaves_the_snippet_to_the_next_page(site):
    answer = site.get(HTML + SHOW + "ob_clean(); echo '<head>new</head>';")
    assert answer.body == b"<head>new" + SNIPPET + b"</head>"


def test_ours_can_be_fetched_without_the_snippet(site):
    answer = site.get(HTML + SHOW + "$page = ob_get_contents(); ob_clean(); echo md5($page);")
    assert answer.body.decode() == hashlib.md5(PAGE.encode()).hexdigest()


# Chunks -------------------------------------------------------------------------------------------

def test_chunk_passes_when_it_has_its_full_size(site):
    source = HTML + "echo str_repeat('x', %d); $sent = headers_sent(); while (ob_get_level())" \
                    "ob_end_clean(); echo (int)$sent;"
    assert site.get(source % (CHUNK - 1)).body == b"0"
    assert site.get(source % CHUNK).body == b"x" * CHUNK + b"1"


def test_tag_split_by_the_end_of_a_full_chunk_is_not_found(site):
    source = HTML + "echo str_repeat('x', %d); echo '</h'; echo 'ead>';" % (CHUNK - 3)
    assert site.unchanged(source).body.endswith(b"</head>")


def test_tag_that_ends_with_a_full_chunk_is_found(site):
    site.injected(HTML + "echo str_repeat('x', %d); echo '</he'; echo 'ad>x';" % (CHUNK - 5))


def test_tag_after_a_full_chunk_is_found_with_the_default_header(site):
    site.injected("echo str_repeat('x', %d); " % CHUNK + SHOW)


def test_flush_alone_sends_nothing_of_the_page_is_meant(site):
    source = HTML + "echo '<head>'; flush(); while (ob_get_level()) ob_end_clean(); echo 'x';"
    assert site.get(source).body == b"x"


def test_header_can_be_told_after_the_first_output_is_meant(site):
    answer = site.get(HTML + "echo 'a', (int)headers_sent(); header('X-Late: 1');")
    assert (answer.body, answer.header("x-late")) == (b"a0", "1")


# Compression --------------------------------------------------------------------------------------

@pytest.mark.parametrize("settings", [
    {"zlib.output_compression": 1}, {"output_handler": "ob_gzhandler"},
    {"zlib.output_compression": 200, "zlib.output_compression_level": 9}],
    ids=["zlib.output_compression", "output_handler", "small pieces"])
@pytest.mark.parametrize("name", ["plain", "later chunk", "ten megabytes in pieces"])
def test_compression_around_us_compresses_the_page_with_the_snippet(site, settings, name):
    answer = site.injected(WITH_SNIPPET[name], settings=settings, accepted="gzip")
    assert answer.header("content-encoding") == "gzip"


@pytest.mark.parametrize("name", ["plain", "large page"])
def test_compression_that_the_client_does_not_take_is_none(site, name):
    answer = site.injected(WITH_SNIPPET[name], settings={"zlib.output_compression": 1})
    assert answer.header("content-encoding") is None


def test_compression_within_hides_the_tag(site):
    answer = site.unchanged(HTML + "ob_start('ob_gzhandler'); " + SHOW, accepted="gzip")
    assert answer.text == PAGE.encode() and answer.header("content-encoding") == "gzip"


@pytest.mark.parametrize("accepted", ["gzip", "deflate"])
def test_compression_within_that_leaves_the_tag_as_it_is_is_left_alone(site, accepted):
    source = "ini_set('zlib.output_compression_level', 0);" + HTML + \
             "ob_start('ob_gzhandler'); echo '<html>'; ob_flush(); " + SHOW
    answer = site.unchanged(source, accepted=accepted)
    assert b"</head>" in answer.body and answer.header("content-encoding") == accepted


def test_handler_that_finds_nothing_to_compress_hides_nothing(site):
    site.injected(HTML + "ob_start('ob_gzhandler'); " + SHOW)


@pytest.mark.parametrize("name", ["json", "length", "empty", "redirection", "not modified"])
def test_unchanged_pages_are_so_under_compression(site, name):
    site.unchanged(UNCHANGED[name], settings={"zlib.output_compression": 1}, accepted="gzip")


# Where the handler is -----------------------------------------------------------------------------

def test_script_sees_the_handler_is_meant(site):
    status, = json.loads(site.get("echo json_encode(ob_get_status(true));").body)
    assert (status["name"], status["level"], status["chunk_size"]) == ("RUM Injection", 0, CHUNK)
    assert (status["type"], status["flags"]) == (0, 0x70)
    assert site.get("echo ob_get_level();").body == b"1"


def test_handler_is_the_innermost_at_the_start(site):
    answer = site.get(HANDLERS, settings={"output_buffering": "4096"})
    assert json.loads(answer.body) == ["default output handler", "RUM Injection"]


def test_handler_starts_before_the_script_does_anything(site):
    answer = site.get("ob_start(); " + HANDLERS)
    assert json.loads(answer.body) == ["RUM Injection", "default output handler"]


@pytest.mark.parametrize("snippet", ["", None, 5, True, ["<b>"], {"a": "<b>"}],
                         ids=["empty", "null", "number", "true", "array", "object"])
def test_without_a_snippet_there_is_no_handler(site, snippet):
    site.collector.reply = dict(ENABLED, **{"webtransaction.rum.snippet": snippet})
    assert site.get(HANDLERS).body == b"[]"
    site.unchanged(HTML + SHOW)


@pytest.mark.parametrize("reply", [ENABLED, dict(DISABLED, **{
    "webtransaction.rum.snippet": "<b>"})], ids=["no key", "not monitored"])
def test_without_an_answer_that_asks_for_it_there_is_no_handler(site, reply):
    site.collector.reply = dict(reply)
    assert site.get(HANDLERS).body == b"[]"
    site.unchanged(HTML + SHOW)


def test_setting_of_zero_leaves_the_handler_out(site):
    off = {"kaq.enable_auto_rum": 0}
    assert site.get(HANDLERS, settings=off).body == b"[]"
    site.unchanged(HTML + SHOW, settings=off)


@pytest.mark.parametrize("value", ["2", "-1", "1x"])
def test_any_other_number_is_on(site, value):
    site.injected(HTML + SHOW, settings={"kaq.enable_auto_rum": value})


def test_next_request_has_no_handler_when_it_has_no_snippet(site):
    assert site.get(HTML + SHOW).body.count(SNIPPET) == 1
    site.collector.reply = dict(ENABLED)
    assert site.get(HANDLERS).body == b"[]"


def test_background_run_has_no_handler(wire, collector):
    collector.reply = dict(GIVEN)
    assert wire.cli(HANDLERS).stdout == b"[]"
    assert wire.cli(HTML + SHOW).stdout == PAGE.encode()


def test_skipped_web_request_has_no_handler(wire, collector):
    collector.reply = dict(GIVEN)
    assert wire.cgi(HANDLERS, REQUEST_URI="?only=query").response.body == b"[]"


@pytest.mark.parametrize("started_site", ["fpm"], indirect=True)
def test_page_ended_early_by_fpm_has_the_snippet(site):
    answer = site.injected(HTML + SHOW + "fastcgi_finish_request(); echo '</head>';")
    assert answer.body == rum_pages.with_snippet(PAGE.encode())


def test_payload_says_nothing_of_the_snippet_and_the_page_is_recorded(site):
    site.collector.forget()
    site.get(HTML + SHOW)
    payload = site.collector.payload
    assert payload.transaction["transaction_type"] == 1
    assert SNIPPET not in payload.bytes
