"""The server interfaces that serve web requests: CGI, FastCGI (php-cgi and FPM), built-in server."""
import http.client
import os
import pathlib
import re
import shutil
import signal
import socket
import subprocess
import tempfile
import time

import engines
import fastcgi
import loopback

START_DEADLINE = 30.0
KILL_DEADLINE = 30.0


def cgi_variables(script, **variables):
    """The variables of GET /, with each of `variables` replaced, added or (None) removed."""
    given = {
        "GATEWAY_INTERFACE": "CGI/1.1", "REDIRECT_STATUS": "200", "REQUEST_METHOD": "GET",
        "SCRIPT_FILENAME": str(script), "SCRIPT_NAME": "/" + pathlib.Path(script).name,
        "DOCUMENT_ROOT": str(pathlib.Path(script).parent), "SERVER_PROTOCOL": "HTTP/1.1",
        "SERVER_NAME": "shop.test", "SERVER_PORT": "8080", "HTTP_HOST": "shop.test",
        "REQUEST_URI": "/", "QUERY_STRING": "",
    }
    given.update(variables)
    return {name: value for name, value in given.items() if value is not None}


def run_cgi(engine, script, options, variables, body=None):
    """One php-cgi process for one request; the answer's head and body are parsed from stdout."""
    env = cgi_variables(script, **variables)
    if body is not None:
        env.setdefault("CONTENT_LENGTH", str(len(body)))
    result = engines.run([engine.cgi, *options], env=env, stdin=body)
    result.response = fastcgi.Response(result.stdout, result.stderr)
    return result


class _Server:
    """A server process that this object starts and stops by its process id."""

    def __init__(self):
        self.directory = tempfile.mkdtemp(prefix="kaq-wire-")
        self.process = None

    def _start(self, command, env=None):
        self.log_path = os.path.join(self.directory, "server.log")
        with open(self.log_path, "ab") as log:
            self.process = subprocess.Popen(
                command, stdin=subprocess.DEVNULL, stdout=log, stderr=log,
                env=engines.environment(env), cwd=self.directory)

    def _await(self, family, address):
        deadline = time.monotonic() + START_DEADLINE
        while time.monotonic() < deadline:
            if self.process.poll() is not None:
                return False
            with socket.socket(family, socket.SOCK_STREAM) as probe:
                try:
                    probe.connect(address)
                    return True
                except OSError:
                    time.sleep(0.01)
        return False

    @property
    def log(self):
        with open(self.log_path, encoding="utf-8", errors="replace") as log:
            return log.read()

    @property
    def worker(self):
        """The process id that answers the requests."""
        return self.process.pid

    def open_files(self):
        """How many descriptors the answering process has open; one may be the last connection."""
        return len(os.listdir("/proc/%d/fd" % self.worker))

    def resident_kib(self):
        with open("/proc/%d/status" % self.worker, encoding="ascii") as status:
            return int(re.search(r"VmRSS:\s+(\d+)", status.read()).group(1))

    @property
    def keeps_freed_memory(self):
        """An address sanitizer holds back what is freed, so that resident memory tells nothing."""
        with open("/proc/%d/maps" % self.worker, encoding="utf-8") as maps:
            return "libasan" in maps.read()

    def close(self):
        if self.process and self.process.poll() is None:
            self.process.terminate()
            try:
                self.process.wait(5)
            except subprocess.TimeoutExpired:
                self.process.send_signal(signal.SIGKILL)
                self.process.wait(KILL_DEADLINE)
        shutil.rmtree(self.directory, ignore_errors=True)


class CgiServer(_Server):
    """php-cgi as a FastCGI server: one process answers all requests, one after another."""

    def __init__(self, engine, options):
        super().__init__()
        self.socket = os.path.join(self.directory, "cgi.sock")
        self._start([engine.cgi, *options, "-b", self.socket],
                    {"PHP_FCGI_MAX_REQUESTS": "1000000", "PHP_FCGI_CHILDREN": "0"})
        assert self._await(socket.AF_UNIX, self.socket), self.log

    def request(self, script, body=b"", **variables):
        given = cgi_variables(script, **variables)
        if body:
            given.setdefault("CONTENT_LENGTH", str(len(body)))
        return fastcgi.request(self.socket, given, body)


class FpmServer(CgiServer):
    """php-fpm with a single worker, which answers all requests."""

    def __init__(self, engine, options):
        _Server.__init__(self)
        self.socket = os.path.join(self.directory, "fpm.sock")
        config = os.path.join(self.directory, "fpm.conf")
        identity = "user = root\ngroup = root\n" if os.geteuid() == 0 else ""
        with open(config, "w", encoding="ascii") as file:
            file.write("[global]\nerror_log = /dev/stderr\ndaemonize = no\n[www]\n"
                       "listen = %s\npm = static\npm.max_children = 1\n%s"
                       "catch_workers_output = yes\n" % (self.socket, identity))
        root = ["-R"] if identity else []
        self._start([engine.fpm, *options, *root, "-F", "-y", config])
        assert self._await(socket.AF_UNIX, self.socket), self.log

    @property
    def worker(self):
        with open("/proc/%d/task/%d/children" % (self.process.pid, self.process.pid),
                  encoding="ascii") as children:
            return int(children.read().split()[0])


class BuiltinServer(_Server):
    """The command line's own web server, with one router script for every path."""

    def __init__(self, engine, options, router):
        super().__init__()
        for _ in range(5):
            self.port = loopback.free_port()
            self._start([engine.php, *options, "-S", "127.0.0.1:%d" % self.port,
                         "-t", self.directory, str(router)])
            if self._await(socket.AF_INET, ("127.0.0.1", self.port)):
                return
        raise AssertionError(self.log)

    def request(self, path="/", method="GET", headers=(), body=b""):
        """headers is a list of pairs, sent exactly as they are spelled."""
        connection = http.client.HTTPConnection("127.0.0.1", self.port, timeout=30)
        try:
            connection.putrequest(method, path, skip_host=True, skip_accept_encoding=True)
            for name, value in headers:
                connection.putheader(name, value)
            if body:
                connection.putheader("Content-Length", str(len(body)))
            connection.endheaders(body or None)
            answer = connection.getresponse()
            answer.body = answer.read()
            return answer
        finally:
            connection.close()
