"""The response headers that a span tells of: what curl delivered since the last transfer."""
import pytest
from curl_runs import FINISH, calls, curl, members, server, transfers
import http_server as http

__all__ = ["curl", "server"]

OPEN = """
    $ch = curl_init("$url/a"); curl_setopt($ch, CURLOPT_RETURNTRANSFER, true);
"""
EXEC = "curl_exec($ch);"
MULTI = "$multi = curl_multi_init(); curl_multi_add_handle($multi, $ch);" + FINISH
ALONE, ASYNC = EXEC, MULTI
WAYS = {"alone": (EXEC, lambda payload: payload.span("curl_exec")),
        "in a multi handle": (MULTI, lambda payload: transfers(payload)[0])}


def told(curl, behaviour, way="alone", source="", mode="headers"):
    """The response headers of one transfer of /a, which that behaviour answers."""
    curl.server.routes["/a"] = behaviour
    transfer, span = WAYS[way]
    return span(curl.payload(OPEN + source + transfer, mode)).get("ersh")


LINES = {
    "usual": (["Content-Type: text/html"], {"Content-Type": "text/html\r\n"}),
    "case": (["x-LOWER-Upper: MiXed"], {"x-LOWER-Upper": "MiXed\r\n"}),
    "blanks before the value": (["A: \t  1 2  "], {"A": "1 2  \r\n"}),
    "no blank": (["A:1"], {"A": "1\r\n"}),
    "nothing after the colon": (["A:"], {"A": ""}),
    "colon in the value": (["A: b: c"], {"A": "b: c\r\n"}),
    "blank before the colon": (["A : 1"], {"A ": "1\r\n"}),
    "last of several": (["Set-Cookie: a=1", "Set-Cookie: b=2"], {"Set-Cookie": "b=2\r\n"}),
    "names that differ in case": (["A: 1", "a: 2"], {"A": "1\r\n", "a": "2\r\n"}),
    "longest name": (["n" * 127 + ": 1"], {"n" * 127: "1\r\n"}),
    "too long a name": (["n" * 128 + ": 1"], {"n" * 127: "1\r\n"}),
    "far too long a name": (["n" * 200 + ": 1"], {"n" * 127: "1\r\n"}),
    "longest value": (["A: " + "v" * 253], {"A": "v" * 253 + "\r\n"}),
    "value whose line end is cut": (["A: " + "v" * 254], {"A": "v" * 254 + "\r"}),
    "too long a value": (["A: " + "v" * 300], {"A": "v" * 255}),
    "very long value": (["A: " + "v" * 60000], {"A": "v" * 255}),
    "high bytes": ([b"A: caf\xc3\xa9"], {"A": "caf\u00e9\r\n"}),
    "what JSON escapes": (['A: "/\\\x01'], {"A": '"/\\\x01\r\n'}),
    "number as a name": (["B: 1", "12: x"], {"B": "1\r\n", "12": "x\r\n"}),
}


@pytest.mark.parametrize("way", list(WAYS))
@pytest.mark.parametrize("kind", list(LINES))
def test_line(curl, kind, way):
    lines, expected = LINES[kind]
    headers = told(curl, http.answers(200, lines), way)
    assert headers == dict(expected, **{"Content-Length": "5\r\n"})


def test_line_without_a_colon_names_nothing(curl):
    assert told(curl, http.sends(b"HTTP/1.1 200 no-colon-here\r\n\r\n")) == []
    curl.collector.forget()
    assert told(curl, http.sends(b"HTTP/1.1 200 OK\r\nA: 1\r\nnothing\r\n\r\n")) == {"A": "1\r\n"}


def test_of_several_responses_the_later_wins(curl):
    curl.server.routes["/b"] = http.answers(200, ["B: 2", "C: 3"], b"")
    headers = told(curl, http.redirects("/b", 302, ["A: 1", "B: 1"]),
                   source="curl_setopt($ch, CURLOPT_FOLLOWLOCATION, 1);")
    assert headers == {"A": "1\r\n", "B": "2\r\n", "C": "3\r\n", "Location": "/b\r\n",
                       "Content-Length": "0\r\n"}


@pytest.mark.parametrize("first", [100, 102, 103])
def test_interim_response_counts_too(curl, first):
    block = http.head(first, ["Link: </a.css>", "A: early"])
    headers = told(curl, http.interim(block * 2, http.answers(200, ["A: late"])))
    assert headers == {"Link": "</a.css>\r\n", "A": "late\r\n", "Content-Length": "5\r\n"}


def test_upload_that_waits_for_100_continue(curl):
    headers = told(curl, http.answers(200, ["A: 1"]), source="""
        curl_setopt($ch, CURLOPT_POSTFIELDS, str_repeat('x', 2000000));
        curl_setopt($ch, CURLOPT_HTTPHEADER, ['Expect: 100-continue']);
    """)
    assert headers == {"A": "1\r\n", "Content-Length": "5\r\n"}
    request, = curl.requests
    assert request.body == b"x" * 2000000
    assert request.headers.count("Expect: 100-continue") == 1


def test_trailers_of_a_chunked_response_count_too(curl):
    headers = told(curl, http.answers_in_chunks(b"ab", b"cd", headers=["A: 1"],
                                                trailers=["A: 2", "T: 3"]))
    assert headers == {"A": "2\r\n", "T": "3\r\n", "Transfer-Encoding": "chunked\r\n"}


def test_each_transfer_starts_with_none(curl):
    curl.server.routes["/a"] = http.in_turn(
        http.answers(200, ["A: 1"]), http.answers(200, ["B: 2"]), http.answers(404, [], b""))
    payload = curl.payload(OPEN + EXEC * 3 + "curl_setopt($ch, CURLOPT_URL, 'http://127.0.0.1:1');"
                           + EXEC, "headers")
    assert [span.get("ersh") for span in calls(payload, "curl_exec")] == [
        {"A": "1\r\n", "Content-Length": "5\r\n"}, {"B": "2\r\n", "Content-Length": "5\r\n"},
        {"Content-Length": "0\r\n"}, None]


def test_transfers_of_many_handles_at_once_keep_theirs_apart(curl):
    for number in range(20):
        curl.server.routes["/%d" % number] = http.slow(
            0.01 * (number % 3), http.answers(200, ["N: %d" % number]))
    payload = curl.payload("""
        $multi = curl_multi_init();
        for ($i = 0; $i < 20; $i++) {
            $chs[$i] = curl_init("$url/$i"); curl_setopt($chs[$i], CURLOPT_RETURNTRANSFER, 1);
            curl_multi_add_handle($multi, $chs[$i]);
        }
    """ + FINISH)
    assert {span["hn"].rpartition("/")[2]: span["ersh"]["N"] for span in transfers(payload)} == {
        str(number): "%d\r\n" % number for number in range(20)}


def test_handle_that_is_removed_and_added_again_tells_its_second_response(curl):
    curl.server.routes["/a"] = http.in_turn(
        http.answers(200, ["A: 1"]), http.answers(200, ["B: 2"]))
    payload = curl.payload(OPEN + MULTI + "curl_multi_remove_handle($multi, $ch);"
                           "curl_multi_add_handle($multi, $ch);" + FINISH)
    assert [span["ersh"] for span in transfers(payload)] == [
        {"A": "1\r\n", "Content-Length": "5\r\n"}, {"B": "2\r\n", "Content-Length": "5\r\n"}]


NONE_TOLD = {
    "refused": "curl_setopt($ch, CURLOPT_URL, 'http://127.0.0.1:1/');",
    "own callback": "curl_setopt($ch, CURLOPT_HEADERFUNCTION,"
                    " function ($ch, $line) { return strlen($line); });",
    "own callback in an array": "curl_setopt_array($ch, [CURLOPT_HEADERFUNCTION =>"
                                " function ($ch, $line) { return strlen($line); }]);",
    "own file": "curl_setopt($ch, CURLOPT_WRITEHEADER, fopen('php://memory', 'w'));",
    "reset": "curl_reset($ch); curl_setopt($ch, CURLOPT_URL, \"$url/a\");"
             "curl_setopt($ch, CURLOPT_RETURNTRANSFER, true);",
}


@pytest.mark.parametrize("way", list(WAYS))
@pytest.mark.parametrize("mode", ["headers", "both"])
@pytest.mark.parametrize("kind", list(NONE_TOLD))
def test_without_our_callback_none_are_told(curl, kind, mode, way):
    curl.server.routes["/a"] = http.answers(200, ["A: 1"])
    payload = curl.payload(OPEN + NONE_TOLD[kind] + WAYS[way][0], mode, output=b"")
    for span in (*calls(payload, "curl_exec"), *transfers(payload)):
        assert "ersh" not in span
    assert len(transfers(payload)) == (way != "alone" and kind != "refused")


@pytest.mark.parametrize("mode", ["neither", "trace"])
def test_none_are_told_with_the_setting_off(curl, mode):
    payload = curl.payload(OPEN + EXEC + MULTI, mode)
    for span in (payload.span("curl_exec"), *transfers(payload)):
        assert members(span, "hn", "esc").keys() <= {"fn", "cn", "pr", "ex", "ar"}


def test_setting_is_looked_at_when_a_handle_is_made_and_when_it_has_run(curl):
    on, off = ("ini_set('kaq.capture_httpcall_metadata', '%d');" % value for value in (1, 0))
    payload = curl.payload(OPEN + on + EXEC + OPEN + EXEC + off + EXEC, "neither")
    assert ["ersh" in span for span in calls(payload, "curl_exec")] == [False, True, False]


@pytest.mark.parametrize("way", list(WAYS))
def test_copy_of_a_handle_tells_its_own_response(curl, way):
    curl.server.routes.update({"/a": http.answers(200, ["A: 1"]),
                               "/b": http.answers(200, ["B: 2"])})
    payload = curl.payload(OPEN + """
        $original = $ch; $ch = curl_copy_handle($original);
        curl_setopt($ch, CURLOPT_URL, "$url/b");
    """ + WAYS[way][0] + "curl_exec($original);", "headers")
    spans = [span for span in payload.spans if span.get("ex")]
    assert {span["hn"][-1]: span["ersh"] for span in spans} == {
        "a": {"A": "1\r\n", "Content-Length": "5\r\n"},
        "b": {"B": "2\r\n", "Content-Length": "5\r\n"}}


def test_headers_that_a_script_has_in_its_output_are_told_too(curl):
    """CURLOPT_HEADER does not take the callback's place."""
    assert told(curl, http.answers(200, ["A: 1"]), source="curl_setopt($ch, CURLOPT_HEADER, 1);"
                ) == {"A": "1\r\n", "Content-Length": "5\r\n"}


@pytest.mark.parametrize("total", [200 << 10, 5 << 20])
def test_many_response_headers(curl, total):
    curl.server.routes["/a"] = http.many_headers(total)
    source = OPEN + "var_dump(strlen(curl_exec($ch)), curl_errno($ch));"
    run = curl.same(source, "both")
    headers = curl.collector.payload.span("curl_exec")["ersh"]
    assert headers["X-Filler-000000"] == "x" * 255
    assert len(headers) == (total // 1000 + 1 if b"int(5)" in run.result.stdout else len(headers))
