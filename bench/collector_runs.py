"""What the collector costs, beside a bare epoll loop that answers the same: its handshakes, idle and
under load; payloads taken in a second; its memory; how fast it answers questions; instructions of a
payload."""
import argparse
import contextlib
import json
import os
import pathlib
import re
import statistics
import sys
import tempfile
import time

from collector_harness import SPANS, Collector, Load, payload

PAYLOADS = 400
DAY = 24 * 3600
ASKED = 30
# What somebody looks for, from what all have to what none has.
SEARCHES = ("app:shop1", "app:shop1 >300ms", "txn:/shop/pageba/*", 'sql:"FROM product"',
            "sql:category_c status:500", "status:500 since:6h", "txn:/nothing*", "sql:nothing")


@contextlib.contextmanager
def echo_beside(load):
    process, port = load.start_echo()
    try:
        yield port
    finally:
        process.terminate()
        process.wait()


def measure_handshakes(load, collector, rounds, count):
    """Paired: one round of the collector and one of the echo in turn."""
    with echo_beside(load) as port:
        load.handshakes(port, 200)
        load.handshakes(collector.handshake, 200)
        return [(load.handshakes(collector.handshake, count), load.handshakes(port, count))
                for _ in range(rounds)]


def under_load(load, collector, port, rate, seconds):
    sender = load.start_payloads(collector.data, rate, seconds)
    time.sleep(0.5)
    times = load.handshakes(port, int((seconds - 1.5) * 200), 4000)
    load.finish(sender)
    return times


def measure_under_load(load, collector, rate, rounds, seconds):
    with echo_beside(load) as port:
        return [(under_load(load, collector, collector.handshake, rate, seconds),
                 under_load(load, collector, port, rate, seconds)) for _ in range(rounds)]


def measure_rate(load, program, rate, seconds, keeps_all):
    """Sends at that rate; what became of it."""
    with Collector(program, "keep_all = %s\n" % ("true" if keeps_all else "false")) as collector:
        before = collector.processor()
        sent, refused, took = load.finish(load.start_payloads(collector.data, rate, seconds))
        collector.wait_for(sent)
        status = collector.stored()
        _, top = collector.get("/api/v1/top", **{"from": "1h", "limit": 10000})
        return {"rate": rate, "keeps_all": keeps_all, "taken_per_second": sent / took,
                "sent": sent, "refused": refused, "put": status["requests_put"],
                "documents": status["documents_kept"], "lost": status["requests_lost"],
                "counted": sum(row["requests"] for row in top["transactions"]),
                "resident_mib": collector.resident(),
                "processor_us": (collector.processor() - before) / max(sent, 1) * 1e6}


def times_of(collector, path, questions):
    """Milliseconds of each, in order of size."""
    return sorted(collector.get(path, **question)[0] * 1000 for question in questions)


def measure_questions(load, program, count):
    """About so many requests of the last day: median and slowest answer in milliseconds."""
    with Collector(program) as collector:
        begin = time.monotonic()
        refused = load.fill(collector, count, DAY - 600)
        collector.wait_for(count - refused)
        took = time.monotonic() - begin
        _, found = collector.get("/api/v1/requests", q="since:24h", limit=1000)
        traces = [row["trace_id"] for row in found["requests"]][:: 1000 // ASKED]
        figures = {"requests": count, "refused": refused, "filled_per_second": count / took,
                   "put": collector.stored()["requests_put"], "resident_mib": collector.resident()}
        asked = {"trace by id": ("/api/v1/trace", [{"id": each} for each in traces]),
                 "top over a day": ("/api/v1/top", [{"from": "24h"}] * ASKED)}
        for search in SEARCHES:
            words = {"q": search if "since:" in search else search + " since:24h"}
            asked["find " + search] = ("/api/v1/requests", [words] * 5)
        figures["questions_ms"] = {}
        for name, (path, questions) in asked.items():
            times = times_of(collector, path, questions)
            figures["questions_ms"][name] = [statistics.median(times), times[-1]]
        return figures


def instructions_of(load, program, seconds):
    """Of a run that takes 20 payloads a second for so long."""
    with tempfile.TemporaryDirectory(prefix="kaq-bench-") as directory:
        wrapper = ("valgrind", "--tool=callgrind", "--callgrind-out-file=%s/out" % directory,
                   "--log-file=%s/log" % directory)
        with Collector(program, "keep_all = true\n", wrapper) as collector:
            sent, _, _ = load.finish(load.start_payloads(collector.data, 20, seconds))
            collector.wait_for(sent)
        text = pathlib.Path(directory, "out").read_text()
        return sent, int(re.search(r"^(?:summary|totals): (\d+)", text, re.M).group(1))


def count_instructions(load, program):
    """Of one payload, every document kept; start and end cancel out."""
    few, less = instructions_of(load, program, 5)
    many, more = instructions_of(load, program, 25)
    return (more - less) / (many - few)


def ratio(pairs, index):
    return statistics.median(mine[index] / floor[index] for mine, floor in pairs)


def line(text, *values):
    print("  " + text % values, flush=True)


def report_pairs(text, pairs, index, target):
    mine = statistics.median(one[index] for one, _ in pairs)
    floor = statistics.median(other[index] for _, other in pairs)
    line("%s: %.0f us, bare epoll loop %.0f us, ratio %.2f (target %.1f)", text, mine, floor,
         ratio(pairs, index), target)
    return {"collector_us": mine, "floor_us": floor, "ratio": ratio(pairs, index)}


def report_handshakes(load, program, quick):
    with Collector(program) as collector:
        pairs = measure_handshakes(load, collector, 3 if quick else 15, 500 if quick else 2000)
        alone = report_pairs("handshake, one client, p50", pairs, 0, 1.5)
        pairs = measure_under_load(load, collector, 1500, 1 if quick else 5, 4 if quick else 10)
        loaded = report_pairs("handshake beside 1500 payloads/s, p99", pairs, 2, 2)
    return {"alone": alone, "under_load": loaded}


def report_rates(load, program, quick):
    rates = []
    for rate, keeps_all in ((2500, True), (5000, False)):
        found = measure_rate(load, program, rate, 4 if quick else 20, keeps_all)
        line("%d payloads/s sent, %s: %.0f/s taken; %d sent, %d refused, %d put, %d counted, "
             "%d documents kept, %d lost; %.0f MiB resident; %.0f us of processor time each",
             rate, "every document kept" if keeps_all else "documents by rule",
             found["taken_per_second"], found["sent"], found["refused"], found["put"],
             found["counted"], found["documents"], found["lost"], found["resident_mib"],
             found["processor_us"])
        rates.append(found)
    return rates


def report_questions(load, program, quick):
    found = measure_questions(load, program, 50000 if quick else 1000000)
    line("%d requests of a day, %.0f/s taken, %d refused, %d put; %.0f MiB resident",
         found["requests"], found["filled_per_second"], found["refused"], found["put"],
         found["resident_mib"])
    for name, (median, slowest) in found["questions_ms"].items():
        line("%-34s %7.1f ms, slowest %7.1f", name, median, slowest)
    return found


def main():
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("--program", required=True)
    parser.add_argument("--load", required=True)
    parser.add_argument("--part", action="append",
                        choices=("handshakes", "rates", "questions", "instructions"))
    parser.add_argument("--quick", action="store_true")
    parser.add_argument("--json", default="")
    options = parser.parse_args()
    wanted = options.part or ("handshakes", "rates", "questions", "instructions")
    lines = [payload(seed) for seed in range(PAYLOADS)]
    figures = {}
    with tempfile.NamedTemporaryFile("w", suffix=".payloads") as file:
        file.write("\n".join(lines) + "\n")
        file.flush()
        print("\ncollector: payloads of %d bytes, %d spans; sender and collector share %d "
              "processors, load %.1f" % (statistics.mean(map(len, lines)), SPANS, os.cpu_count(),
                                         os.getloadavg()[0]))
        load = Load(options.load, file.name)
        for name, report in (("handshakes", report_handshakes), ("rates", report_rates),
                             ("questions", report_questions)):
            if name in wanted:
                figures[name] = report(load, options.program, options.quick)
        if "instructions" in wanted:
            figures["instructions"] = count_instructions(load, options.program)
            line("%.0f instructions a payload", figures["instructions"])
    if options.json:
        pathlib.Path(options.json).write_text(json.dumps(figures, indent=1) + "\n")


if __name__ == "__main__":
    sys.exit(main())
