"""One trace through several services: real processes that call each other, a collector for each."""
import json

import engines
import pytest
import services
from payloads import HEX16, HEX32
from services import KEY, ROUTED_PAGE, route_uri

OTHER_KEY = "the-key-of-quite-another-account-Zy8Xw7Vu6Ts5"
OUTSIDE_TRACE, OUTSIDE_SPAN = "4bf92f3577b34da6a3ce929d0e0e4736", "00f067aa0ba902b7"


@pytest.fixture
def start(engine, tmp_path):
    """start(name, kind="builtin", ...): a running service whose application id is its name."""
    started = []

    def start_one(name, kind="builtin", **options):
        given = {"app_id": name, "key": KEY, **options}
        service = services.Service(engine, tmp_path / name, kind, ROUTED_PAGE, **given)
        started.append(service)
        return service

    yield start_one
    for service in started:
        service.close()


def travel(front, *hops, headers=()):
    """Enters `front`, which takes the first hop: a pair of "exec" or "multi" and the services to
    call; each of them takes the next one."""
    return front.get(route_uri(*as_route(hops)), headers)


def as_route(hops):
    return [(how, [service.url for service in called]) for how, *called in hops]


def origin(payload):
    return payload.origin["async"], payload.origin.get("flow")


def caller(payload, how="exec"):
    """The span ids that the calls of this request have, by which a callee names its caller."""
    found = payload.ids_of({"exec": "curl_exec", "multi": "curl_multi_exec"}[how])
    assert found and all(HEX16.match(identifier) for identifier in found)
    return found


def check_one_trace(*payloads):
    traces = {payload.trace_id for payload in payloads}
    assert len(traces) == 1 and HEX32.match(traces.pop())


HOW = [("exec", "exec"), ("exec", "multi"), ("multi", "exec"), ("multi", "multi")]


@pytest.mark.parametrize("kind", ["builtin", "cgi", "fpm"])
@pytest.mark.parametrize("first,second", HOW)
def test_three_services_are_one_trace_joined_by_their_calls(start, kind, first, second):
    a, b, c = start("A", kind), start("B"), start("C")
    travel(a, (first, b), (second, c))
    seen_a, seen_b, seen_c = a.collector.payload, b.collector.payload, c.collector.payload
    check_one_trace(seen_a, seen_b, seen_c)
    assert seen_a.parent is None
    assert [seen_b.parent] == caller(seen_a, first)
    assert [seen_c.parent] == caller(seen_b, second)
    assert origin(seen_a) == (False, None)
    assert origin(seen_b) == (first == "multi", "A;")
    assert origin(seen_c) == (second == "multi", {
        ("exec", "exec"): "A;B;", ("exec", "multi"): "B;", ("multi", "exec"): "B;",
        ("multi", "multi"): "B;"}[first, second])


@pytest.mark.parametrize("kind", ["cgi", "fpm"])
def test_chain_goes_on_through_a_fastcgi_server_in_the_middle(start, engine, kind):
    """Its headers come as a web server passes them on: those that the first service sent."""
    if kind == "fpm" and not engine.fpm_has_getallheaders:
        pytest.skip("no request headers reach this engine under FPM")
    a, b, c = start("A"), start("B", kind), start("C")
    echo = services.Echo(engine, a.path.parent / "echo")
    try:
        sent = json.loads(travel(a, ("exec", echo)))
    finally:
        echo.close()
    headers = [(name, value) for name, value in sent.items() if name != "Host"]
    b.get(route_uri(("exec", [c.url])), headers)
    seen_a, seen_b, seen_c = a.collector.payload, b.collector.payload, c.collector.payload
    check_one_trace(seen_a, seen_b, seen_c)
    assert [seen_b.parent] == caller(seen_a) and [seen_c.parent] == caller(seen_b)
    assert (origin(seen_b), origin(seen_c)) == ((False, "A;"), (False, "A;B;"))


def test_flow_grows_again_after_an_asynchronous_hop(start):
    a, b, c, d = (start(name) for name in "ABCD")
    travel(a, ("multi", b), ("exec", c), ("exec", d))
    seen = [service.collector.payload for service in (a, b, c, d)]
    check_one_trace(*seen)
    assert [origin(payload) for payload in seen] == [
        (False, None), (True, "A;"), (False, "B;"), (False, "B;C;")]
    assert [seen[3].parent] == caller(seen[2])


def test_four_synchronous_hops(start):
    chain = [start(name) for name in "ABCD"]
    travel(chain[0], *(("exec", service) for service in chain[1:]))
    seen = [service.collector.payload for service in chain]
    check_one_trace(*seen)
    assert [origin(payload)[1] for payload in seen] == [None, "A;", "A;B;", "A;B;C;"]
    for called, calling in zip(seen[1:], seen):
        assert [called.parent] == caller(calling)


def test_outside_trace_is_joined_by_all(start):
    a, b = start("A"), start("B")
    travel(a, ("exec", b), headers=[
        ("traceparent", "00-%s-%s-01" % (OUTSIDE_TRACE, OUTSIDE_SPAN))])
    seen_a, seen_b = a.collector.payload, b.collector.payload
    assert (seen_a.trace_id, seen_a.parent) == (OUTSIDE_TRACE, OUTSIDE_SPAN)
    assert seen_b.trace_id == OUTSIDE_TRACE and [seen_b.parent] == caller(seen_a)


@pytest.mark.parametrize("how", ["exec", "multi"])
def test_each_call_of_a_request_is_the_parent_of_what_it_called(start, how):
    a, b, c = start("A"), start("B"), start("C")
    travel(a, (how, b, c))
    seen = a.collector.payload
    check_one_trace(seen, b.collector.payload, c.collector.payload)
    urls = {span["si"]: span["hn"].partition("?")[0] for span in seen.spans if "hn" in span}
    called = {payload.parent: service.url for service, payload in (
        (b, b.collector.payload), (c, c.collector.payload))}
    assert len(called) == 2 and urls == called
    assert sorted(called) == sorted(caller(seen, how))


def test_same_service_called_twice_is_told_apart(start):
    a, b = start("A"), start("B")
    travel(a, ("exec", b, b))
    b.collector.wait_until(lambda: len(b.collector.data_records) == 2)
    parents = [services.Payload(record.raw).parent for record in b.collector.data_records]
    assert parents == caller(a.collector.payload) and parents[0] != parents[1]


@pytest.mark.parametrize("how", ["exec", "multi"])
def test_background_run_begins_a_chain_without_being_in_its_flow(
        start, wire, engine, collector, how):
    b, c = start("B"), start("C")
    collector.reply = dict(collector.reply, **{"app.id": "JOB"})
    script = wire.script(ROUTED_PAGE)
    options = wire.options({"kaq.capture_distributed_trace": 1})
    route = json.dumps(as_route([(how, b), ("exec", c)]))
    result = engines.run([engine.php, *options, *services.curl_options(engine), str(script), route],
                         env={"KAQ_ACCOUNT_KEY": KEY})
    assert result.status == 0, result
    job = services.Payload(collector.payload.raw)
    seen_b, seen_c = b.collector.payload, c.collector.payload
    check_one_trace(job, seen_b, seen_c)
    assert job.transaction["transaction_type"] == 0
    assert [seen_b.parent] == caller(job, how)
    assert (origin(seen_b), origin(seen_c)) == ((False, None), (False, "B;"))


# Services that do not take part in full ----------------------------------------------------------

@pytest.mark.parametrize("keys", [
    (KEY, OTHER_KEY, KEY), (KEY, None, KEY), (KEY, KEY, OTHER_KEY), (None, None, None)],
    ids=["other in the middle", "none in the middle", "other at the end", "none at all"])
@pytest.mark.parametrize("how", ["exec", "multi"])
def test_another_account_is_in_the_trace_and_gets_no_flow(start, keys, how):
    a, b, c = (start(name, key=key) for name, key in zip("ABC", keys))
    travel(a, (how, b), ("exec", c))
    seen_a, seen_b, seen_c = a.collector.payload, b.collector.payload, c.collector.payload
    check_one_trace(seen_a, seen_b, seen_c)
    assert [seen_b.parent] == caller(seen_a, how) and [seen_c.parent] == caller(seen_b)
    same = keys[0] == keys[1] and keys[0] is not None
    assert origin(seen_b) == ((how == "multi", "A;") if same else (False, None))
    assert origin(seen_c) == (False, None)


@pytest.mark.parametrize("app_id", [None, ""])
def test_service_without_an_application_id_leaves_no_flow(start, app_id):
    a, b, c = start("A"), start("B", app_id=app_id), start("C")
    travel(a, ("exec", b), ("exec", c))
    seen_b, seen_c = b.collector.payload, c.collector.payload
    check_one_trace(seen_b, seen_c)
    assert [seen_c.parent] == caller(seen_b)
    assert (origin(seen_b), origin(seen_c)) == ((False, "A;"), (False, None))


@pytest.mark.parametrize("how", ["exec", "multi"])
def test_service_that_adds_no_headers_ends_the_trace(start, how):
    a, b, c = start("A"), start("B", settings={"kaq.capture_distributed_trace": 0}), start("C")
    travel(a, ("exec", b), (how, c))
    seen_b, seen_c = b.collector.payload, c.collector.payload
    check_one_trace(a.collector.payload, seen_b)
    assert len(caller(seen_b, how)) == 1
    assert seen_c.parent is None and seen_c.trace_id != seen_b.trace_id
    assert origin(seen_c) == (False, None)


@pytest.mark.parametrize("how", ["exec", "multi"])
def test_service_that_is_not_monitored_ends_the_trace(start, how):
    a, b, c = start("A"), start("B"), start("C")
    b.collector.reply = {"instance.id": "i-1", "instance.status": 0}
    travel(a, ("exec", b), (how, c))
    assert len(b.collector.notices) == 1
    seen_a, seen_c = a.collector.payload, c.collector.payload
    assert len(caller(seen_a)) == 1
    assert seen_c.parent is None and seen_c.trace_id != seen_a.trace_id


@pytest.mark.parametrize("first,second", HOW)
def test_chain_makes_no_difference_to_what_the_services_answer(start, first, second):
    answers = []
    for monitored in (False, True):
        names = ["%s%d" % (name, monitored) for name in "abc"]
        a, b, c = (start(name, monitored=monitored) for name in names)
        c.path.write_text("<?php echo 'the end';", encoding="ascii")
        answers.append(travel(a, (first, b), (second, c)))
    assert answers == [b"the end"] * 2
