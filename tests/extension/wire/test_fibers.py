"""Calls in fibers: each fiber has a current span of its own, and every span ends once."""
import random

import pytest

CHECK = "if (!class_exists('Fiber')) { echo 'no fibers'; exit; }\n"


@pytest.fixture
def fibers(wire, collector):
    """Runs a script of fibers with a threshold; gives its output and the payload."""
    def run(source, threshold=0):
        result = wire.cli(CHECK + source, settings={"kaq.method_threshold": threshold})
        if result.stdout == b"no fibers":
            pytest.skip("no fibers in this engine")
        return result, collector.payload
    return run


def assert_whole(payload):
    """Every key has one span, and every parent is there."""
    assert [span["mo"] for span in payload.spans] == list(range(len(payload.spans)))
    identifiers = {span["si"] for span in payload.spans}
    assert len(identifiers) == len(payload.spans)
    assert payload.root["fn"] == "main" and "psi" not in payload.root
    assert all(span["psi"] in identifiers for span in payload.spans[1:])


TAKING_TURNS = """
    function work($ms) { usleep($ms * 1000); }
    function waits() { work(%(ms)d); Fiber::suspend(); work(%(ms)d); after(); }
    function after() { work(%(ms)d); }
    function resumes($fiber) { work(%(ms)d); $fiber->resume(); after(); }
    $fiber = new Fiber('waits');
    $fiber->start();
    resumes($fiber);
    after();
    echo 'done';
"""


@pytest.mark.parametrize("threshold, ms", [(0, 0), (10, 12)])
def test_calls_hang_below_the_call_that_their_own_fiber_is_in(fibers, threshold, ms):
    result, payload = fibers(TAKING_TURNS % {"ms": ms}, threshold)
    assert result.stdout == b"done"
    assert_whole(payload)
    work = ("work", [])
    after = ("after", [work])
    assert payload.tree() == ("main", [
        ("waits", [work, work, after]), ("resumes", [work, after]), after])


ENDINGS = {
    "an_exit_inside": "function f() { Fiber::suspend(); exit(3); }",
    "an_exception_thrown_out": "function f() { Fiber::suspend(); throw new Exception('out'); }",
    "nothing_more": "function f() { Fiber::suspend(); }",
}


@pytest.mark.parametrize("ending", sorted(ENDINGS))
@pytest.mark.parametrize("threshold", [0, 10])
def test_a_fiber_that_is_resumed_in_a_later_call_ends_with(fibers, ending, threshold):
    _, payload = fibers(ENDINGS[ending] + """
        function later($fiber) { $fiber->resume(); }
        $fiber = new Fiber('f');
        $fiber->start();
        later($fiber);
    """, threshold)
    assert_whole(payload)


def test_a_fiber_that_is_dropped_while_suspended_is_closed(fibers):
    result, payload = fibers("""
        function starts() { $f = new Fiber(function () { inside(); }); $f->start(); return $f; }
        function inside() { Fiber::suspend(); }
        function idle() {}
        $fiber = starts();
        idle();
        $fiber = null;
        idle();
        echo 'done';
    """)
    assert result.stdout == b"done"
    assert_whole(payload)
    assert sorted(payload.names) == ["idle", "idle", "inside", "starts", "{closure}"]


@pytest.mark.parametrize("seed", range(8))
def test_fibers_that_take_turns_at_random(fibers, seed):
    order = random.Random(seed)
    steps = ",".join(str(order.randrange(5)) for _ in range(60))
    result, payload = fibers("""
        function step($name, $depth) {
            if ($depth > 0) { step($name, $depth - 1); return; }
            Fiber::suspend();
        }
        function worker($name) { for ($i = 0; $i < 12; $i++) step($name, $i %% 3); }
        function turn($fiber, $name) {
            $fiber->isStarted() ? $fiber->resume() : $fiber->start($name);
        }
        $fibers = [];
        for ($i = 0; $i < 5; $i++) $fibers[] = new Fiber('worker');
        foreach ([%s] as $next) {
            if (!$fibers[$next]->isTerminated()) turn($fibers[$next], $next);
        }
        echo 'done';
    """ % steps)
    assert result.stdout == b"done", steps
    assert_whole(payload)


@pytest.mark.parametrize("threshold", [0, 10])
def test_a_fiber_without_a_span_of_its_own_does_not_keep_that_of_its_starter(fibers, threshold):
    result, payload = fibers("""
        function starts() { $f = new Fiber('Fiber::suspend'); $f->start(1); return $f; }
        function idle() { usleep(100); }
        function resumes($fiber) { $fiber->resume(); idle(); }
        for ($i = 0; $i < 20; $i++) {
            $fiber = starts();
            idle();
            resumes($fiber);
            idle();
        }
        $kept = starts();
        idle();
        usleep(12000);
        echo 'done';
    """, threshold)
    assert result.stdout == b"done"
    assert_whole(payload)
    if threshold == 0:
        idle = ("idle", [])
        assert payload.tree()[1][:4] == [("starts", []), idle, ("resumes", [idle]), idle]


def test_nested_fibers_without_spans_return_to_the_span_they_came_from(fibers):
    result, payload = fibers("""
        function outer() {
            $inner = new Fiber('Fiber::suspend');
            $inner->start(1);
            Fiber::suspend($inner);
            $inner->resume();
            leaf();
        }
        function leaf() {}
        function goes_on($fiber) { leaf(); $fiber->resume(); leaf(); }
        $fiber = new Fiber('outer');
        $fiber->start();
        goes_on($fiber);
        leaf();
        echo 'done';
    """)
    assert result.stdout == b"done"
    assert_whole(payload)
    leaf = ("leaf", [])
    assert payload.tree() == ("main", [
        ("outer", [leaf]), ("goes_on", [leaf, leaf]), leaf])
