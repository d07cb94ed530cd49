"""Scripts that use curl, run against the scripted HTTP server and the fake collector."""
import collections
import subprocess

import engines
import pytest
import server_interfaces
from fake_collector import DISABLED, ENABLED
from http_server import HttpServer, path_of, values_of

KEY = "an account key: 0123456789ab"
ACCOUNT = "0123456789ab"
TRACE_NAMES = ("X-Skelvor-Id", "traceparent", "X-Skelvor-Origin")

OFF = {"kaq.capture_distributed_trace": 0, "kaq.capture_httpcall_metadata": 0}
MODES = {
    "neither": OFF,
    "trace": dict(OFF, **{"kaq.capture_distributed_trace": 1}),
    "headers": dict(OFF, **{"kaq.capture_httpcall_metadata": 1}),
    "both": {"kaq.capture_distributed_trace": 1, "kaq.capture_httpcall_metadata": 1},
}
# How a run can leave the wrapped functions without a span.
UNRECORDED = {
    "unmonitored": dict(MODES["both"]),
    "limit 0": dict(MODES["both"], **{"kaq.span_limit": 0}),
    "internal calls not tracked": dict(
        MODES["both"], **{"kaq.track_zend_execute_internal": 0}),
    "capture_http 0": dict(MODES["both"], **{"kaq.capture_http": 0}),
}

# Options of the trace and header machinery itself, by number as they stand in span names.
HTTPHEADER, HEADERFUNCTION = 10023, 20079

# Runs a multi handle to its end, and no longer than ten seconds.
FINISH = """
    $deadline = microtime(true) + 10;
    do { $status = curl_multi_exec($multi, $running); if ($running) {
        curl_multi_select($multi, 0.02); } } while ($running && microtime(true) < $deadline);
"""

Run = collections.namedtuple("Run", "result requests")


def trace_lines(request):
    """The header lines that are the extension's, by name."""
    return [line for line in request.headers
            if line.partition(":")[0].lower() in [name.lower() for name in TRACE_NAMES]]


def without_trace(request):
    """The request's bytes but for the extension's header lines."""
    kept = [line for line in request.headers if line not in trace_lines(request)]
    return "\r\n".join([request.line, *kept, "", ""]).encode("latin-1") + request.body


def caller_of(request):
    """The span identifier of the only traceparent line."""
    value, = values_of(request, "traceparent")
    version, _, caller, flags = value.split("-")
    assert (version, flags) == ("00", "01"), value
    return caller


def members(span, *left_out):
    """The span without its times, order and identifiers."""
    return {key: value for key, value in span.items()
            if key not in ("st", "et", "mo", "si", "psi", *left_out)}


def calls(payload, name):
    """The spans of that function, but no asynchronous ones."""
    return [span for span in payload.spans if span.get("fn") == name and "ar" not in span]


def transfers(payload):
    """The asynchronous spans of finished transfers."""
    return [span for span in payload.spans if "ar" in span]


def module_options(engine):
    """What the command line needs to have curl."""
    listed = subprocess.run(
        [engine.php, "-n", "-m"], stdin=subprocess.DEVNULL, capture_output=True,
        timeout=engines.RUN_DEADLINE, check=True, env=engines.environment()).stdout.split()
    return [] if b"curl" in listed else ["-d", "extension=curl"]


class CurlRuns:
    def __init__(self, wire, collector, server):
        self.wire, self.collector, self.server = wire, collector, server
        self.engine = wire.engine
        self.reply = dict(ENABLED, **{"app.id": "A1"})
        self._modules = module_options(self.engine)

    @property
    def prelude(self):
        return "$url = '%s'; $server = '127.0.0.1:%d';\n" % (self.server.url, self.server.port)

    def options(self, mode, settings, loaded):
        given = {"kaq.track_errors": 0, "kaq.track_exceptions": 0, "html_errors": 0,
                 "kaq.method_threshold": 1000000, "display_errors": 1, "error_reporting": -1}
        given.update(MODES.get(mode) or UNRECORDED[mode])
        given.update(settings or {})
        self.collector.reply = DISABLED if mode == "unmonitored" else self.reply
        return self.wire.options(given, loaded) + self._modules

    def run(self, source, mode="both", settings=None, loaded=True, key=KEY, name="job.php"):
        """A command-line run; what the server saw meanwhile is returned with the result."""
        path = self.wire.script(self.prelude + source, name)
        self.server.forget()
        env = {} if key is None else {"KAQ_ACCOUNT_KEY": key}
        result = engines.run(
            [self.engine.php, *self.options(mode, settings, loaded), str(path)], env=env)
        return Run(result, self.server.forget())

    def web(self, source, mode="both", settings=None, loaded=True, key=KEY, **variables):
        """A CGI request; HTTP_... variables are its headers."""
        self.wire.need(self.engine.cgi, "php-cgi")
        path = self.wire.script(self.prelude + source, "page.php")
        self.server.forget()
        if key is not None:
            variables["KAQ_ACCOUNT_KEY"] = key
        result = server_interfaces.run_cgi(
            self.engine, path, self.options(mode, settings, loaded), variables)
        return Run(result, self.server.forget())

    def same(self, source, *modes, settings=None):
        """Runs it without the extension, and with it in each mode: nobody can tell, but for the
        trace headers. The order of the requests does not count. Returns the last run.
        """
        bare = self.run(source, "neither", settings, loaded=False)
        for mode in modes or ["both"]:
            loaded = self.run(source, mode, settings)
            assert loaded.result.outcome == bare.result.outcome, mode
            assert sorted(map(without_trace, loaded.requests)) == sorted(
                map(without_trace, bare.requests)), mode
            for request in loaded.requests:
                names = [line.partition(":")[0] for line in trace_lines(request)]
                assert len(set(names)) == len(names), (mode, request.headers)
                assert not names or mode in ("trace", "both"), (mode, request.headers)
        return loaded

    def payload(self, source, mode="both", settings=None, output=None, **arguments):
        """The payload of a command-line run that ended well."""
        run = self.run(source, mode, settings, **arguments)
        assert run.result.status == 0 and run.result.stderr == b"", run.result
        if output is not None:
            assert run.result.stdout == output, run.result
        self.requests = run.requests
        return self.collector.payload


def by_path(requests):
    """Lists of requests by path."""
    found = collections.defaultdict(list)
    for request in requests:
        found[path_of(request)].append(request)
    return found


@pytest.fixture
def server():
    listening = HttpServer()
    yield listening
    listening.close()


@pytest.fixture
def curl(wire, collector, server):
    return CurlRuns(wire, collector, server)
