"""The interface over HTTP: its services, their description, logging in."""
import http.client
import json
import pathlib
import urllib.parse

import pytest
import yaml

import requests_of

DESCRIPTION = pathlib.Path(__file__).resolve().parents[3] / "docs" / "openapi.yaml"
# Routes that are no services.
OTHERS = {("GET", "/healthz"), ("GET", "/login"), ("GET", "/api/v1/live"), ("GET", "/api/v1/doctor"),
          ("POST", "/api/v1/doctor")}


def ask(collector, method, path, headers=None, **parameters):
    """(status, headers, body) with the token."""
    connection = http.client.HTTPConnection("127.0.0.1", collector.http, timeout=10)
    given = {"Authorization": "Bearer " + collector.token, **(headers or {})}
    query = urllib.parse.urlencode(parameters)
    connection.request(method, path + ("?" + query if query else ""), headers=given)
    response = connection.getresponse()
    body = response.read()
    connection.close()
    return response.status, response.headers, body


def get(collector, path, **parameters):
    status, _, body = ask(collector, "GET", path, **parameters)
    assert status == 200, body
    return json.loads(body)


def resolved(description, node):
    """What a reference within the description stands for."""
    while "$ref" in node:
        found = description
        for part in node["$ref"].lstrip("#/").split("/"):
            found = found[part]
        node = found
    return node


def documented():
    """{(method, path): {parameter: required}}"""
    description = yaml.safe_load(DESCRIPTION.read_text())
    routes = {}
    for path, methods in description["paths"].items():
        for method, route in methods.items():
            parameters = [resolved(description, each) for each in route.get("parameters", [])]
            routes[method.upper(), path] = {
                each["name"]: each.get("required", False) for each in parameters}
    return routes


def references(node):
    if isinstance(node, dict):
        if "$ref" in node:
            yield node
        for each in node.values():
            yield from references(each)
    elif isinstance(node, list):
        for each in node:
            yield from references(each)


def test_every_service_is_described_and_none_else(collector):
    services = {
        (each["method"], each["path"]): {one["name"]: one["required"] for one in each["parameters"]}
        for each in get(collector, "/api/v1/services")["services"]}
    described = documented()
    assert set(described) - set(services) == OTHERS
    assert {route: described[route] for route in services} == services


def test_every_reference_of_the_description_leads_somewhere():
    description = yaml.safe_load(DESCRIPTION.read_text())
    found = list(references(description))
    assert found
    for each in found:
        assert resolved(description, each)


@pytest.mark.parametrize("path, schema", [("/api/v1/requests", "Request"), ("/api/v1/request", "Span")])
def test_every_member_is_described(collector, path, schema):
    requests_of.send_cart(collector, "00000000000000c1")
    description = yaml.safe_load(DESCRIPTION.read_text())
    known = set(description["components"]["schemas"][schema]["properties"])
    if schema == "Request":
        members = get(collector, path)["requests"]
    else:
        members = get(collector, path, id="00000000000000c1")["spans"]
    assert members and set().union(*members) <= known


def responses():
    """[(method, path, documented statuses)]"""
    description = yaml.safe_load(DESCRIPTION.read_text())
    return [(method.upper(), path, {int(status) for status in route["responses"]})
            for path, methods in description["paths"].items() for method, route in methods.items()]


@pytest.mark.parametrize("headers, refusal", [
    ({"Authorization": ""}, 401), ({"Origin": "http://evil.example"}, 403),
    ({"X-Long": "x" * 20000}, 413), ({"Host": "evil.example"}, 421)])
def test_refusals_are_described(collector, headers, refusal):
    refused = {(method, path) for method, path, statuses in responses() if refusal in statuses}
    is_open = {("GET", "/healthz")} if refusal == 401 else set()
    assert {(method, path) for method, path, _ in responses()} - refused == is_open
    for method, path in refused:
        assert ask(collector, method, path, headers)[0] == refusal, path


def test_what_workers_answer_may_be_busy(collector):
    services = {(each["method"], each["path"]) for each in get(collector, "/api/v1/services")["services"]}
    assert services <= {(method, path) for method, path, statuses in responses() if 503 in statuses}


def test_services_need_the_token_and_their_method(collector):
    assert ask(collector, "GET", "/api/v1/status", {"Authorization": "Bearer no"})[0] == 401
    status, headers, _ = ask(collector, "POST", "/api/v1/status")
    assert (status, headers["Allow"]) == (405, "GET")
    status, headers, _ = ask(collector, "GET", "/api/v1/pin", id="0000")
    assert (status, headers["Allow"]) == (405, "POST")
    status, _, body = ask(collector, "GET", "/api/v1/nothing")
    assert status == 404 and json.loads(body)["error"]["message"]


def log_in(collector):
    """The cookie of a browser that was logged in, as it sends it."""
    link = urllib.parse.urlsplit(collector.run("open").stdout.strip())
    status, headers, _ = ask(collector, "GET", "/login?" + link.query, {"Authorization": ""})
    assert status == 303
    return headers["Set-Cookie"].partition(";")[0]


def test_another_sites_page_changes_nothing(collector):
    headers = {"Origin": "http://evil.example", "Authorization": "", "Cookie": log_in(collector)}
    assert ask(collector, "POST", "/api/v1/mark", headers, text="x")[0] == 403
    assert get(collector, "/api/v1/marks")["marks"] == []


def test_a_mistake_tells_its_parameter(collector):
    status, _, body = ask(collector, "GET", "/api/v1/requests", limit="many")
    assert status == 400 and json.loads(body)["error"]["parameter"] == "limit"


def test_a_head_has_no_body(collector):
    status, headers, body = ask(collector, "HEAD", "/api/v1/status")
    assert status == 200 and body == b"" and int(headers["Content-Length"]) > 10


def test_a_link_logs_a_browser_in_once(collector):
    link = collector.run("open")
    assert (link.returncode, link.stderr) == (0, "")
    address = urllib.parse.urlsplit(link.stdout.strip())
    assert (address.hostname, address.port) == ("127.0.0.1", collector.http)
    code = urllib.parse.parse_qs(address.query)["code"][0]
    nobody = {"Authorization": ""}
    assert collector.token not in link.stdout
    status, headers, _ = ask(collector, "GET", address.path, nobody, code=code)
    assert (status, headers["Location"]) == (303, "/")
    cookie = headers["Set-Cookie"]
    assert "HttpOnly" in cookie and "SameSite=Strict" in cookie
    logged_in = {"Authorization": "", "Cookie": cookie.partition(";")[0]}
    assert cookie.startswith("kaq_session_%d=" % collector.http) and collector.token not in cookie
    assert ask(collector, "GET", "/api/v1/status", logged_in)[0] == 200
    session = cookie.partition("=")[2].partition(";")[0]
    assert ask(collector, "GET", "/api/v1/status", {"Authorization": "Bearer " + session})[0] == 401
    assert ask(collector, "GET", address.path, nobody, code=code)[0] == 401
    assert ask(collector, "GET", address.path, nobody, code="")[0] == 401


def test_a_restart_logs_no_browser_out(collector):
    value = log_in(collector).partition("=")[2]
    assert (collector.store / "sessions").stat().st_mode & 0o077 == 0
    assert collector.stop() == (0, "")
    again = type(collector)(collector.program, collector.store)
    try:
        logged_in = {"Authorization": "", "Cookie": "kaq_session_%d=%s" % (again.http, value)}
        assert ask(again, "GET", "/api/v1/status", logged_in)[0] == 200
    finally:
        assert again.stop() == (0, "")


def test_who_comes_over_tcp_gets_no_link(collector):
    assert ask(collector, "POST", "/api/v1/login-link")[0] in (404, 405)
