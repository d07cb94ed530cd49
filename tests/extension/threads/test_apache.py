"""Every thread of a web server is instrumented from its very first request on."""
import re

from apache import THREADS
from load import CLIENTS, Load
import page_calls

REQUESTS = 3000
RESTARTS = 10
PER_GENERATION = 100
# After the last restart: enough for every thread of the new generation to be given some.
AFTERWARDS = 20 * THREADS
ATTEMPTS = 5
# What the C library says before it ends a process whose heap is corrupt.
HEAP_REPORT = r"(malloc|free|realloc|munmap_chunk|double free|corrupted|sysmalloc|tcache)"
PRESSED_TO_END = r"AH0004[56]: child process \d+ still did not exit"


class Attempt:
    """One attempt at a test, with a running server and the number of its first request. A failure
    on a server whose child crashed counts only if it is the last attempt's."""

    def __init__(self, site, first, is_last):
        self.site, self.first, self.is_last = site, first, is_last
        self.failed = False

    def __enter__(self):
        return self.site, self.first

    def __exit__(self, kind, *_):
        self.failed = kind is not None
        if not self.failed or self.is_last or not issubclass(kind, Exception):
            return False
        self.site.stop()
        return self.site.children_that_crashed() != []


def attempts(start_site, engine, loaded=True):
    """One, but several where the engine itself crashes: see check_server. Mostly it does when a
    child ends, but now and then in the middle of its requests, which then fail."""
    count = ATTEMPTS if engine.concurrent_requests_corrupt_its_heap else 1
    for number in range(1, count + 1):
        attempt = Attempt(start_site(loaded), number * 10000000, number == count)
        yield attempt
        if not attempt.failed:
            return


def loaded(site, first, count):
    """`count` requests from CLIENTS clients at once; fails unless each was answered rightly."""
    with Load(site, page_calls.path_of, first, count) as load:
        load.join()
    check_answers(load)
    assert len(load.answers) == count
    return load


def check_answers(load):
    assert load.failures[:3] == []
    wrong = [(number, answer.status, answer.body) for number, answer in load.answers.items()
             if (answer.status, answer.body.decode()) != (
                 200, page_calls.expected_body(number))]
    assert wrong[:3] == []


def check_server(site, engine):
    """No child may have ended by a signal. PHP 7.0 by itself, without any extension, corrupts its
    heap under concurrent requests (its threads count references to shared names without guard), and
    now and then the C library ends a child for that when it has served and ends anyway. Apache then
    counts one process too few when it orders them to end, and has to press the one left over."""
    status = site.stop()
    crashed, complaints = site.children_that_crashed(), site.complaints()
    if engine.concurrent_requests_corrupt_its_heap:
        if crashed:
            complaints = [text for text in complaints if not re.search(PRESSED_TO_END, text)]
        crashed = [text for text in crashed if "Abort (6)" not in text and "fault (11)" not in text]
        complaints = [text for text in complaints if not re.match(HEAP_REPORT, text)]
    assert (crashed, complaints, status) == ([], [], 0)


def check_threads(site):
    """One process served all, with all of its threads: no child died and was replaced."""
    served = {(process, thread) for process, thread, _, _ in site.served()}
    assert (len(served), len({process for process, _ in served})) == (THREADS, 1)


def test_every_call_in_every_thread_is_one_span_from_the_first_request_on(
        start_site, collector, engine):
    for attempt in attempts(start_site, engine):
        with attempt as (site, first):
            load = loaded(site, first, REQUESTS)
            page_calls.check_payloads(collector, load.answers)
            check_server(site, engine)
            check_threads(site)


def test_same_load_on_the_bare_engine(start_site, engine):
    """What the other tests demand of a server, or excuse, goes for one without the extension."""
    for attempt in attempts(start_site, engine, loaded=False):
        with attempt as (site, first):
            loaded(site, first, REQUESTS)
            check_server(site, engine)
            check_threads(site)


def test_first_requests_that_all_come_at_once(start_site, collector, engine):
    """The threads of a fresh process begin together, several times."""
    for attempt in attempts(start_site, engine):
        with attempt as (site, begin):
            for first in range(begin, begin + 5 * CLIENTS, CLIENTS):
                load = loaded(site, first, CLIENTS)
                page_calls.check_payloads(collector, load.answers)
                site.restart_gracefully()
            check_server(site, engine)


def test_ten_graceful_restarts_under_load(start_site, collector, engine):
    for attempt in attempts(start_site, engine):
        with attempt as (site, first):
            with Load(site, page_calls.path_of, first) as load:
                for restart in range(RESTARTS):
                    load.wait_for(restart * PER_GENERATION)
                    site.restart_gracefully()
            check_answers(load)
            assert site.generations() == RESTARTS + 1
            assert len({answer.process for answer in load.answers.values()}) >= RESTARTS
            page_calls.check_payloads(collector, load.answers)
            page_calls.check_payloads(collector, loaded(site, first + 1000000, AFTERWARDS).answers)
            check_server(site, engine)
