"""Runs a collector under a mixed load for minutes on end, says every minute how it is, and fails when
a bound does not hold; kills it again and again afterwards, to see what that costs."""
import argparse
import base64
import json
import os
import pathlib
import random
import shutil
import signal
import socket
import statistics
import subprocess
import sys
import tempfile
import threading
import time
import urllib.error

import collector_harness

RATE = 600  # payloads in a second
PAYLOADS = 400
CAP_MIB, PARTITION_MIB, FIGURES_MIB = 768, 48, 64
CONFIGURATION = """size_cap = "%dMiB"
partition_size = "%dMiB"
rollup_cap = "%dMiB"
documents_last = "1h"
""" % (CAP_MIB, PARTITION_MIB, FIGURES_MIB)
MOST_RESIDENT = 256  # MiB
MOST_DESCRIPTORS = 300
MOST_RATIO = 2  # of handshakes to those of a bare loop at the same time, at 99 %
MOST_START = 1  # second, after a kill
MOST_LOST = 1  # second, by a kill
SETTLED = 2  # minutes, after which bounds of memory hold
KILLS = 10
QUESTIONS = [("top", {"from": "1h"}), ("requests", {"q": ">300ms"}),
             ("requests", {"q": 'sql:"FROM product"', "from": "10m"}), ("queries", {"from": "1h"}),
             ("errors", {}), ("calls", {}), ("status", {}), ("requests", {"q": "path:/shop/cart*"})]
ALL = {"from": "24h", "limit": 10000}


class Bounds:
    """What does not hold is said at once and counted."""

    def __init__(self):
        self.broken = 0

    def expect(self, holds, text):
        if not holds:
            self.broken += 1
            print("  DOES NOT HOLD: " + text, flush=True)


def send(port, line):
    """To the end, as the extension does; false if it was not taken."""
    try:
        with socket.create_connection(("127.0.0.1", port), timeout=10) as connection:
            connection.sendall(line)
            connection.shutdown(socket.SHUT_WR)
            while connection.recv(65536):
                pass
    except ConnectionResetError:
        return True
    except OSError:
        return False
    return True


def nonsense(pick):
    """A line that nobody means, of one of several kinds."""
    def coded(text):
        return base64.b64encode(text) + b"\n"
    whole = base64.b64decode(collector_harness.payload(pick.randrange(1000)))
    at = pick.randrange(len(whole))
    return pick.choice([
        lambda: os.urandom(pick.randrange(1, 100000)) + b"\n",
        lambda: coded(whole[:at]),
        lambda: coded(whole[:at] + os.urandom(8) + whole[at + 8:]),
        lambda: coded(b"[" * pick.randrange(1, 2000000)),
        lambda: coded(b'{"apm":{"a":[' + b"0," * pick.randrange(1, 3000000) + b"0]}}"),
        lambda: coded(whole)[:at],
        lambda: b"message:\tRequest ended. No data collected since instance is disabled\n",
    ])()


class Companions:
    """Who else talks to the collector: what asks questions, sends nonsense, or says nothing."""

    def __init__(self, collector):
        self.collector = collector
        self.ending = threading.Event()
        self.asked = self.unanswered = self.sent = 0
        self.threads = [threading.Thread(target=each) for each in
                        (self.ask, self.send_nonsense, self.say_nothing)]
        for thread in self.threads:
            thread.start()

    def ask(self):
        pick = random.Random(1)
        while not self.ending.wait(1):
            self.asked += 1
            try:
                path, words = pick.choice(QUESTIONS)
                self.collector.get("/api/v1/" + path, **words)
            except (OSError, ValueError, urllib.error.URLError):
                self.unanswered += 1

    def send_nonsense(self):
        pick = random.Random(2)
        while not self.ending.wait(0.2):
            send(self.collector.data, nonsense(pick))
            self.sent += 1

    def say_nothing(self):
        """A hundred at a time, on all ports."""
        held = []
        while not self.ending.wait(0.5):
            for port in (self.collector.handshake, self.collector.data, self.collector.http):
                connection = socket.socket()
                connection.setblocking(False)
                connection.connect_ex(("127.0.0.1", port))
                held.append(connection)
            while len(held) > 100:
                held.pop(0).close()
        for connection in held:
            connection.close()

    def stop(self):
        self.ending.set()
        for thread in self.threads:
            thread.join()


def descriptors(collector):
    return len(os.listdir("/proc/%d/fd" % collector.process.pid))


class Minute:
    """What one minute was like."""

    def __init__(self, load, collector, echo_port):
        count = 3000
        self.mine = load.handshakes(collector.handshake, count, 5000)
        self.floor = load.handshakes(echo_port, count, 2000)
        status = collector.get("/api/v1/status")[1]
        self.store = status["store"]
        self.counters = status["collector"]["counters"] or {}
        self.resident = collector.resident()
        self.descriptors = descriptors(collector)
        self.files = len(list(collector.store.iterdir()))

    def dropped(self):
        """Payloads that were well-formed or not, but never read."""
        return sum(count for text, count in self.counters.items()
                   if text.startswith("payloads were dropped"))

    def line(self, minute, companions):
        return ("%6d %8.0f %5d %5d %7.0f %7.0f %8.0f %8.0f %9d %7d %7d %8d %6d"
                % (minute, self.resident, self.descriptors, self.files,
                   self.store["bytes"] / (1 << 20), self.store["figure_bytes"] / (1 << 20),
                   self.mine[2], self.floor[2], self.store["requests_put"],
                   self.store["requests_lost"], self.dropped(),
                   sum(self.counters.values()), companions.unanswered))


HEAD = "%6s %8s %5s %5s %7s %7s %8s %8s %9s %7s %7s %8s %6s" % (
    "minute", "resident", "fds", "files", "MiB", "figures", "p99 us", "echo us", "put", "lost",
    "dropped", "refused", "unansw")


def check(bounds, minute, number, companions):
    bounds.expect(number < SETTLED or minute.resident <= MOST_RESIDENT,
                  "no more than %d MiB are resident" % MOST_RESIDENT)
    bounds.expect(minute.descriptors <= MOST_DESCRIPTORS,
                  "no more than %d descriptors are open" % MOST_DESCRIPTORS)
    bounds.expect(minute.store["bytes"] <= (CAP_MIB + 2 * PARTITION_MIB) << 20,
                  "requests take no more than their cap and the file that is written to")
    bounds.expect(minute.store["figure_bytes"] <= 2 * FIGURES_MIB << 20,
                  "figures take no more than their cap and what waits to be written")
    bounds.expect(minute.store["requests_lost"] == 0, "no request is lost")
    bounds.expect(minute.dropped() == 0, "no payload is dropped")
    bounds.expect(not minute.store["damages"], "nothing is damaged")
    bounds.expect(companions.unanswered == 0, "every question is answered")


def watch(bounds, load, collector, companions, minutes):
    """Ratios of handshakes to those of a bare loop, a minute each."""
    ratios = []
    echo, echo_port = load.start_echo()
    begin = time.monotonic()
    try:
        while len(ratios) < minutes - 1:
            minute = Minute(load, collector, echo_port)
            ratios.append(minute.mine[2] / minute.floor[2])
            print(minute.line(len(ratios), companions), flush=True)
            check(bounds, minute, len(ratios), companions)
            time.sleep(max(0, begin + len(ratios) * 60 - time.monotonic()))
    finally:
        echo.kill()
        echo.wait()
    return ratios


def counted_by(collector):
    """How many requests the figures have."""
    return collector.get("/api/v1/top", **ALL)[1]["total"]["recorded"]


def settled(collector):
    """How many requests were put and are counted, once no more are."""
    before = None
    while before != (before := (collector.stored()["requests_put"], counted_by(collector))):
        time.sleep(3)
    return before


def soak(bounds, load, program, minutes):
    print(HEAD, flush=True)
    # What it says of nonsense would fill the screen.
    quiet = ("sh", "-c", 'exec "$@" 2>/dev/null', "sh")
    with collector_harness.Collector(program, CONFIGURATION, quiet) as collector:
        sender = load.start_payloads(collector.data, RATE, minutes * 60)
        companions = Companions(collector)
        try:
            ratios = watch(bounds, load, collector, companions, minutes)
            sent, refused, _ = load.finish(sender)
        finally:
            companions.stop()
            sender.kill()
            sender.wait()
        put, counted = settled(collector)
        ratio = statistics.median(ratios)
        print("sent %d, refused %d, put %d (some of them nonsense), counted %d; asked %d questions, "
              "sent %d lines of nonsense; handshakes at 99 %%: %.2f times a bare loop's"
              % (sent, refused, put, counted, companions.asked, companions.sent, ratio), flush=True)
        bounds.expect(refused == 0, "every payload is taken")
        bounds.expect(sent <= put == counted, "every request counts once")
        bounds.expect(put <= sent + companions.sent, "no request counts twice")
        bounds.expect(ratio <= MOST_RATIO, "handshakes at 99 %")
        bounds.expect(collector.process.poll() is None, "the collector lives")


class Reopened(collector_harness.Collector):
    """A collector on a store that may be there already."""

    def __init__(self, program, store):
        store.mkdir(exist_ok=True)
        self.store = store
        self.process = subprocess.Popen(
            [program, "collect", "--handshake", "0", "--data", "0", "--http", "0", "--store",
             str(store)], stdout=subprocess.PIPE, text=True)
        ports = collector_harness.PORTS.search(self.process.stdout.readline())
        self.handshake, self.data, self.http = (int(port) for port in ports.groups()[:3])
        self.token = (store / "token").read_text().strip()

    def __exit__(self, *_):
        self.process.terminate()
        self.process.wait(60)


class Kill:
    """One life of a collector under load, to its sudden end."""

    def __init__(self, program, store, number):
        begin = time.monotonic()
        self.collector = Reopened(program, store)
        self.is_answered = send(self.collector.handshake, b"{}\n")
        self.start = time.monotonic() - begin
        self.begun, self.taken, self.paths = [], {}, set()
        threads = [threading.Thread(target=self.send, args=(1 + number * 1000 + each,))
                   for each in range(4)]
        for thread in threads:
            thread.start()
        time.sleep(2 + random.random())
        self.killed = time.monotonic()
        self.collector.process.send_signal(signal.SIGKILL)
        self.collector.process.wait()
        for thread in threads:
            thread.join()

    def send(self, seed):
        pick = random.Random(seed)
        document = json.loads(base64.b64decode(collector_harness.payload(seed)))
        info = document["apm"]["transaction_info"]
        root = document["apm"]["method_info"]["span_info"][0]
        while self.collector.process.poll() is None:
            # No more can be asked for at a time than have the same path.
            info["t_name"] = "/killed/%d/%d" % (seed, len(self.begun) // 2000)
            self.paths.add(info["t_name"])
            root["si"] = name = "%016x" % pick.getrandbits(64)
            self.begun.append(name)
            line = base64.b64encode(json.dumps(document).encode()) + b"\n"
            if not send(self.collector.data, line):
                return
            self.taken[name] = time.monotonic()


def found(collector, paths):
    """Identifiers of everything that can be found."""
    identifiers = set()
    for path in paths:
        answer = collector.get("/api/v1/requests", q="path:" + path, **ALL)[1]
        identifiers |= {each["id"] for each in answer["requests"]}
    return identifiers


def kill_again_and_again(bounds, program, store):
    begun, kept, paths, starts = set(), {}, set(), []
    for number in range(KILLS):
        life = Kill(program, store, number)
        starts.append(life.start)
        begun.update(life.begun)
        paths |= life.paths
        kept.update((each, life.killed - when) for each, when in life.taken.items())
        bounds.expect(life.is_answered, "a handshake is answered at once")
    with Reopened(program, store) as collector:
        there = found(collector, paths)
        damages = collector.stored()["damages"]
        counted = counted_by(collector)
    lost = max([age for each, age in kept.items() if each not in there], default=0)
    early = sum(age > MOST_LOST for age in kept.values())
    print("killed %d times: %d requests begun, %d taken, %d found, %d in the figures; what was lost "
          "had been taken %.2f s before at most; starts took %.2f s at most"
          % (KILLS, len(begun), len(kept), len(there), counted, lost, max(starts)), flush=True)
    bounds.expect(lost <= MOST_LOST, "what was taken a second before is found")
    bounds.expect(there <= begun, "nothing else is found")
    bounds.expect(early <= counted <= len(begun), "the figures have it, too")
    bounds.expect(not damages, "nothing is damaged")
    bounds.expect(max(starts) < MOST_START, "it is there again within a second")


def main():
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("--program", required=True)
    parser.add_argument("--load", required=True)
    parser.add_argument("--minutes", type=int, default=30)
    options = parser.parse_args()
    if options.minutes <= SETTLED:
        parser.error("bounds hold after %d minutes: more are needed" % SETTLED)
    bounds = Bounds()
    lines = [collector_harness.payload(seed) for seed in range(PAYLOADS)]
    directory = tempfile.mkdtemp(prefix="kaq-soak-")
    try:
        path = pathlib.Path(directory) / "payloads"
        path.write_text("\n".join(lines) + "\n")
        load = collector_harness.Load(options.load, str(path))
        print("\ncollector for %d minutes: %d payloads/s of %d bytes, handshakes, questions, nonsense "
              "and silence; load of the machine at the begin %.1f"
              % (options.minutes, RATE, statistics.mean(map(len, lines)), os.getloadavg()[0]))
        soak(bounds, load, options.program, options.minutes)
        kill_again_and_again(bounds, options.program, pathlib.Path(directory) / "killed")
    finally:
        shutil.rmtree(directory)
    print("bounds that did not hold: %d" % bounds.broken)
    return 1 if bounds.broken else 0


if __name__ == "__main__":
    sys.exit(main())
