"""A browser as far as a run needs one: cookies, forms, uploads, and a record of every visit."""
import collections
import html.parser
import http.client
import re
import time
import urllib.parse
import uuid

from processes import Failure
from servers import HOST

TIMEOUT = 120


class Visit:
    """One request and its answer. `cpu` and `seconds` are what it took, `log` what it brought to
    the engine's log. `is_static`: no PHP ran. `is_repeatable`: asked for again it does the same,
    and is done with when it is answered. `is_clocked`: its numbers depend on how long something
    has run."""

    def __init__(self, name, method, target):
        self.name, self.method, self.target = name, method, target
        self.status, self.headers, self.body, self.log = None, [], b"", ""
        self.cpu = self.seconds = 0.0
        self.is_static = self.is_repeatable = self.is_clocked = False
        self.sent = {}

    @property
    def text(self):
        return self.body.decode("utf-8", "surrogateescape")

    def header(self, name):
        return next((value for key, value in self.headers if key.lower() == name.lower()), "")

    @property
    def location(self):
        """Where it sends the browser, without the host."""
        parts = urllib.parse.urlsplit(self.header("Location"))
        return urllib.parse.urlunsplit(("", "", parts.path or "/", parts.query, ""))

    def find(self, pattern):
        """The first group of a pattern in the text; what a later page needs must be there."""
        found = re.search(pattern, self.text)
        if not found:
            raise Failure("%s (%s %s, status %s): there is no %s in %r" % (
                self.name, self.method, self.target, self.status, pattern, self.text[:1500]))
        return html.unescape(found.group(1))

    def form(self, mark):
        """The fields, as a browser would send them, of the form that has this id, name or class,
        or this text in its action."""
        forms = _Forms()
        forms.feed(self.text)
        for attributes, fields in forms.found:
            if (mark in (attributes.get("id"), attributes.get("name"), attributes.get("class"))
                    or mark in (attributes.get("action") or "")):
                return dict(fields)
        raise Failure("%s (status %s): there is no form %s, only %s" % (
            self.name, self.status, mark, [attributes for attributes, _ in forms.found]))


class _Forms(html.parser.HTMLParser):
    def __init__(self):
        super().__init__()
        self.found = []
        self._select = self._area = None

    def handle_starttag(self, tag, attrs):
        attributes = dict(attrs)
        name = attributes.get("name")
        if tag == "form":
            self.found.append((attributes, []))
        if not self.found:
            return
        fields = self.found[-1][1]
        if tag == "input" and name:
            kind = (attributes.get("type") or "text").lower()
            chosen = kind not in ("checkbox", "radio") or "checked" in attributes
            if chosen and kind not in ("submit", "button", "image", "file", "reset"):
                fields.append((name, attributes.get("value") or ""))
        elif tag == "select":
            self._select = name
        elif tag == "option" and self._select and (
                "selected" in attributes or self._select not in dict(fields)):
            fields.append((self._select, attributes.get("value") or ""))
        elif tag == "textarea" and name:
            self._area = name
            fields.append((name, ""))

    def handle_data(self, data):
        if self._area:
            self.found[-1][1].append((self._area, data.lstrip("\n")))
            self._area = None

    def handle_endtag(self, tag):
        if tag == "select":
            self._select = None
        elif tag == "textarea":
            self._area = None


def _multipart(fields, files):
    """(content type, body). `files` are {field: (file name, type, bytes)}."""
    boundary = uuid.uuid4().hex
    parts = []
    for name, value in fields.items():
        parts.append(('Content-Disposition: form-data; name="%s"\r\n\r\n' % name).encode()
                     + str(value).encode())
    for name, (file_name, kind, data) in files.items():
        parts.append(('Content-Disposition: form-data; name="%s"; filename="%s"\r\n'
                      "Content-Type: %s\r\n\r\n" % (name, file_name, kind)).encode() + data)
    mark = b"--" + boundary.encode()
    body = b"".join(mark + b"\r\n" + part + b"\r\n" for part in parts) + mark + b"--\r\n"
    return "multipart/form-data; boundary=" + boundary, body


class Browser:
    """Asks the servers of one variant. `observer.before(visit)` gives headers to add,
    `observer.after(visit)` sees the answer; `limit` ends the script after that many pages."""

    def __init__(self, servers, observer=None, limit=None):
        self.servers = servers
        self.visits = []
        self.cookies = collections.OrderedDict()
        self._observer, self._limit = observer, limit
        self._log_read = servers.php_log.stat().st_size

    def get(self, name, target, headers=None, **more):
        return self.ask(name, "GET", target, headers=headers, **more)

    def post(self, name, target, fields=None, files=None, body=None, headers=None, **more):
        """`fields` as a form, with `files` as a multipart form, or `body` as it is."""
        given = dict(headers or {})
        if files is not None:
            given["Content-Type"], body = _multipart(fields or {}, files)
        elif body is None:
            given["Content-Type"] = "application/x-www-form-urlencoded"
            body = urllib.parse.urlencode(fields or {}, doseq=True).encode()
        return self.ask(name, "POST", target, body, given, **more)

    def ask(self, name, method, target, body=None, headers=None, is_repeatable=True,
            is_clocked=False):
        if self._limit is not None and len(self.visits) >= self._limit:
            raise EnoughPages
        visit = Visit(name, method, target)
        given = {"Host": HOST, "User-Agent": "Mozilla/5.0 (kaq)", "Accept": "*/*",
                 **(headers or {})}
        if self.cookies:
            given["Cookie"] = "; ".join("%s=%s" % pair for pair in self.cookies.items())
        if self._observer:
            given.update(self._observer.before(visit))
        visit.sent, visit.is_clocked = given, is_clocked
        self._exchange(visit, given, body)
        # What the web server does not find it may answer itself.
        visit.is_static = visit.status == 404 and not visit.header("X-Powered-By")
        visit.is_repeatable = method == "GET" and is_repeatable and not visit.is_static
        self._keep_cookies(visit)
        visit.log = self._new_log()
        self.visits.append(visit)
        if self._observer:
            self._observer.after(visit)
        return visit

    def wait_for_next_second(self):
        """So that what is made has an order, where only the second is kept."""
        time.sleep(1.02 - time.time() % 1)

    def _exchange(self, visit, headers, body):
        cpu = self.servers.cpu_seconds()
        begin = time.perf_counter()
        connection = http.client.HTTPConnection("127.0.0.1", self.servers.port, timeout=TIMEOUT)
        try:
            connection.request(visit.method, visit.target, body, headers)
            answer = connection.getresponse()
            visit.body = answer.read()
        finally:
            connection.close()
        visit.seconds = time.perf_counter() - begin
        visit.status, visit.headers = answer.status, answer.getheaders()
        # That of a worker that died is not known.
        visit.cpu = max(0.0, self.servers.cpu_seconds() - cpu)

    def _keep_cookies(self, visit):
        for name, value in visit.headers:
            if name.lower() != "set-cookie":
                continue
            pair, _, attributes = value.partition(";")
            key, _, content = pair.strip().partition("=")
            if content in ("", "deleted", "+") or "max-age=0" in attributes.lower():
                self.cookies.pop(key, None)
            else:
                self.cookies[key] = content

    def _new_log(self):
        with open(self.servers.php_log, "rb") as file:
            file.seek(self._log_read)
            more = file.read()
        self._log_read += len(more)
        return more.decode("utf-8", "surrogateescape")


class EnoughPages(Exception):
    """The script has visited as many pages as were asked for."""
