"""Processor time and wall clock of pages: the servers of all variants stand side by side and take
turns with every single page."""
import http.client
import time

import harness
import variants
from client import TIMEOUT, Browser, EnoughPages
from processes import Failure
from runs import progress
from transactions import trace_headers

_CALLER = trace_headers("4bf92f3577b34da6a3ce929d0e0e4736", "00f067aa0ba902b7")


class Turns:
    """`times[variant][page]` is a list of (processor, wall) in seconds, one for each round."""

    def __init__(self, pages, names):
        self.pages = pages
        self.times = {name: {page: [] for page, _ in pages} for name in names}
        self.peak_kib = {}


def _ask(servers, visit, more=None):
    """(status, processor time, wall clock). more: headers besides those of the visit."""
    cpu = servers.cpu_seconds()
    begin = time.perf_counter()
    connection = http.client.HTTPConnection("127.0.0.1", servers.port, timeout=TIMEOUT)
    try:
        connection.request("GET", visit.target, None, {**visit.sent, **(more or {})})
        answer = connection.getresponse()
        answer.read()
    finally:
        connection.close()
    wall = time.perf_counter() - begin
    return answer.status, servers.cpu_seconds() - cpu, wall


def _pages_to_time(site, pages):
    """Visits all pages with the bare engine, then those again that can be asked for repeatedly, and
    gives those that answer as they did: [(page number and name, visit)]."""
    servers = site.serve(variants.VARIANTS[variants.BARE])
    try:
        browser = Browser(servers, limit=pages)
        try:
            site.application.visit_pages(browser)
        except EnoughPages:
            pass
        again = [(number, visit) for number, visit in enumerate(browser.visits)
                 if visit.is_repeatable and visit.status in (200, 404)]
        return [("%03d %s" % (number, visit.name), visit) for number, visit in again
                if _ask(servers, visit)[0] == visit.status]
    finally:
        servers.stop()


def time_site(site, wanted, collectors, rounds, pages):
    """collectors: of bench/collector.cpp, (without a snippet, with one)."""
    site.restore()
    plain, snippet = collectors
    site.ports.up, site.ports.snippet = ((each.monitored, each.data) for each in (plain, snippet))
    chosen = _pages_to_time(site, pages)
    if not chosen:
        raise Failure("no page can be asked for again")
    turns = Turns(chosen, [variant.name for variant in wanted])
    servers = {}
    try:
        for variant in wanted:
            servers[variant.name] = site.serve(variant)
        names = list(servers)
        # The first two only fill caches, and let the JIT see what is hot.
        for turn in range(-2, rounds):
            progress("%s: %s, %d pages, %d variants" % (
                site.label, "warming up" if turn < 0 else "round %d of %d" % (turn + 1, rounds),
                len(chosen), len(names)))
            _one_round(turns, servers, names, turn, plain)
        turns.peak_kib = {name: each.peak_kib() for name, each in servers.items()}
    finally:
        for each in servers.values():
            each.stop()
    return turns


def _one_round(turns, servers, names, turn, collector):
    before = collector.counts()[0]
    for number, (page, visit) in enumerate(turns.pages):
        for name in harness.rotated(names, turn + number):
            more = _CALLER if variants.is_traced(variants.VARIANTS[name]) else None
            status, cpu, wall = _ask(servers[name], visit, more)
            if status != visit.status:
                raise Failure("%s, %s: status %d, not %d" % (name, page, status, visit.status))
            if turn >= 0:
                turns.times[name][page].append((cpu, wall))
    senders = sum(variants.VARIANTS[name].collector == "up" for name in names)
    if not collector.transactions_reach(before + senders * len(turns.pages)):
        raise Failure("transactions are missing: %d of %d arrived" % (
            collector.counts()[0] - before, senders * len(turns.pages)))


def of_page(turns, name, page, column):
    """The best of the rounds, in milliseconds: what disturbs only makes it longer."""
    return min(row[column] for row in turns.times[name][page]) * 1e3


def per_page(turns, name, column):
    """The mean over the pages of the best of the rounds, in milliseconds."""
    return sum(of_page(turns, name, page, column) for page, _ in turns.pages) / len(turns.pages)


def ratio(turns, name, base, column):
    """Median over the rounds of the ratio of both sums over the pages."""
    def sums(which):
        return [sum(turns.times[which][page][turn][column] for page, _ in turns.pages)
                for turn in range(len(turns.times[which][turns.pages[0][0]]))]
    return harness.ratios(sums(name), sums(base))[0]
