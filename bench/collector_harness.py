"""A collector of its own for a benchmark, the load on it, and requests to send."""
import base64
import json
import os
import pathlib
import random
import re
import shutil
import subprocess
import tempfile
import time
import urllib.parse
import urllib.request

PORTS = re.compile(r"handshakes (\d+), payloads (\d+), http (\d+); store (.*)\n")
SPANS = 160
PATIENCE = 5  # seconds without another request
TOGETHER = 10000
STATEMENTS = ["SELECT p.id, p.name, p.price FROM product p WHERE p.category_id = %d ORDER BY p.name",
              "SELECT * FROM cart_item WHERE cart_id = %d",
              "UPDATE session SET seen_at = %d WHERE id = 'abc'",
              "SELECT value FROM setting WHERE name = 'currency' AND shop_id = %d"]


def span(number, start, end, name, component, more=None):
    return {"st": start, "et": end, "mo": 0, "fn": name, "cn": component, "si": "%016x" % number,
            **(more or {})}


def payload(seed):
    """A line as the extension sends it: one request with 160 spans, 31 KB."""
    pick = random.Random(seed)
    start = int(time.time() * 1000) - 1000 + seed
    duration = int(pick.lognormvariate(4.5, 0.8))
    root = pick.getrandbits(64)
    spans = [span(root, start, start + duration, "main", "PHP")]
    for index in range(SPANS - 1):
        begin = start + index * duration // SPANS
        kind = index % 4
        if kind == 0:
            more = {"qs": STATEMENTS[index % len(STATEMENTS)] % pick.randrange(100000), "ex": 1,
                    "psi": "%016x" % root, "mo": index + 1}
            spans.append(span(pick.getrandbits(64), begin, begin + 1, "PDO::query", "PDO", more))
        else:
            name = "Shop\\Cart%d::step%d" % (index % 7, index % 40)
            spans.append(span(pick.getrandbits(64), begin, begin + 2, name, "PHP",
                              {"psi": "%016x" % root, "mo": index + 1}))
    document = {"apm": {"data": True,
                        "application_info": {"application_type": "PHP",
                                             "application_name": "shop%d" % (seed % 3),
                                             "application_group": "", "instance_id": "i1"},
                        "transaction_info": {
                            "t_name": "/shop/%s/%d" % (pick.choice(["cart", "product", "search"]),
                                                       pick.randrange(1000)),
                            "http_host": "shop.example", "s_time": start, "e_time": start + duration,
                            "http_method_name": "GET", "bytes_in": 0, "bytes_out": 5120,
                            "transaction_type": 1, "thread_id": 4242, "httpcode": 200,
                            "cputime": duration // 2, "memalloc": 4194304,
                            "trace_id": "%032x" % pick.getrandbits(128),
                            "http_headers": {"Host": "shop.example", "Accept": "text/html",
                                             "User-Agent": "Mozilla/5.0 (X11; Linux x86_64)"}},
                        "method_info": {"span_info": spans}, "app_parameters": {}}}
    return base64.b64encode(json.dumps(document, separators=(",", ":")).encode()).decode()


class Collector:
    """With a store of its own, which goes with it."""

    def __init__(self, program, store_options="", wrapper=()):
        self.directory = pathlib.Path(tempfile.mkdtemp(prefix="kaq-bench-"))
        self.store = self.directory / "store"
        self.store.mkdir()
        path = self.directory / "collector.toml"
        path.write_text("[store]\n" + store_options)
        self.process = subprocess.Popen(
            [*wrapper, program, "collect", "--handshake", "0", "--data", "0", "--http", "0",
             "--store", str(self.store), "--config", str(path)], stdout=subprocess.PIPE, text=True)
        found = PORTS.search(self.process.stdout.readline())
        self.handshake, self.data, self.http = (int(port) for port in found.groups()[:3])
        self.token = (self.store / "token").read_text().strip()

    def resident(self):
        """MiB."""
        status = pathlib.Path("/proc/%d/status" % self.process.pid).read_text()
        return int(re.search(r"VmRSS:\s+(\d+)", status).group(1)) / 1024

    def get(self, path, **parameters):
        """(seconds, JSON) of a question."""
        url = "http://127.0.0.1:%d%s?%s" % (self.http, path, urllib.parse.urlencode(parameters))
        request = urllib.request.Request(url, headers={"Authorization": "Bearer " + self.token})
        begin = time.perf_counter()
        with urllib.request.urlopen(request, timeout=60) as answer:
            text = answer.read()
        return time.perf_counter() - begin, json.loads(text)

    def processor(self):
        """Seconds of processor time used so far."""
        fields = pathlib.Path("/proc/%d/stat" % self.process.pid).read_text().split()
        return (int(fields[13]) + int(fields[14])) / os.sysconf("SC_CLK_TCK")

    def stored(self):
        return self.get("/api/v1/status")[1]["store"]

    def wait_for(self, requests):
        """Until so many were put and can be read, or no more come."""
        put, since = -1, time.monotonic()
        while put < requests and time.monotonic() - since < PATIENCE:
            now = self.stored()["requests_put"]
            if now != put:
                put, since = now, time.monotonic()
            time.sleep(0.05)
        time.sleep(1.5)

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.process.terminate()
        try:
            self.process.wait(60)
        finally:
            self.process.kill()
            shutil.rmtree(self.directory)


class Load:
    def __init__(self, program, payloads):
        self.program, self.payloads = program, payloads

    def start_echo(self):
        process = subprocess.Popen([self.program, "echo"], stdout=subprocess.PIPE, text=True)
        return process, int(process.stdout.readline())

    def handshakes(self, port, count, pause=0):
        """Microseconds at 50, 90, 99 and 100 %."""
        done = subprocess.run([self.program, "handshakes", str(port), str(count), str(pause)],
                              stdout=subprocess.PIPE, text=True, check=True, timeout=600)
        return [float(text) for text in done.stdout.split()]

    def fill(self, collector, count, seconds):
        """Small requests, spread over the time before now, no faster than they are taken."""
        refused = 0
        for begin in range(0, count, TOGETHER):
            end = min(begin + TOGETHER, count)
            words = (self.program, "fill", collector.data, begin, end, count, seconds)
            refused += self.finish(subprocess.Popen([str(word) for word in words],
                                                    stdout=subprocess.PIPE, text=True))[1]
            while collector.stored()["requests_put"] < begin - refused:
                time.sleep(0.02)
        return refused

    def start_payloads(self, port, rate, seconds):
        return subprocess.Popen([self.program, "payloads", str(port), str(rate), str(seconds),
                                 self.payloads], stdout=subprocess.PIPE, text=True)

    @staticmethod
    def finish(process):
        """(sent, not taken, seconds)"""
        words = process.communicate(timeout=600)[0].split()
        return int(words[0]), int(words[1]), float(words[2])
