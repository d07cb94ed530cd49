"""Which spellings of the trace headers real servers hand over, and what follows from that."""
import json

import front_ends
import loopback
import pytest
import services
from payloads import HEX32
from services import KEY, ROUTED_PAGE, route_uri

TRACE, PARENT = "0af7651916cd43dd8448eb211c80319c", "b7ad6b7169203331"
TRACEPARENT = "00-%s-%s-01" % (TRACE, PARENT)
ORIGIN = '{"flow":"a1;"}'
TELL = "echo json_encode(function_exists('getallheaders') ? getallheaders() : null);"


@pytest.fixture(scope="module", params=sorted(front_ends.KINDS))
def kind(request):
    return request.param


def hands_headers_over(engine, kind):
    return kind != "nginx-fpm" or engine.fpm_has_getallheaders


def keeps_spelling(kind):
    """CGI's variables have capitals alone: what the engine makes of them begins each word with one
    and goes on in small letters."""
    return kind == "apache"


def started(engine, directory, kind, source, name="A"):
    if not {"nginx-fpm": engine.fpm, "nginx-cgi": engine.cgi}.get(kind, engine.apache_module):
        pytest.skip("this engine has no program or module for " + kind)
    try:
        return services.Service(engine, directory, front_ends.KINDS[kind], source, app_id=name,
                                key=KEY)
    except loopback.Unavailable as reason:
        pytest.fail(str(reason))


@pytest.fixture(scope="module")
def site(engine, kind, tmp_path_factory):
    service = started(engine, tmp_path_factory.mktemp("site"), kind, TELL)
    yield service
    service.close()


def heard(engine, kind, name):
    """Under which name the script finds a header, or None."""
    if not hands_headers_over(engine, kind):
        return None
    return name if keeps_spelling(kind) else "-".join(
        word.capitalize() for word in name.split("-"))


@pytest.mark.parametrize("name", ["traceparent", "Traceparent", "TRACEPARENT", "TraceParent"])
def test_spelling_of_the_parent_header(engine, kind, site, name):
    payload, body = site.ask(headers=[(name, TRACEPARENT)])
    found = heard(engine, kind, name)
    headers = json.loads(body) or {}
    assert [key for key in headers if key.lower() == "traceparent"] == ([found] if found else [])
    if found in ("traceparent", "Traceparent"):
        assert (payload.trace_id, payload.parent) == (TRACE, PARENT)
    else:
        assert HEX32.match(payload.trace_id) and payload.trace_id != TRACE
        assert payload.parent is None


def test_header_that_comes_twice_is_what_the_server_makes_of_it(engine, kind, site):
    values = [TRACEPARENT, "00-%s-%s-01" % ("c" * 32, "d" * 16)]
    payload, body = site.ask(headers=[("traceparent", value) for value in values])
    if not hands_headers_over(engine, kind):
        assert json.loads(body) is None
    else:
        (found,) = (value for name, value in json.loads(body).items()
                    if name.lower() == "traceparent")
        assert found in (*values, ", ".join(values))
        if found in values:
            assert (payload.trace_id, payload.parent) == (found[3:35], found[36:52])
            return
    assert payload.parent is None and payload.trace_id not in (TRACE, "c" * 32)


@pytest.mark.parametrize("account", ["X-Skelvor-Id", "x-skelvor-id", "X-SKELVOR-ID"])
@pytest.mark.parametrize("origin", ["X-Skelvor-Origin", "x-skelvor-origin", "X-SKELVOR-ORIGIN"])
def test_spelling_of_the_account_and_origin_headers(engine, kind, site, account, origin):
    payload, body = site.ask(headers=[(account, KEY[-12:]), (origin, ORIGIN)])
    found = heard(engine, kind, account), heard(engine, kind, origin)
    headers = json.loads(body) or {}
    assert sorted(key for key in headers if "skelvor" in key.lower()) == sorted(filter(None, found))
    taken = found == ("X-Skelvor-Id", "X-Skelvor-Origin")
    assert payload.origin.get("flow") == ("a1;" if taken else None)


def test_services_behind_real_servers_are_one_trace_where_headers_are_handed_over(
        engine, kind, tmp_path):
    chain = []
    try:
        for name in "ABC":
            chain.append(started(engine, tmp_path / name, kind, ROUTED_PAGE, name))
        a, b, c = chain
        a.get(route_uri(("exec", [b.url]), ("multi", [c.url])))
        seen_a, seen_b, seen_c = (service.collector.payload for service in chain)
        joined = [
            (seen_b.trace_id == seen_a.trace_id, [seen_b.parent] == seen_a.ids_of("curl_exec")),
            (seen_c.trace_id == seen_a.trace_id,
             [seen_c.parent] == seen_b.ids_of("curl_multi_exec"))]
        flows = [payload.origin for payload in (seen_a, seen_b, seen_c)]
    finally:
        for service in chain:
            service.close()
    if hands_headers_over(engine, kind):
        assert joined == [(True, True)] * 2
        assert flows == [{"async": False}, {"async": False, "flow": "A;"},
                         {"async": True, "flow": "B;"}]
    else:
        assert joined == [(False, False)] * 2
        assert flows == [{"async": False}] * 3
        assert seen_b.parent is None and seen_c.parent is None
