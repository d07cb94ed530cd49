#!/usr/bin/env python3
"""Runs the benchmarks of one engine; script/bench builds what this needs and calls it."""
import argparse
import json
import os
import subprocess
import sys
import tempfile

import application
import calls
import curl
import encoding
import failures
import harness
import library_report
import report
import web
import wrapped

SECTIONS = ("calls", "wrapped", "curl", "failures", "application", "instructions", "requests",
            "encoding", "depth")


def parse():
    parser = argparse.ArgumentParser(description=__doc__)
    for name in ("php", "kaq", "probe", "collector", "conversations", "http-server", "engine"):
        parser.add_argument("--" + name, required=True)
    parser.add_argument("--php-cgi", default="")
    parser.add_argument("--encode", default="")
    parser.add_argument("--drivers", default="", help="where drivers may stand")
    parser.add_argument("--redis-server", default="")
    parser.add_argument("--extension-dir", default="", help="where the engine's modules stand")
    parser.add_argument("--packages", default="", help="where unpacked packages stand")
    parser.add_argument("--json", default="")
    parser.add_argument("--quick", action="store_true")
    parser.add_argument("--section", action="append", choices=SECTIONS)
    return parser.parse_args()


def run_curl(setup, program, figures, targets):
    server = curl.Server(program)
    try:
        figures["curl_ns"] = curl.time_transfers(setup, server, 3 if setup.quick else 15)
        report.print_transfers(figures["curl_ns"], targets)
        if not setup.quick:
            figures["curl_instructions"] = curl.count_instructions(setup, server)
            report.print_transfer_instructions(figures["curl_instructions"])
    finally:
        server.stop()


def run_application(setup, figures, count, targets):
    if not setup.packages:
        print("\n  application: left out, the packages of its libraries cannot be fetched")
        return

    def named(by_key):
        return {"%s, opcache %s" % (kind, "on" if opcache else "off"): figure
                for (kind, opcache), figure in by_key.items()}

    times = application.time_libraries(setup, 3 if setup.quick else 30)
    library_report.print_times(times, targets)
    figures["application_us"] = named(times)
    if count:
        counts = application.count_instructions(setup)
        library_report.print_instructions(counts)
        figures["application_instructions"] = named(counts)


def run_sections(setup, options, wanted, targets):
    """Measures and prints; returns the raw figures."""
    quick = setup.quick
    figures = {}
    if "calls" in wanted:
        figures["calls_ns"] = calls.time_calls(setup, 3 if quick else 15)
        report.print_calls(figures["calls_ns"], targets)
    if "wrapped" in wanted:
        figures["wrapped_ns"] = wrapped.time_calls(setup, 3 if quick else 15)
        report.print_wrapped_calls(figures["wrapped_ns"], targets)
        figures["loops_ns"] = wrapped.time_loops(setup, 3 if quick else 15)
        report.print_wrapped_loops(figures["loops_ns"])
    if "curl" in wanted:
        run_curl(setup, options.http_server, figures, targets)
    if "failures" in wanted:
        figures["failures_ns"] = failures.time_failures(setup, 3 if quick else 15)
        report.print_failures(figures["failures_ns"])
    if "application" in wanted:
        run_application(setup, figures, "instructions" in wanted, targets)
    # An application's instructions take long and are counted only beside its times.
    if "instructions" in wanted:
        figures["instructions"] = calls.count_instructions(setup)
        report.print_instructions(figures["instructions"])
        figures["wrapped_instructions"] = wrapped.count_instructions(setup)
        report.print_wrapped_instructions(figures["wrapped_instructions"])
    if "requests" in wanted and setup.php_cgi:
        figures["requests_us"] = web.time_requests(setup, 5 if quick else 40)
        report.print_requests(figures["requests_us"], targets)
        figures["requests_system_calls"] = web.count_system_calls(setup)
        report.print_system_calls(figures["requests_system_calls"])
        if "instructions" in wanted:
            figures["requests_instructions"] = web.count_instructions(setup)
            report.print_request_instructions(figures["requests_instructions"])
    if "encoding" in wanted and setup.encode:
        counts = encoding.count_instructions(setup) if "instructions" in wanted else None
        figures["encoding_instructions"] = counts
        figures["encoding_ns"] = encoding.time_encoding(setup, 5 if quick else 25)
        report.print_encoding(figures["encoding_ns"], counts, targets)
    if "depth" in wanted:
        figures["depth"] = calls.recursion_depths(setup)
        report.print_depths(figures["depth"], targets)
    return figures


def main():
    options = parse()
    wanted = options.section or SECTIONS
    targets = []
    print("PHP %s (%s), %d processors, load %.1f"
          % (harness.output([options.php, "-n", "-r", "echo PHP_VERSION;"]), options.engine,
             os.cpu_count(), os.getloadavg()[0]))
    for name, program in (("requests", options.php_cgi), ("encoding", options.encode)):
        if name in wanted and not program:
            print("  %s: skipped, this engine lacks what it takes" % name)
    collector = harness.Collector(options.collector)
    try:
        with tempfile.TemporaryDirectory(prefix="kaq-bench-") as scratch:
            setup = harness.Setup(options, collector, scratch)
            figures = run_sections(setup, options, wanted, targets)
    finally:
        collector.stop()
    if options.json:
        with open(options.json, "w", encoding="utf-8") as file:
            json.dump({"engine": options.engine, "targets": targets, "figures": figures}, file,
                      indent=1)
            file.write("\n")


if __name__ == "__main__":
    try:
        main()
    except (harness.BenchError, subprocess.TimeoutExpired) as error:
        sys.exit("bench: %s" % error)
