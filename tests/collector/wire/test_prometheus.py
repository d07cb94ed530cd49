"""Debian's Prometheus scrapes the collector, and the rules and the dashboard find what they ask for."""
import json
import os
import pathlib
import signal
import socket
import subprocess
import time
import urllib.error
import urllib.parse
import urllib.request

import pytest

import conftest
import sockets
import test_figures

SECONDS = 60
HERE = pathlib.Path(__file__).resolve().parent
FILES = HERE.parents[2] / "packaging" / "prometheus"
CONFIGURATION = """
global: {scrape_interval: 1s, evaluation_interval: 1s}
rule_files: [%s]
scrape_configs:
  - job_name: kaq
    authorization: {credentials_file: %s}
    static_configs: [{targets: ["127.0.0.1:%d"]}]
"""


def program(name):
    directory = os.environ.get("KAQ_PROMETHEUS")
    if not directory:
        pytest.skip("there is no Prometheus")
    return str(pathlib.Path(directory) / "usr" / "bin" / name)


class Prometheus:
    """The one that scrapes a collector."""

    def __init__(self, collector, directory):
        configuration = directory / "prometheus.yml"
        configuration.write_text(CONFIGURATION % (
            FILES / "kaq.rules.yml", collector.store / "token", collector.http))
        with socket.socket() as free:
            free.bind(("127.0.0.1", 0))
            self.port = free.getsockname()[1]
        self.process = subprocess.Popen(
            [program("prometheus"), "--config.file", str(configuration), "--storage.tsdb.path",
             str(directory / "data"), "--web.listen-address", "127.0.0.1:%d" % self.port,
             "--web.console.libraries", str(directory), "--web.console.templates", str(directory)],
            stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)

    def ask(self, path, **parameters):
        url = "http://127.0.0.1:%d/api/v1/%s?%s" % (
            self.port, path, urllib.parse.urlencode(parameters))
        with urllib.request.urlopen(url, timeout=SECONDS) as response:
            answer = json.load(response)
        assert answer["status"] == "success"
        return answer["data"]

    def values(self, expression):
        """Of each series, by its labels."""
        return {tuple(sorted(each["metric"].items())): float(each["value"][1])
                for each in self.ask("query", query=expression)["result"]}

    def until(self, expression, holds):
        deadline = time.monotonic() + SECONDS
        while True:
            try:
                values = self.values(expression)
                if holds(values):
                    return values
            except (OSError, urllib.error.URLError):
                values = None  # It still starts.
            assert time.monotonic() < deadline, (expression, values)
            time.sleep(0.2)

    def stop(self):
        self.process.send_signal(signal.SIGTERM)
        try:
            self.process.wait(timeout=SECONDS)
        except subprocess.TimeoutExpired:
            self.process.kill()
            self.process.wait()


@pytest.fixture
def prometheus(collector, tmp_path):
    directory = tmp_path / "prometheus"
    directory.mkdir()
    running = Prometheus(collector, directory)
    yield running
    running.stop()


def expressions():
    dashboard = json.loads((FILES / "kaq-dashboard.json").read_text())
    for panel in dashboard["panels"]:
        for target in panel["targets"]:
            expression = target["expr"].replace("$application", ".*")
            for name in ("$__rate_interval", "$__range"):
                expression = expression.replace(name, "1m")
            assert "$" not in expression
            yield panel["title"], expression


def test_it_has_what_was_sent_and_the_dashboard_shows_it(collector, prometheus):
    sent = test_figures.lines(50)
    prometheus.until("up", lambda values: list(values.values()) == [1])
    for line in sent:
        sockets.ask(collector.handshake, sockets.handshake())
        sockets.send(collector.data, line)
    counted = prometheus.until("sum(kaq_requests_total)",
                               lambda values: list(values.values()) == [len(sent)])
    assert len(counted) == 1
    # A rate needs a second look at what has grown since the first.
    for line in test_figures.lines(50, seed=2):
        sockets.ask(collector.handshake, sockets.handshake())
        sockets.send(collector.data, line)
    prometheus.until("sum(kaq_requests_total)",
                     lambda values: list(values.values()) == [2 * len(sent)])
    shown = {}
    for title, expression in expressions():
        shown.setdefault(title, {}).update(
            prometheus.until(expression, lambda values: values != {}))
    assert len(shown) == 10
    requests = {dict(labels)["application"]: value for labels, value in shown["Requests"].items()}
    assert requests and all(value > 0 for value in requests.values())
    bars = shown["Transactions by the time that they take"]
    names = {each["t_name"] for line in sent for each in test_figures.read(line)[:1]}
    assert {dict(labels)["transaction"] for labels in bars} == {
        test_figures.NAMES[name] for name in names}


def test_a_collector_that_is_gone_is_told(tmp_path):
    program("prometheus")
    (tmp_path / "store").mkdir()
    collector = conftest.Collector(os.environ["KAQ_COLLECTOR"], tmp_path / "store")
    prometheus = Prometheus(collector, tmp_path)
    try:
        prometheus.until("up", lambda values: list(values.values()) == [1])
        assert prometheus.values("ALERTS") == {}
        assert collector.stop() == (0, "")
        prometheus.until('ALERTS{alertname="KaqCollectorDown"}', lambda values: values != {})
    finally:
        prometheus.stop()
        if collector.process.poll() is None:
            collector.stop()


def test_each_rule_says_what_it_is_for_and_nothing_else():
    done = subprocess.run(
        [program("promtool"), "test", "rules", str(HERE / "prometheus_rules.yml")],
        capture_output=True, text=True, timeout=SECONDS)
    assert done.returncode == 0, done.stdout + done.stderr
    checked = subprocess.run([program("promtool"), "check", "rules", str(FILES / "kaq.rules.yml")],
                             capture_output=True, text=True, timeout=SECONDS)
    assert checked.returncode == 0 and "SUCCESS" in checked.stdout


def test_each_alert_is_tested():
    text = (FILES / "kaq.rules.yml").read_text()
    tested = (HERE / "prometheus_rules.yml").read_text()
    alerts = [line.split(":")[1].strip() for line in text.splitlines() if "- alert:" in line]
    assert len(alerts) == 8
    assert [name for name in alerts if "alertname: %s\n        exp_alerts" % name not in tested] == []
