"""Monitored services: each an engine process with a collector, an application and an account key
of its own, and an `Echo` that tells what headers a call brought."""
import functools
import json
import pathlib
import urllib.parse

import engines
import payloads
import pytest
import server_interfaces
from fake_collector import ENABLED, FakeCollector

KEY = "the-key-of-the-account-of-the-tests-K7d9Qw3xZ1Lm"

# Functions of pages that call other services.
CALLS = """
function open_call($url) {
    $call = curl_init($url);
    curl_setopt($call, CURLOPT_RETURNTRANSFER, true);
    curl_setopt($call, CURLOPT_TIMEOUT, 20);
    return $call;
}
function call_one_by_one($urls) {
    foreach ($urls as $url) {
        echo curl_exec(open_call($url));
    }
}
function call_at_once($urls) {
    $multi = curl_multi_init();
    $calls = [];
    foreach ($urls as $url) {
        $calls[] = $call = open_call($url);
        curl_multi_add_handle($multi, $call);
    }
    do {
        curl_multi_exec($multi, $running);
        if ($running && curl_multi_select($multi, 0.2) < 0) {
            usleep(1000);
        }
    } while ($running);
    foreach ($calls as $call) {
        echo curl_multi_getcontent($call);
        curl_multi_remove_handle($multi, $call);
    }
    curl_multi_close($multi);
}
"""

# Follows its route: a list of hops, of which the first is taken here and the rest is passed on.
# A hop is a pair of "exec" or "multi" and the URLs to call.
ROUTED_PAGE = CALLS + """
$given = isset($_GET['route']) ? $_GET['route'] : (isset($argv[1]) ? $argv[1] : '[]');
$route = json_decode($given, true);
if ($route) {
    list($how, $urls) = array_shift($route);
    foreach ($urls as &$url) {
        $url .= '?route=' . urlencode(json_encode($route));
    }
    unset($url);
    $how === 'multi' ? call_at_once($urls) : call_one_by_one($urls);
}
"""


def curl_options(engine):
    """What loads curl where it is not built in; skips the test if the engine has none."""
    modules = engines.run([engine.php, "-n", "-m"]).stdout.decode().lower().split()
    if "curl" in modules:
        return []
    if not pathlib.Path(engine.extension_dir, "curl.so").exists():
        pytest.skip("this engine has no curl")
    return ["-d", "extension=curl.so"]


class Payload(payloads.Payload):
    """One whose origin object may begin with a comma, as that of an asynchronous call does."""

    def __init__(self, raw):
        super().__init__(raw)
        self.document = json.loads(self.text.replace('"origin":{,', '"origin":{'),
                                   object_pairs_hook=payloads.unique_members)

    @property
    def origin(self):
        return self.transaction["origin"]

    @property
    def trace_id(self):
        return self.transaction["trace_id"]

    @property
    def parent(self):
        """The span id of the caller, or None."""
        return self.root.get("psi")

    def ids_of(self, name):
        """The ids of all spans of that name that stand for a transfer, in key order."""
        return [span["si"] for span in self.spans if span["fn"] == name and "ex" in span]


class Placed:
    """An interface whose process has more in its environment. Put before the interface's class."""

    def __init__(self, environment, *arguments):
        self._environment = environment
        super().__init__(*arguments)

    def _start(self, command, env=None):
        super()._start(command, {**(env or {}), **self._environment})


class Builtin(Placed, server_interfaces.BuiltinServer):
    pass


class Cgi(Placed, server_interfaces.CgiServer):
    pass


class Fpm(Placed, server_interfaces.FpmServer):
    pass


# What a process of its own can be, and which program of the engine it needs.
PROGRAMS = {"builtin": "php", "cgi": "cgi", "fpm": "fpm"}
SERVER_INTERFACES = {
    "builtin": Builtin,
    "cgi": lambda environment, engine, options, page: Cgi(environment, engine, options),
    "fpm": lambda environment, engine, options, page: Fpm(environment, engine, options)}


@functools.lru_cache(maxsize=None)
def interfaces_with_request_headers():
    """The names of the interfaces that pass a request's headers to the engine under test."""
    engine = engines.find_engine()
    has = {"builtin": True, "cgi": engine.cgi, "fpm": engine.fpm and engine.fpm_has_getallheaders}
    return [name for name in SERVER_INTERFACES if has[name]]


class Collector(FakeCollector):
    @property
    def payload(self):
        """The payload of the only transaction since the last forget()."""
        self.wait_until(lambda: self.data_records)
        self.settle()
        assert len(self.data_records) == 1, [record.raw[:200] for record in self.data_records]
        return Payload(self.data_records[0].raw)


class Service:
    """`interface` starts the process: a name of SERVER_INTERFACES, where cgi is php-cgi as a FastCGI
    server, or something that can be called as they are. A test is skipped if the engine lacks its
    program.
    `key` and `app_id` may be None. Without `monitored` the extension is not even loaded, and there
    is no collector."""

    def __init__(self, engine, directory, interface, source, app_id=None, key=None, settings=None,
                 monitored=True):
        if interface in PROGRAMS and not getattr(engine, PROGRAMS[interface]):
            pytest.skip("this engine has no program for " + interface)
        self.collector = None
        self.path = pathlib.Path(directory) / "page.php"
        self.path.parent.mkdir(parents=True, exist_ok=True)
        self.path.write_text("<?php\n" + source, encoding="utf-8")
        options = ["-n", *curl_options(engine)]
        if monitored:
            self.collector = Collector()
            self.collector.reply = dict(ENABLED)
            if app_id is not None:
                self.collector.reply["app.id"] = app_id
            options += ["-d", "extension=" + engine.so, *engines.ini_options({
                "kaq.status_port": self.collector.status_port,
                "kaq.data_port": self.collector.data_port,
                "kaq.capture_distributed_trace": 1, **(settings or {})})]
        environment = {} if key is None else {"KAQ_ACCOUNT_KEY": key}
        try:
            start = SERVER_INTERFACES.get(interface, interface)
            self.server = start(environment, engine, options, self.path)
        except BaseException:
            self._close_collector()
            raise

    @property
    def speaks_http(self):
        """Otherwise FastCGI."""
        return hasattr(self.server, "port")

    @property
    def url(self):
        return "http://127.0.0.1:%d/" % self.server.port

    def get(self, uri="/", headers=(), **variables):
        """The body of the answer. `headers` are pairs, which an HTTP server gets as they are
        spelled. A FastCGI server gets them as a web server passes them on, and then `variables`,
        of which None removes one."""
        if self.speaks_http:
            assert not variables
            return self.server.request(uri, headers=list(headers)).body
        given = {"HTTP_" + name.upper().replace("-", "_"): value for name, value in headers}
        given.update(REQUEST_URI=uri, QUERY_STRING=uri.partition("?")[2])
        given.update(variables)
        return self.server.request(self.path, **given).body

    def ask(self, uri="/", headers=(), **variables):
        """The payload of this request alone, and the body of its answer."""
        self.collector.forget()
        body = self.get(uri, headers, **variables)
        return self.collector.payload, body

    def _close_collector(self):
        if self.collector:
            self.collector.close()

    def close(self):
        self.server.close()
        self._close_collector()


class Echo(Service):
    """A bare service that answers with the headers of the call."""

    def __init__(self, engine, directory):
        super().__init__(engine, directory, "builtin", "echo json_encode(getallheaders());",
                         monitored=False)


def route_uri(*hops):
    return "/?route=" + urllib.parse.quote(json.dumps(hops))
