"""Pages served with and without the extension, by servers that are started once for all tests."""
import gzip
import itertools
import re

import engines
import server_interfaces

SNIPPET = b"<script>/* rum */</script>"
HTML = "header('Content-Type: text/html; charset=utf-8'); "
PAGE = "<html><head><title>A page</title></head><body>Text</body></html>"

_HEAD_END = re.compile(rb"</head>", re.IGNORECASE)
_VARYING = {"date"}


def with_snippet(body, snippet=SNIPPET):
    """The body with the snippet before its first closing head tag, which it must have."""
    at = _HEAD_END.search(body).start()
    return body[:at] + snippet + body[at:]


class Answer:
    def __init__(self, status, headers, body):
        self.status, self.body = status, body
        self.headers = [pair for pair in headers if pair[0].lower() not in _VARYING]

    def __eq__(self, other):
        return (self.status, self.headers, self.body) == (other.status, other.headers, other.body)

    def __repr__(self):
        return "%s %s %r" % (self.status, self.headers, self.body[:300])

    def header(self, name):
        return next((value for given, value in self.headers if given.lower() == name), None)

    @property
    def text(self):
        """The body as a browser sees it."""
        if self.header("content-encoding") == "gzip":
            return gzip.decompress(self.body)
        assert self.header("content-encoding") is None
        return self.body


class Site:
    """One kind of server. `collector` answers the loaded ones."""

    _starts = {"cgi": server_interfaces.CgiServer, "fpm": server_interfaces.FpmServer}

    def __init__(self, engine, collector, kind, directory):
        self.engine, self.collector, self.kind, self.directory = engine, collector, kind, directory
        self._servers, self._pages, self._names = {}, {}, itertools.count(1)

    def close(self):
        while self._servers:
            self._servers.popitem()[1].close()

    def get(self, source, loaded=True, settings=None, method="GET", accepted=None):
        """The answer of a page whose source is given without the opening tag."""
        page = self._page(source)
        server = self._server(loaded, dict(settings or {}))
        if self.kind == "builtin":
            headers = [("Accept-Encoding", accepted)] if accepted else []
            answer = server.request("/" + page.name, method, headers)
            return Answer(answer.status, answer.getheaders(), answer.body)
        variables = {"HTTP_ACCEPT_ENCODING": accepted} if accepted else {}
        answer = server.request(page, REQUEST_METHOD=method, REQUEST_URI="/" + page.name,
                                **variables)
        assert not answer.errors, answer.errors
        return Answer(answer.status, answer.headers, answer.body)

    def bare(self, source, **how):
        return self.get(source, loaded=False, **how)

    def unchanged(self, source, **how):
        """Checks that the page passes byte for byte, headers too, and returns the answer."""
        bare, loaded = self.bare(source, **how), self.get(source, **how)
        assert loaded == bare
        return loaded

    def injected(self, source, snippet=SNIPPET, **how):
        """Checks that the snippet is all that the page has more, and returns the answer."""
        bare, loaded = self.bare(source, **how), self.get(source, **how)
        assert (loaded.status, loaded.headers) == (bare.status, bare.headers)
        assert loaded.text == with_snippet(bare.text, snippet)
        return loaded

    def _page(self, source):
        if source not in self._pages:
            path = self.directory / ("page-%d.php" % next(self._names))
            path.write_bytes(b"<?php " + source.encode("utf-8", "surrogateescape"))
            self._pages[source] = path
        return self._pages[source]

    def _server(self, loaded, settings):
        key = loaded, tuple(sorted(settings.items()))
        if key not in self._servers:
            self._servers[key] = self._started(loaded, settings)
        return self._servers[key]

    def _started(self, loaded, settings):
        options = ["-n"]
        if loaded:
            options += ["-d", "extension=" + self.engine.so]
            settings = {"kaq.status_port": self.collector.status_port,
                        "kaq.data_port": self.collector.data_port, **settings}
        else:
            settings = {name: value for name, value in settings.items()
                        if not name.startswith("kaq.")}
        options += engines.ini_options({"display_errors": 0, "log_errors": 0, **settings})
        if self.kind != "builtin":
            return self._starts[self.kind](self.engine, options)
        router = self.directory / "router.php"
        router.write_text("<?php include '%s' . strtok($_SERVER['REQUEST_URI'], '?');"
                          % self.directory)
        return server_interfaces.BuiltinServer(self.engine, options, router)
