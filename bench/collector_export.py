"""How fast the collector sends what it has stored as OTLP, to an endpoint that only counts bytes:
alone, and after an outage beside the requests that still come; and what its handshakes cost
meanwhile, beside those while nothing is sent."""
import argparse
import contextlib
import http.server
import json
import multiprocessing
import os
import pathlib
import socket
import statistics
import sys
import tempfile
import time

from collector_harness import SPANS, Collector, Load, payload

PAYLOADS = 400
FILL_RATE = 2500  # payloads a second
OUTAGE_RATE = 50
BOUND_OF_RATE = 50000  # spans a second
BOUND_OF_OUTAGE = 15 * 60
HANDSHAKES = 500
PAUSE_US = 4000
PATIENCE = 3600


class Receiver(http.server.BaseHTTPRequestHandler):
    protocol_version = "HTTP/1.1"

    def do_POST(self):
        self.rfile.read(int(self.headers["Content-Length"]))
        self.send_response(200)
        self.send_header("Content-Type", "application/x-protobuf")
        self.send_header("Content-Length", "0")
        self.end_headers()

    def log_message(self, *_):
        pass


def serve(port):
    http.server.ThreadingHTTPServer(("127.0.0.1", port), Receiver).serve_forever()


@contextlib.contextmanager
def endpoint(port):
    process = multiprocessing.Process(target=serve, args=(port,))
    process.start()
    try:
        yield
    finally:
        process.terminate()
        process.join()


def free_port():
    with socket.socket() as one:
        one.bind(("127.0.0.1", 0))
        return one.getsockname()[1]


def options_of(port, more=""):
    return ('keep_all = true\nsize_cap = "40GiB"\n[[export.otlp]]\nname = "bench"\n'
            'endpoint = "http://127.0.0.1:%d"\n%s' % (port, more))


def progress(collector):
    _, answer = collector.get("/api/v1/destinations")
    return answer["destinations"][0]


def wait_for_spans(collector, spans):
    """(seconds, spans, processor seconds) from the first answer until so many were taken."""
    begin, first, used = None, 0, 0
    until = time.monotonic() + PATIENCE
    while time.monotonic() < until:
        sent = progress(collector)["spans"]
        if begin is None and sent > 0:
            begin, first, used = time.monotonic(), sent, collector.processor()
        if sent >= spans:
            return time.monotonic() - begin, sent - first, collector.processor() - used
        time.sleep(0.05)
    raise TimeoutError("not all was sent")


def fill(load, collector, count):
    """What of so many requests was stored while the endpoint is away."""
    _, refused, _ = load.finish(load.start_payloads(collector.data, FILL_RATE, count / FILL_RATE))
    collector.wait_for(count - refused)
    return collector.stored()["documents_kept"]


def measure_rate(load, program, count):
    """Nothing else goes on, and nothing bounds it."""
    port = free_port()
    with Collector(program, options_of(port, "spans_per_second = 10000000\n")) as collector:
        kept = fill(load, collector, count)
        with endpoint(port):
            took, spans, processor = wait_for_spans(collector, kept * SPANS)
        return {"spans": kept * SPANS, "spans_per_second": spans / took,
                "spans_per_processor_second": spans / processor,
                "refused": progress(collector)["refused"], "gaps": progress(collector)["gaps"]}


def measure_outage(load, program, seconds):
    """So long an outage at 50 requests a second, worked off at the usual rate while these go on."""
    port, count = free_port(), seconds * OUTAGE_RATE
    with Collector(program, options_of(port)) as collector:
        kept = fill(load, collector, count)
        sender = load.start_payloads(collector.data, OUTAGE_RATE, PATIENCE)
        try:
            before = [load.handshakes(collector.handshake, HANDSHAKES, PAUSE_US) for _ in range(5)]
            with endpoint(port):
                begin = time.monotonic()
                while progress(collector)["spans"] == 0:
                    time.sleep(0.05)
                pause = time.monotonic() - begin
                meanwhile = []
                while progress(collector)["spans"] < kept * SPANS:
                    meanwhile.append(load.handshakes(collector.handshake, HANDSHAKES, PAUSE_US))
                took = time.monotonic() - begin
                found = progress(collector)
        finally:
            sender.terminate()
            sender.wait()
        return {"outage_s": seconds, "spans": kept * SPANS, "worked_off_s": took,
                "first_pause_s": pause, "resident_mib": collector.resident(),
                "refused": found["refused"], "gaps": found["gaps"],
                "handshake_us": {"p50": [median_of(before, 0), median_of(meanwhile, 0)],
                                 "p99": [median_of(before, 2), median_of(meanwhile, 2)]}}


def median_of(rounds, index):
    return statistics.median(each[index] for each in rounds)


def report_rate(found):
    print("  %d stored spans: %.0f a second sent, %.0f for each second of processor time (bound %d)"
          "; %d refused, %d gaps" % (found["spans"], found["spans_per_second"],
                                     found["spans_per_processor_second"], BOUND_OF_RATE,
                                     found["refused"], found["gaps"]), flush=True)
    return found["spans_per_processor_second"] >= BOUND_OF_RATE


def report_outage(found):
    bound = BOUND_OF_OUTAGE * found["outage_s"] / 3600
    print("  an outage of %d s at %d requests a second, %d spans: worked off in %.0f s (bound %.0f),"
          " of them %.0f until the next try; %.0f MiB resident; %d refused, %d gaps"
          % (found["outage_s"], OUTAGE_RATE, found["spans"], found["worked_off_s"], bound,
             found["first_pause_s"], found["resident_mib"], found["refused"], found["gaps"]))
    for share, (before, meanwhile) in found["handshake_us"].items():
        print("  handshake meanwhile, %s: %.0f us, before %.0f us, ratio %.2f"
              % (share, meanwhile, before, meanwhile / before), flush=True)
    return found["worked_off_s"] - found["first_pause_s"] <= bound


def main():
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("--program", required=True)
    parser.add_argument("--load", required=True)
    parser.add_argument("--quick", action="store_true")
    parser.add_argument("--json", default="")
    options = parser.parse_args()
    with tempfile.NamedTemporaryFile("w", suffix=".payloads") as file:
        file.write("\n".join(payload(seed) for seed in range(PAYLOADS)) + "\n")
        file.flush()
        load = Load(options.load, file.name)
        print("\nexport: requests of %d spans; sender, collector and endpoint share %d processors, "
              "load %.1f" % (SPANS, os.cpu_count(), os.getloadavg()[0]), flush=True)
        rate = measure_rate(load, options.program, 5000 if options.quick else 25000)
        holds = report_rate(rate)
        outage = measure_outage(load, options.program, 180 if options.quick else 3600)
        holds = report_outage(outage) and holds
    if options.json:
        figures = {"rate": rate, "outage": outage}
        pathlib.Path(options.json).write_text(json.dumps(figures, indent=1) + "\n")
    return 0 if holds else 1


if __name__ == "__main__":
    sys.exit(main())
