"""The pages of a site, once for each variant, each from the same state; and what was different."""
import http.client
import os
import sys
import time

import variants
from client import Browser, EnoughPages
from comparison import Noise, lines_of
from processes import Failure
from transactions import SNIPPET, Watch

_BARE = (variants.BARE, variants.AGAIN, variants.LAST)
_BEGAN = time.monotonic()


def progress(text):
    print("[%5.0fs] %s" % (time.monotonic() - _BEGAN, text), file=sys.stderr, flush=True)


class Run:
    """What one variant showed. `problems` are (page, text)."""

    def __init__(self, variant):
        self.variant = variant
        self.visits, self.problems = [], []
        self.watch = None
        self.peak_kib = 0
        self.server_log = self.said_at_start = ""
        self.differing = []

    @property
    def cpu(self):
        return sum(visit.cpu for visit in self.visits)


def run_variant(site, variant, collector, pages):
    """Restores the site, visits its pages, stops the servers."""
    site.restore()
    site.ports.up = site.ports.snippet = (collector.status_port, collector.data_port)
    run = Run(variant)
    run.watch = Watch(variant, collector, site.sees_request_headers)
    servers = site.serve(variant)
    run.said_at_start = servers.said_at_start
    try:
        browser = Browser(servers, run.watch, pages)
        run.visits = browser.visits
        try:
            site.application.visit_pages(browser)
        except EnoughPages:
            pass
        except (Failure, OSError, http.client.HTTPException, ValueError) as error:
            run.problems.append(("the script", "could not go on: %r" % error))
        run.peak_kib = servers.peak_kib()
        if servers.deaths:
            run.problems.append(("the server", "%d workers died" % servers.deaths))
    finally:
        servers.stop()
        run.server_log = servers.server_log()
    run.problems += run.watch.problems
    run.problems += [("the server", "its log: " + line) for line in run.server_log.splitlines()
                     if "exited on signal" in line or "Segmentation" in line]
    return run


def compare(runs):
    """Sets `differing` of each run to [(page, [(bare line, its line)])]: for a variant that is to be
    like another one, without what differs in that one. Returns the bare runs' noise:
    {page number: Noise}."""
    bare = [runs[name] for name in _BARE if name in runs]
    noise, shared = {}, {}
    for number in range(len(bare[0].visits)):
        seen = [run.visits[number] for run in bare if number < len(run.visits)]
        noise[number] = Noise([lines_of(each) for each in seen], shared)
    found = {name: _beyond(run, bare[0], noise) for name, run in runs.items() if run not in bare}
    for name, pages in found.items():
        others = found.get(runs[name].variant.like, {})
        for number, pairs in sorted(pages.items()):
            own = [pair for pair in pairs if pair not in others.get(number, ())]
            if own:
                runs[name].differing.append((_name(runs[name], number), own))
    return noise


def _name(run, number):
    return run.visits[number].name if number < len(run.visits) else "the script"


def _beyond(run, bare, noise):
    """{page number: [(bare line, its line)]} of what is no noise."""
    snippet = SNIPPET if run.variant.collector == "snippet" else None
    found = {}
    for number, visit in enumerate(run.visits):
        if number not in noise or visit.name != bare.visits[number].name:
            return {**found, number: [(None, "visited here: " + visit.name)]}
        pairs = noise[number].beyond(lines_of(visit, snippet))
        if pairs:
            found[number] = pairs
    if len(run.visits) < len(bare.visits):
        found[len(run.visits)] = [("%d pages" % len(bare.visits), "%d pages" % len(run.visits))]
    return found


def check_site(site, wanted, collector, pages, keep=None):
    """{variant's name: Run} and the noise. keep: a directory for what is compared."""
    runs = {}
    for variant in wanted:
        progress("%s: pages, %s" % (site.label, variant.title))
        runs[variant.name] = run_variant(site, variant, collector, pages)
        run = runs[variant.name]
        progress("%s: %d pages, %.1f s of processor time, %d transactions, %d problems" % (
            site.label, len(run.visits), run.cpu, run.watch.transactions, len(run.problems)))
        if keep:
            keep_pages(run, keep)
        if variant.name == variants.BARE and run.problems:
            raise Failure("the bare engine has problems: %s %s" % (
                run.problems[:5], "".join(visit.log for visit in run.visits[-3:])))
    return runs, compare(runs)


def keep_pages(run, directory):
    """All that is compared, to be looked at with diff."""
    folder = os.path.join(directory, run.variant.name)
    os.makedirs(folder, exist_ok=True)
    for number, visit in enumerate(run.visits):
        name = "%03d-%s" % (number, "".join(c if c.isalnum() else "-" for c in visit.name))
        with open(os.path.join(folder, name), "w", encoding="utf-8",
                  errors="surrogateescape") as file:
            file.write("\n".join(lines_of(visit)) + "\n")
    with open(os.path.join(folder, "server.log"), "w", encoding="utf-8") as file:
        file.write(run.said_at_start + run.server_log)
