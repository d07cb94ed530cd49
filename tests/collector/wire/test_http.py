"""The collector's HTTP: who may ask, and the live feed."""
import gzip
import http.client
import json
import urllib.parse

import pytest

import sockets


def get(collector, path, headers=None, method="GET"):
    connection = http.client.HTTPConnection("127.0.0.1", collector.http, timeout=10)
    connection.request(method, path, headers=headers or {})
    return connection, connection.getresponse()


def status(collector, path, headers=None, method="GET"):
    connection, response = get(collector, path, headers, method)
    response.close()
    connection.close()
    return response.status


def bearer(collector):
    return {"Authorization": "Bearer " + collector.token}


def test_health_needs_no_token(collector):
    connection, response = get(collector, "/healthz")
    assert (response.status, response.read()) == (200, b"ok\n")
    assert response.getheader("Content-Security-Policy") == "default-src 'self'"
    assert response.getheader("Cache-Control") == "no-store"
    connection.close()


@pytest.mark.parametrize("path", ["/api/v1/live", "/api/v1/none", "/healthz/x", "/metrics"])
def test_all_else_needs_the_token(collector, path):
    assert status(collector, path) == 401
    assert status(collector, path, {"Authorization": "Bearer wrong"}) == 401
    for name in ("kaq_token", "kaq_session_%d" % collector.http):
        assert status(collector, path, {"Cookie": name + "=" + collector.token}) == 401
    assert status(collector, path, bearer(collector)) in (200, 404)


def test_another_sites_name_leads_nowhere(collector):
    assert status(collector, "/healthz", {"Host": "evil.example"}) == 421
    assert status(collector, "/", {**bearer(collector), "Host": "evil.example"}) == 421


def test_another_sites_page_may_not_ask(collector):
    assert status(collector, "/", {**bearer(collector), "Origin": "http://evil.example"}) == 403
    own = {"Origin": "http://127.0.0.1:%d" % collector.http}
    assert status(collector, "/", {**bearer(collector), **own}) == 200


def test_only_reading_is_known(collector):
    assert status(collector, "/", bearer(collector), "POST") == 405


def test_pages_need_no_token_and_tell_nothing(collector):
    for path in ("/", "/request?id=0000", "/anything"):
        connection, response = get(collector, path)
        assert response.status == 200
        assert response.getheader("Content-Type") == "text/html; charset=utf-8"
        assert response.getheader("Content-Security-Policy") == "default-src 'self'"
        body = response.read().decode()
        assert "<title>kaq</title>" in body and collector.token not in body
        connection.close()
    assert status(collector, "/none.js") == 404
    assert status(collector, "/a/b") == 401
    assert status(collector, "/", method="POST") == 405


def test_a_page_that_the_browser_has_is_not_sent_again(collector):
    connection, response = get(collector, "/app.js", {"Accept-Encoding": "gzip, br"})
    if response.status == 404:
        pytest.skip("the collector was built without its pages")
    packed = response.read()
    assert response.getheader("Content-Encoding") == "gzip"
    assert response.getheader("Cache-Control") == "no-cache"
    etag = response.getheader("ETag")
    connection.close()
    connection, response = get(collector, "/app.js")
    assert response.getheader("Content-Encoding") is None
    assert gzip.decompress(packed) == response.read()
    connection.close()
    connection, response = get(collector, "/app.js", {"If-None-Match": etag})
    assert (response.status, response.read()) == (304, b"")
    connection.close()


def test_a_head_that_is_too_long_is_refused(collector):
    assert status(collector, "/healthz", {"X-Long": "x" * 20000}) == 413


def test_the_token_is_for_the_owner_alone(collector):
    assert (collector.store / "token").stat().st_mode & 0o077 == 0
    assert len(collector.token) == 48


def test_the_live_feed_tells_each_request(collector):
    connection, response = get(collector, "/api/v1/live", bearer(collector))
    assert response.status == 200
    assert response.getheader("Content-Type") == "text/event-stream"
    assert response.readline() == b": kaq\n"
    sockets.send(collector.data, sockets.payload("/live"))
    assert response.readline() == b"\n"
    assert b'"path":"/live"' in response.readline()
    response.close()
    connection.close()


def live(collector, query):
    path = "/api/v1/live?" + urllib.parse.urlencode({"q": query})
    return get(collector, path, bearer(collector))


def test_the_live_feed_tells_what_was_asked_for(collector):
    connection, response = live(collector, "path:/cart* (sql:\"FROM product\" OR >=900ms)")
    assert response.status == 200
    assert response.readline() == b": kaq\n"
    statement = {"fn": "PDO::query", "cn": "PDO", "qs": "SELECT a FROM product"}
    sockets.send(collector.data, sockets.payload("/cart/1"))
    sockets.send(collector.data, sockets.payload("/cart/2", spans=[statement]))
    sockets.send(collector.data, sockets.payload("/list", spans=[statement]))
    sockets.send(collector.data, sockets.payload("/cart/3", e_time=2000))
    # Several threads read payloads: what ends at the same time may be told in any order.
    told = [response.readline() for _ in range(4)]
    paths = {json.loads(line[len(b"data: "):])["path"] for line in told if line.startswith(b"data")}
    assert paths == {"/cart/2", "/cart/3"}
    response.close()
    connection.close()


@pytest.mark.parametrize("query, column", [("app:a tnx:b", 7), ("since:1h", 7), ("(", 2)])
def test_a_query_with_a_mistake_is_refused_with_its_place(collector, query, column):
    connection, response = live(collector, query)
    assert response.status == 400
    assert [each["column"] for each in json.load(response)["error"]["mistakes"]] == [column]
    connection.close()


def test_many_live_feeds_do_not_keep_others_from_an_answer(collector):
    feeds = [get(collector, "/api/v1/live", bearer(collector)) for _ in range(100)]
    try:
        assert status(collector, "/healthz") == 200
    finally:
        for connection, response in feeds:
            response.close()
            connection.close()


def test_a_feed_that_is_not_read_does_not_hold_up_the_ports(collector):
    connection, response = get(collector, "/api/v1/live", bearer(collector))
    line = sockets.payload("/big", http_query_str="x")
    for _ in range(50):
        sockets.send(collector.data, line * 100)
    assert sockets.ask(collector.handshake, sockets.handshake())
    assert status(collector, "/healthz") == 200
    response.close()
    connection.close()
