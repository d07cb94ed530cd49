#!/usr/bin/env python3
"""Real applications on one engine; script/applications builds what this needs and calls it."""
import argparse
import json
import os
import pathlib
import signal
import sys

HERE = pathlib.Path(__file__).resolve().parent
TESTS = HERE.parents[1] / "tests" / "extension"
for directory in (HERE.parent, TESTS / "wire", TESTS / "servers"):
    sys.path.insert(1, str(directory))

import engines  # noqa: E402
import harness  # noqa: E402
import loopback  # noqa: E402
import report  # noqa: E402
import runs  # noqa: E402
import timing  # noqa: E402
import transactions  # noqa: E402
import variants  # noqa: E402
from dokuwiki import DokuWiki  # noqa: E402
from fake_collector import FakeCollector  # noqa: E402
from installation import Ports, Site  # noqa: E402
from mediawiki import MediaWiki  # noqa: E402
from phpmyadmin import PhpMyAdmin  # noqa: E402
from private_root import PrivateRoot  # noqa: E402
from processes import Failure  # noqa: E402
from wordpress import WordPress  # noqa: E402

APPLICATIONS = {each.name: each for each in (WordPress, MediaWiki, DokuWiki, PhpMyAdmin)}


class OutOfTime(Exception):
    """The time limit has passed."""


class Told(Exception):
    """A signal says that the run is to end."""


def parse():
    parser = argparse.ArgumentParser(description=__doc__)
    for name in ("php-config", "php", "fpm", "kaq", "probe", "collector", "archives", "engine"):
        parser.add_argument("--" + name, required=True)
    parser.add_argument("--application", action="append", choices=sorted(APPLICATIONS))
    parser.add_argument("--variant", action="append", choices=list(variants.VARIANTS))
    parser.add_argument("--server", choices=("fpm", "apache"), default="fpm")
    parser.add_argument("--pages", type=int)
    parser.add_argument("--rounds", type=int, default=5)
    parser.add_argument("--seconds", type=int, default=3600)
    parser.add_argument("--json", default="")
    parser.add_argument("--keep", default="", help="where to keep the pages")
    return parser.parse_args()


def wanted_variants(options, site):
    """Those named, and the bare engine, which all are compared with."""
    named = set(options.variant or variants.VARIANTS)
    named |= {variants.BARE, variants.AGAIN, variants.LAST}
    for name in list(named):
        named |= {variants.VARIANTS[name].base, variants.VARIANTS[name].like}
    return [each for each in variants.VARIANTS.values() if each.name in named
            and variants.is_possible(each, site.engine, site.modules)]


def one_application(options, application, engine, collectors):
    """Its figures, and whether nothing was wrong."""
    root = PrivateRoot()
    site = None
    try:
        runs.progress("%s: unpacking" % application.title)
        root.unpack(options.archives)
        site = Site(root, application, engine, options.probe, options.server)
        site.label = "%s on %s, %s" % (application.title, options.engine, options.server)
        wanted = wanted_variants(options, site)
        fake, plain, snippet = collectors
        site.ports = Ports((plain.monitored, plain.data), (snippet.monitored, snippet.data))
        runs.progress("%s: installing" % site.label)
        application.install(site)
        site.keep()
        checked, noise = runs.check_site(
            site, [each for each in wanted if each.is_checked], fake, options.pages,
            options.keep and os.path.join(options.keep, application.name))
        clean = report.print_pages(site.label, checked, noise)
        turns = None
        if options.rounds > 0:
            timed = [each for each in wanted if each.name != variants.LAST]
            turns = timing.time_site(site, timed, (plain, snippet), options.rounds, options.pages)
            report.print_times(site.label, turns, timed)
        return report.as_data(checked, noise, turns), clean
    finally:
        if site:
            site.close()
        root.remove()


def run_all(options, engine, collectors):
    figures, is_clean = {}, True
    for name, kind in APPLICATIONS.items():
        if options.application and name not in options.application:
            continue
        application = kind()
        if engine.version_id < application.oldest_engine:
            print("\n%s: left out, it needs a newer engine than %s"
                  % (application.title, options.engine))
            continue
        figures[name], clean = one_application(options, application, engine, collectors)
        is_clean = is_clean and clean
    if options.json:
        with open(options.json, "w", encoding="utf-8") as file:
            json.dump({"engine": options.engine, "server": options.server,
                       "applications": figures}, file, indent=1)
            file.write("\n")
    return is_clean


def _end(kind):
    def handler(number, _frame):
        # Once: what is cleaned up then is not to be disturbed.
        for each in (signal.SIGINT, signal.SIGTERM, signal.SIGALRM):
            signal.signal(each, signal.SIG_IGN)
        raise kind(number)
    return handler


def main():
    options = parse()
    signal.signal(signal.SIGALRM, _end(OutOfTime))
    signal.signal(signal.SIGINT, _end(Told))
    signal.signal(signal.SIGTERM, _end(Told))
    signal.alarm(options.seconds)
    engine = engines.Engine(options.php_config, options.kaq, options.php, None, options.fpm)
    print("PHP %d (%s), %d processors, load %.1f" % (
        engine.version_id, options.engine, os.cpu_count(), os.getloadavg()[0]))
    collectors = []
    try:
        collectors.append(FakeCollector())
        collectors.append(harness.Collector(options.collector))
        collectors.append(harness.Collector(options.collector, transactions.SNIPPET))
        return 0 if run_all(options, engine, collectors) else 1
    finally:
        for each in collectors:
            each.close() if isinstance(each, FakeCollector) else each.stop()


if __name__ == "__main__":
    try:
        sys.exit(main())
    except (Failure, harness.BenchError, loopback.Unavailable) as error:
        sys.exit("applications: %s" % error)
    except OutOfTime:
        sys.exit("applications: the time limit has passed")
    except Told as signal_number:
        sys.exit(128 + signal_number.args[0])
