"""The extension and an independent implementation of W3C Trace Context understand each other's
traceparent. The latter is installed from its package into the cache, outside the checkout."""
import fcntl
import hashlib
import json
import os
import pathlib
import secrets
import shutil
import subprocess

import pytest
import services
from payloads import HEX16

HERE = pathlib.Path(__file__).resolve().parent / "interop"
INSTALL_DEADLINE = 180.0
ANSWER_DEADLINE = 30.0
UNREACHABLE = ("ENOTFOUND", "EAI_AGAIN", "ECONNREFUSED", "ECONNRESET", "ETIMEDOUT", "ENETUNREACH",
               "EHOSTUNREACH", "E401", "E403", "E407", "E503",
               # A network that stands in between with certificates that npm does not know.
               "SELF_SIGNED_CERT", "UNABLE_TO_GET_ISSUER_CERT", "UNABLE_TO_VERIFY_LEAF_SIGNATURE",
               "CERT_UNTRUSTED")
SAMPLED = 1

PAGE = services.CALLS + """
$_GET['how'] === 'exec' ? call_one_by_one([$_GET['call']]) : call_at_once([$_GET['call']]);
"""


def install(directory):
    """Skips where the packages' source is out of reach; whatever else goes wrong is a failure."""
    try:
        done = subprocess.run(
            ["npm", "ci", "--ignore-scripts", "--no-audit", "--no-fund"], cwd=directory,
            stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.STDOUT,
            timeout=INSTALL_DEADLINE)
    except subprocess.TimeoutExpired:
        pytest.skip("npm did not end in %d s" % INSTALL_DEADLINE)
    told = done.stdout.decode("utf-8", "replace")
    if done.returncode != 0 and any(reason in told for reason in UNREACHABLE):
        pytest.skip("npm cannot reach its packages: " + told[-200:])
    assert done.returncode == 0, told[-3000:]


def installed():
    """The directory of the package; one install serves all runs with the same lock file."""
    lock = (HERE / "package-lock.json").read_bytes()
    cache = pathlib.Path(os.environ.get("XDG_CACHE_HOME") or pathlib.Path.home() / ".cache", "kaq")
    directory = cache / ("interop-" + hashlib.sha256(lock).hexdigest()[:16])
    directory.mkdir(parents=True, exist_ok=True)
    with open(directory / "lock", "w", encoding="ascii") as guard:
        fcntl.flock(guard, fcntl.LOCK_EX)
        if not (directory / "complete").exists():
            for name in ("package.json", "package-lock.json"):
                shutil.copy(HERE / name, directory / name)
            install(directory)
            (directory / "complete").touch()
    return directory


@pytest.fixture(scope="module")
def propagator():
    """propagator([request ...]): the answers of propagate.js."""
    node = shutil.which("node")
    if not node:
        pytest.skip("node is not installed")
    environment = dict(os.environ, NODE_PATH=str(installed() / "node_modules"))

    def ask(requests):
        lines = "".join(json.dumps(request) + "\n" for request in requests)
        done = subprocess.run([node, str(HERE / "propagate.js")], input=lines.encode(),
                              capture_output=True, timeout=ANSWER_DEADLINE, env=environment)
        assert done.returncode == 0, done.stderr.decode("utf-8", "replace")[-3000:]
        answers = [json.loads(line) for line in done.stdout.splitlines()]
        assert len(answers) == len(requests)
        return answers
    return ask


@pytest.fixture
def front(engine, tmp_path):
    service = services.Service(engine, tmp_path / "front", "builtin", PAGE, app_id="A")
    yield service
    service.close()


@pytest.mark.parametrize("how,span", [("exec", "curl_exec"), ("multi", "curl_multi_exec")])
def test_what_we_send_is_accepted_as_the_context_of_the_calling_span(
        propagator, front, echo, how, span):
    sent, payloads = [], []
    for _ in range(20):
        payload, body = front.ask("/?how=%s&call=%s" % (how, echo.url))
        payloads.append(payload)
        sent.append(json.loads(body))
    found = propagator([{"extract": headers} for headers in sent])
    for payload, context in zip(payloads, found):
        (calling,) = payload.ids_of(span)
        assert (context["traceId"], context["spanId"]) == (payload.trace_id, calling)
        assert context["traceFlags"] == SAMPLED and context["isRemote"] is True
    assert len({context["traceId"] for context in found}) == len(found)


def test_the_parser_that_accepts_ours_refuses_what_is_none(propagator):
    good = "00-%s-%s-01" % ("1" * 32, "2" * 16)
    bad = ["00-%s-%s-01" % ("0" * 32, "2" * 16), "ff" + good[2:], good[:-1], good + "-x",
           good.replace("1", "g")]
    found = propagator([{"extract": {"traceparent": value}} for value in [good, *bad]])
    assert found[0]["spanId"] == "2" * 16 and found[1:] == [None] * len(bad)


def pytest_generate_tests(metafunc):
    if "through" in metafunc.fixturenames:
        metafunc.parametrize("through", services.interfaces_with_request_headers())


@pytest.mark.parametrize("flags", [SAMPLED, 0], ids=["sampled", "not sampled"])
def test_what_it_sends_is_taken_over(propagator, engine, tmp_path, through, flags):
    contexts = [{"traceId": secrets.token_hex(16), "spanId": secrets.token_hex(8),
                 "traceFlags": flags} for _ in range(20)]
    service = services.Service(engine, tmp_path, through, "")
    try:
        for context, headers in zip(contexts, propagator(
                [{"inject": context} for context in contexts])):
            payload, _ = service.ask(headers=headers.items())
            assert (payload.trace_id, payload.parent) == (context["traceId"], context["spanId"])
            assert HEX16.match(payload.root["si"]) and payload.root["si"] != context["spanId"]
    finally:
        service.close()
