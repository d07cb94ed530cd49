"""What the collector costs, beside a bare epoll loop that answers the same: its handshakes, idle and
under load; payloads taken in a second; its memory; how fast it answers questions."""
import argparse
import base64
import json
import os
import pathlib
import random
import re
import shutil
import statistics
import subprocess
import sys
import tempfile
import time
import urllib.request

PORTS = re.compile(r"handshakes (\d+), payloads (\d+), http (\d+); store (.*)\n")
SPANS = 160
PAYLOADS = 400
START_SECONDS = 30
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
            name = "Shop\\Cart\\Handler%d::method%d" % (index % 7, index % 40)
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
    def __init__(self, program, directory, configuration=""):
        self.store = pathlib.Path(directory) / "store"
        self.store.mkdir()
        path = pathlib.Path(directory) / "collector.toml"
        path.write_text("[store]\n" + configuration)
        self.program = program
        self.process = subprocess.Popen(
            [program, "collect", "--handshake", "0", "--data", "0", "--http", "0", "--store",
             str(self.store), "--config", str(path)], stdout=subprocess.PIPE, text=True)
        found = PORTS.search(self.process.stdout.readline())
        self.handshake, self.data, self.http = (int(port) for port in found.groups()[:3])
        self.token = (self.store / "token").read_text().strip()

    def resident(self):
        """MiB."""
        status = pathlib.Path("/proc/%d/status" % self.process.pid).read_text()
        return int(re.search(r"VmRSS:\s+(\d+)", status).group(1)) / 1024

    def get(self, path):
        """(seconds, JSON) of a question."""
        request = urllib.request.Request("http://127.0.0.1:%d%s" % (self.http, path),
                                         headers={"Authorization": "Bearer " + self.token})
        begin = time.perf_counter()
        with urllib.request.urlopen(request, timeout=60) as answer:
            text = answer.read()
        return time.perf_counter() - begin, json.loads(text)

    def processor(self):
        """Seconds of processor time used so far."""
        fields = pathlib.Path("/proc/%d/stat" % self.process.pid).read_text().split()
        return (int(fields[13]) + int(fields[14])) / os.sysconf("SC_CLK_TCK")

    def stop(self):
        self.process.terminate()
        self.process.wait(30)


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

    def start_payloads(self, port, rate, seconds):
        return subprocess.Popen([self.program, "payloads", str(port), str(rate), str(seconds),
                                 self.payloads], stdout=subprocess.PIPE, text=True)

    @staticmethod
    def finish(process):
        """(sent, not taken, seconds)"""
        words = process.communicate(timeout=600)[0].split()
        return int(words[0]), int(words[1]), float(words[2])


def measure_handshakes(load, collector, rounds, count):
    """Paired: one round of each, in turn. Medians of p50 for collector and echo."""
    echo, port = load.start_echo()
    pairs = []
    try:
        load.handshakes(port, 200)
        load.handshakes(collector.handshake, 200)
        for _ in range(rounds):
            pairs.append((load.handshakes(collector.handshake, count),
                          load.handshakes(port, count)))
    finally:
        echo.terminate()
        echo.wait()
    return pairs


def under_load(load, collector, port, rate, seconds):
    sender = load.start_payloads(collector.data, rate, seconds)
    time.sleep(0.5)
    times = load.handshakes(port, int((seconds - 1.5) * 200), 4000)
    return times, load.finish(sender)


def measure_under_load(load, collector, rate, rounds, seconds):
    echo, port = load.start_echo()
    pairs = []
    try:
        for _ in range(rounds):
            mine, _ = under_load(load, collector, collector.handshake, rate, seconds)
            floor, _ = under_load(load, collector, port, rate, seconds)
            pairs.append((mine, floor))
    finally:
        echo.terminate()
        echo.wait()
    return pairs


def stored(collector):
    status = collector.get("/api/v1/status")[1]["store"]
    return status


def measure_rate(load, program, rate, seconds, keeps_all):
    """Sends at that rate; what became of it."""
    directory = tempfile.mkdtemp(prefix="kaq-bench-")
    collector = Collector(program, directory, "keep_all = %s\n" % ("true" if keeps_all else "false"))
    try:
        sent, refused, took = load.finish(load.start_payloads(collector.data, rate, seconds))
        deadline = time.monotonic() + 20
        while time.monotonic() < deadline and stored(collector)["requests_put"] < sent:
            time.sleep(0.2)
        time.sleep(1.5)
        status = stored(collector)
        _, top = collector.get("/api/v1/top?since=1h")
        return {"rate": rate, "seconds": took, "sent": sent, "refused": refused,
                "put": status["requests_put"], "kept": status["documents_kept"],
                "lost": status["requests_lost"],
                "counted": sum(row["count"] for row in top["rows"]),
                "resident": collector.resident(),
                "processor_us": collector.processor() / max(sent, 1) * 1e6}
    finally:
        collector.stop()
        shutil.rmtree(directory)


def ratio(pairs, index):
    return statistics.median(mine[index] / floor[index] for mine, floor in pairs)


def line(text, *values):
    print("  " + text % values, flush=True)


def report_handshakes(load, program, quick):
    directory = tempfile.mkdtemp(prefix="kaq-bench-")
    collector = Collector(program, directory)
    try:
        pairs = measure_handshakes(load, collector, 3 if quick else 15, 500 if quick else 2000)
        line("handshake, one client: p50 %.0f us, bare epoll loop %.0f us, ratio %.2f (target 1.5)",
             statistics.median(mine[0] for mine, _ in pairs),
             statistics.median(floor[0] for _, floor in pairs), ratio(pairs, 0))
        pairs = measure_under_load(load, collector, 1500, 1 if quick else 5, 4 if quick else 10)
        line("handshake while 1500 payloads/s come in: p99 %.0f us, bare epoll loop %.0f us, "
             "ratio %.2f (target 2)", statistics.median(mine[2] for mine, _ in pairs),
             statistics.median(floor[2] for _, floor in pairs), ratio(pairs, 2))
    finally:
        collector.stop()
        shutil.rmtree(directory)


def report_rates(load, program, quick):
    for rate, keeps_all in ((2500, True), (5000, False)):
        found = measure_rate(load, program, rate, 4 if quick else 20, keeps_all)
        line("%d payloads/s sent, %s: %.0f/s taken; %d sent, %d refused, %d put, %d counted, "
             "%d documents kept, %d lost; %.0f MiB resident; %.0f us of processor time each",
             rate, "every document kept" if keeps_all else "documents by rule",
             found["sent"] / found["seconds"], found["sent"], found["refused"], found["put"],
             found["counted"], found["kept"], found["lost"], found["resident"],
             found["processor_us"])


def main():
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("--program", required=True)
    parser.add_argument("--load", required=True)
    parser.add_argument("--quick", action="store_true")
    options = parser.parse_args()
    lines = [payload(seed) for seed in range(PAYLOADS)]
    with tempfile.NamedTemporaryFile("w", suffix=".payloads") as file:
        file.write("\n".join(lines) + "\n")
        file.flush()
        print("\ncollector: payloads of %d bytes, %d spans; sender and collector share the machine"
              % (statistics.mean(map(len, lines)), SPANS))
        load = Load(options.load, file.name)
        report_handshakes(load, options.program, options.quick)
        report_rates(load, options.program, options.quick)


if __name__ == "__main__":
    sys.exit(main())
