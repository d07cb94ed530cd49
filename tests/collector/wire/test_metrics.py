"""/metrics, as a program that watches the collector reads it."""
import http.client
import pathlib
import re
import time

import pytest
from prometheus_client.parser import text_string_to_metric_families

import sockets
import test_figures

SECONDS = 30
DOCUMENT = pathlib.Path(__file__).resolve().parents[3] / "docs" / "figures.md"
BUCKETS = [0.005, 0.01, 0.025, 0.05, 0.075, 0.1, 0.25, 0.5, 0.75, 1, 2.5, 5, 7.5, 10, 30]


def scrape(collector, token=None):
    connection = http.client.HTTPConnection("127.0.0.1", collector.http, timeout=SECONDS)
    connection.request("GET", "/metrics",
                       headers={"Authorization": "Bearer " + (token or collector.token)})
    response = connection.getresponse()
    body = response.read().decode()
    connection.close()
    return response, body


def families(collector):
    response, body = scrape(collector)
    assert response.status == 200
    assert response.getheader("Content-Type").startswith("text/plain; version=0.0.4")
    found = {family.name: family for family in text_string_to_metric_families(body)}
    assert len(found) == body.count("# TYPE ") == body.count("# HELP ")
    return found


def samples(collector):
    """Values by name and labels."""
    return {(sample.name, tuple(sorted(sample.labels.items()))): sample.value
            for family in families(collector).values() for sample in family.samples}


def until(collector, name, value, **labels):
    key = (name, tuple(sorted(labels.items())))
    deadline = time.monotonic() + SECONDS
    while samples(collector).get(key) != value:
        assert time.monotonic() < deadline, (key, samples(collector).get(key))
        time.sleep(0.1)
    return samples(collector)


def test_requests_are_told_as_they_were_sent(collector):
    sent = test_figures.lines(1000)
    sockets.send(collector.data, b"".join(sent))
    by_name = {}
    for line in sent:
        request = test_figures.read(line)
        by_name.setdefault(test_figures.NAMES[request[0]["t_name"]], []).append(request)
    told = until(collector, "kaq_transactions_total", len(sent))
    for name, requests in by_name.items():
        labels = (("application", "Shop"), ("transaction", name))
        expected = test_figures.Recomputed(requests)
        count = len(expected.durations)
        assert told["kaq_requests_total", labels] == count
        assert told["kaq_request_errors_total", labels] == expected.failed
        assert told["kaq_request_duration_seconds_count", labels] == count
        assert told["kaq_request_duration_seconds_sum", labels] == pytest.approx(
            sum(expected.durations) / 1000)
        buckets = {dict(key[1])["le"]: value for key, value in told.items()
                   if key[0] == "kaq_request_duration_seconds_bucket"
                   and dict(key[1])["transaction"] == name}
        assert {float(end): value for end, value in buckets.items()} == {
            **{end: sum(each <= end * 1000 for each in expected.durations) for end in BUCKETS},
            float("inf"): count}


def test_its_own_health_is_told(collector):
    for _ in range(7):
        sockets.ask(collector.handshake, sockets.handshake())
    sockets.send(collector.data, b"no payload\n")
    sockets.send(collector.data, sockets.payload("/a"))
    told = until(collector, "kaq_requests_asked_total", 7, application="Shop")
    assert told["kaq_requests_monitored_total", (("application", "Shop"),)] == 7
    told = until(collector, "kaq_transactions_total", 1)
    assert told["kaq_handshakes_answered_total", ()] >= 7
    assert told["kaq_payloads_received_total", ()] == 2
    assert told["kaq_payloads_unreadable_total", (("reason", "not-base64"),)] == 1
    assert told["kaq_store_requests_total", ()] == 1
    assert told["kaq_store_writable", ()] == 1
    assert told["kaq_store_limit_bytes", (("kept", "requests"),)] == 2 << 30
    assert told["kaq_load_share_ratio", ()] == 1
    told = until(collector, "kaq_store_files", 1)
    assert told["kaq_store_bytes", (("kept", "requests"),)] > 0
    assert ("kaq_handshake_latency_seconds", (("quantile", "0.99"),)) in told


@pytest.mark.parametrize("port, own", [("handshake", 0), ("data", 0), ("http", 1)])
def test_open_connections_are_told_by_port(collector, port, own):
    # The one that asks is one more. Those that say nothing are ended in time: then once more.
    deadline = time.monotonic() + SECONDS
    told = None
    while told != 3 + own:
        assert time.monotonic() < deadline, told
        until(collector, "kaq_connections", own, port=port)
        held = [sockets.connect(getattr(collector, port)) for _ in range(3)]
        told = samples(collector)["kaq_connections", (("port", port),)]
        for connection in held:
            connection.close()
    until(collector, "kaq_connections", own, port=port)


def test_whatever_names_hold_it_can_be_parsed(collector):
    name = '/a"b\\c\nd{e="f"} 1'
    sockets.send(collector.data, sockets.payload(name))
    told = until(collector, "kaq_requests_total", 1, application="Shop", transaction=name)
    assert told["kaq_request_duration_seconds_count",
                (("application", "Shop"), ("transaction", name))] == 1


def test_counters_never_go_back(collector):
    before = {}
    for round_ in range(4):
        sockets.send(collector.data, b"".join(test_figures.lines(50, seed=round_ + 1)))
        sockets.ask(collector.handshake, sockets.handshake())
        until(collector, "kaq_transactions_total", 50 * (round_ + 1))
        now = {(sample.name, tuple(sorted(sample.labels.items()))): sample.value
               for family in families(collector).values() if family.type in ("counter", "histogram")
               for sample in family.samples}
        assert set(before) <= set(now)
        assert all(now[key] >= value for key, value in before.items())
        before = now
    assert before["kaq_transactions_total", ()] == 200


def test_there_are_only_so_many_names(collector):
    sent = [sockets.payload("/p" + chr(97 + i // 26) + chr(97 + i % 26) + chr(97 + i // 676))
            for i in range(600)]
    sockets.send(collector.data, b"".join(sent))
    told = until(collector, "kaq_transactions_total", 600)
    requests = {key[1]: value for key, value in told.items() if key[0] == "kaq_requests_total"}
    assert len(requests) == 501
    assert sum(requests.values()) == 600
    assert requests[("application", "(other)"), ("transaction", "(other)")] == 100


def test_the_document_names_each(collector):
    sockets.ask(collector.handshake, sockets.handshake())
    sockets.send(collector.data, sockets.payload("/a"))
    until(collector, "kaq_requests_asked_total", 1, application="Shop")
    until(collector, "kaq_transactions_total", 1)
    _, body = scrape(collector)
    assert set(re.findall(r"# TYPE (\w+)", body)) == set(
        re.findall(r"`(kaq_\w+)`", DOCUMENT.read_text()))


def test_it_needs_the_token(collector):
    response, body = scrape(collector, token="wrong")
    assert response.status == 401
    assert "kaq_" not in body
