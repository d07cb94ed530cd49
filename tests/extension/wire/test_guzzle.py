"""The Guzzle library, and a script that uses curl the way it does, where the library is too new."""
import os

import pytest
from curl_runs import (MODES, caller_of, calls, curl, server, trace_lines, transfers)
import http_server as http

__all__ = ["curl", "server"]

PACKAGES = "/usr/share/php"
LIBRARY = PACKAGES + "/GuzzleHttp/autoload.php"
OLDEST_ENGINE = 70205

START = """
    set_include_path('%s'); require '%s';
    $client = new GuzzleHttp\\Client(['base_uri' => $url, 'timeout' => 5]);
    $tell = function ($answer) {
        echo $answer->getStatusCode(), json_encode($answer->getHeaders()), $answer->getBody();
        echo "\\n";
    };
""" % (PACKAGES, LIBRARY)


@pytest.fixture
def library(engine, server):
    if engine.version_id < OLDEST_ENGINE:
        pytest.skip("the library needs PHP 7.2.5")
    assert os.path.exists(LIBRARY), "the package php-guzzlehttp-guzzle is not installed"
    pages(server)


def pages(server):
    server.routes.update({
        "/a": http.answers(200, ["A: 1", "Set-Cookie: k=v"], b"body of a"),
        "/missing": http.answers(404, ["B: 2"], b"none"),
        "/moved": http.redirects("/a", 302), "/slow": http.slow(0.1, http.answers(200, ["S: 1"])),
        "/broken": http.resets(), "/never": http.never_answers(),
        "/chunks": http.answers_in_chunks(b"one ", b"two"),
    })


GUZZLE = {
    "one request": "$tell($client->get('/a'));",
    "several, one after another": "for ($i = 0; $i < 6; $i++) { $tell($client->get('/a')); }",
    "own headers": "$tell($client->get('/a', ['headers' => ['A' => '1',"
                   "'B' => ['2', '3']]]));",
    "body": "$tell($client->post('/a', ['json' => ['k' => 'v']]));"
            "$tell($client->put('/a', ['body' => str_repeat('x', 300000)]));",
    "redirect": "$tell($client->get('/moved'));",
    "refused": "try { $client->get('http://127.0.0.1:1/'); }"
               "catch (GuzzleHttp\\Exception\\ConnectException $e) { echo get_class($e); }",
    "status as an exception": "try { $client->get('/missing'); }"
                              "catch (GuzzleHttp\\Exception\\ClientException $e) {"
                              "$tell($e->getResponse()); }",
    "reset": "try { $client->get('/broken'); }"
             "catch (GuzzleHttp\\Exception\\TransferException $e) { echo get_class($e); }",
    "time-out": "try { $client->get('/never', ['timeout' => 0.6]); }"
                "catch (GuzzleHttp\\Exception\\TransferException $e) { echo get_class($e); }",
    "callbacks": "$client->get('/a', ['on_headers' => $tell, 'on_stats' => function ($s) {"
                 "echo $s->getEffectiveUri()->getPath(); }, 'progress' => function () {},"
                 "'sink' => fopen('php://memory', 'w')]);",
    "callback that throws": "try { $client->get('/a', ['on_headers' => function () {"
                            "throw new Exception('mine'); }]); } catch (Exception $e) {"
                            "echo get_class($e), get_class($e->getPrevious()); }",
    "stream": "$answer = $client->get('/chunks', ['sink' => fopen('php://temp', 'w+')]);"
              "$tell($answer);",
    "promises": "$all = []; foreach (['/a', '/slow', '/missing', '/a', '/moved'] as $path) {"
                "$all[$path . count($all)] = $client->getAsync($path, ['http_errors' => false]); }"
                "foreach (GuzzleHttp\\Promise\\Utils::unwrap($all) as $p => $answer) {"
                "echo $p; $tell($answer); }",
    "pool": "$told = []; $requests = function () { for ($i = 0; $i < 12; $i++) {"
            "yield new GuzzleHttp\\Psr7\\Request('GET', $i % 3 ? '/a' : '/slow', ['N' => $i]); } };"
            "$pool = new GuzzleHttp\\Pool($client, $requests(), ['concurrency' => 4, 'fulfilled' =>"
            "function ($answer, $i) use (&$told) { $told[$i] = $answer->getStatusCode(); }]);"
            "$pool->promise()->wait(); ksort($told); echo json_encode($told);",
    "cancelled": "$p = $client->getAsync('/slow'); $p->cancel(); echo $p->getState();"
                 "$tell($client->get('/a'));",
    "promises and requests by turns": "for ($i = 0; $i < 3; $i++) {"
                                      "$p = $client->getAsync('/slow'); $tell($client->get('/a'));"
                                      "$tell($p->wait()); }",
}


@pytest.mark.parametrize("kind", list(GUZZLE))
def test_library_does_the_same(library, curl, kind):
    run = curl.same(START + GUZZLE[kind], *MODES, "unmonitored")
    assert run.result.status == 0 and run.result.stdout, run.result


@pytest.mark.parametrize("mode", ["trace", "both"])
def test_calls_of_the_library_name_their_spans(library, curl, mode):
    payload = curl.payload(START + GUZZLE["several, one after another"] + GUZZLE["pool"]
                           + GUZZLE["promises"] + GUZZLE["own headers"], mode)
    alone, async_ = calls(payload, "curl_exec"), transfers(payload)
    assert len(alone) == 7 and len(async_) == 12 + 6
    spans = {span["si"]: span for span in alone + async_}
    assert len(curl.requests) == len(spans) == len({caller_of(one) for one in curl.requests})
    for request in curl.requests:
        span = spans[caller_of(request)]
        assert span["hn"] == curl.server.url + http.path_of(request)
        assert len(trace_lines(request)) == 2
        if mode == "both":
            assert span["erqh"]["User-Agent"] in http.values_of(request, "User-Agent")
            assert "X-Skelvor-Id" not in span["erqh"]
    assert {http.path_of(one) for one in curl.requests if spans[caller_of(one)].get("ar")} == {
        "/a", "/slow", "/missing", "/moved"}


# Handles are kept, and cleaned the way the library cleans them, up to three of them.
FACTORY = """
    class Factory {
        private $kept = [];
        function create($url, array $headers, &$body) {
            $ch = $this->kept ? array_pop($this->kept) : curl_init();
            curl_setopt_array($ch, [
                CURLOPT_URL => $url, CURLOPT_RETURNTRANSFER => false, CURLOPT_HEADER => false,
                CURLOPT_CONNECTTIMEOUT => 5, CURLOPT_CUSTOMREQUEST => 'GET',
                CURLOPT_HTTP_VERSION => CURL_HTTP_VERSION_1_1, CURLOPT_HTTPHEADER => $headers,
                CURLOPT_HEADERFUNCTION => function ($ch, $line) { return strlen($line); },
                CURLOPT_WRITEFUNCTION => function ($ch, $data) use (&$body) {
                    $body .= $data; return strlen($data); }]);
            return $ch;
        }
        function release($ch) {
            if (count($this->kept) >= 3) { curl_close($ch); return; }
            foreach ([CURLOPT_HEADERFUNCTION, CURLOPT_READFUNCTION, CURLOPT_WRITEFUNCTION,
                      CURLOPT_PROGRESSFUNCTION] as $callback) { curl_setopt($ch, $callback, null); }
            curl_reset($ch); $this->kept[] = $ch;
        }
    }
    $factory = new Factory; $bodies = [];
    $alone = function ($path, $headers) use ($factory, $url) {
        $body = ''; $ch = $factory->create($url . $path, $headers, $body); curl_exec($ch);
        echo curl_errno($ch), curl_getinfo($ch)['http_code'], $body, "\\n";
        $factory->release($ch);
    };
    $together = function (array $paths, $headers) use ($factory, $url) {
        $multi = curl_multi_init(); $running = []; $bodies = [];
        foreach ($paths as $i => $path) {
            $bodies[$i] = ''; $ch = $factory->create($url . $path, $headers($i), $bodies[$i]);
            curl_multi_add_handle($multi, $ch); $running[(string)$i] = $ch;
        }
        $deadline = microtime(true) + 10;
        while ($running && microtime(true) < $deadline) {
            if (curl_multi_select($multi, 0.02) === -1) { usleep(250); }
            while (curl_multi_exec($multi, $active) === CURLM_CALL_MULTI_PERFORM);
            while ($done = curl_multi_info_read($multi)) {
                $i = array_search($done['handle'], $running, true);
                curl_multi_remove_handle($multi, $done['handle']);
                $bodies[$i] = $done['result'] . $bodies[$i];
                unset($running[$i]); $factory->release($done['handle']);
            }
        }
        echo json_encode($bodies), "\\n"; curl_multi_close($multi);
    };
    $alone('/a', ['A: 1']); $alone('/missing', []); $alone('/a', ['B: 2', 'Other: x']);
    $together(['/a', '/slow', '/missing', '/a', '/slow'], function ($i) { return ["N: $i"]; });
    $alone('/a', []); $alone('/a', ['C: 3']);
    $together(['/slow', '/a'], function ($i) { return $i ? [] : ['M: 0']; });
"""


def test_script_in_the_manner_of_the_library_does_the_same(server, curl):
    pages(server)
    run = curl.same(FACTORY, *MODES, "unmonitored")
    assert run.result.status == 0 and len(run.requests) == 12, run.result


@pytest.mark.parametrize("mode", ["trace", "both"])
def test_calls_in_the_manner_of_the_library_name_their_spans(server, curl, mode):
    pages(server)
    payload = curl.payload(FACTORY, mode)
    spans = {span["si"]: span for span in calls(payload, "curl_exec") + transfers(payload)}
    assert len(transfers(payload)) == 7 and len(spans) == 12
    for request in curl.requests:
        span = spans.pop(caller_of(request))
        assert span["hn"] == curl.server.url + http.path_of(request)
        assert len(trace_lines(request)) == 2
    assert spans == {}
